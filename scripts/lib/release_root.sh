# shellcheck shell=bash disable=SC2034,SC2154 # shares its variables with the scripts
# Root directories of a Debian release, for trials: thrown away after use, and quick to make again
# from tar files in build/roots. Whoever sources this sets $root, the source tree, and defines
# cannot TEXT, which reports why a trial cannot be made and exits with status 77.

readonly releases="bookworm trixie"
readonly cached_days=7 # then they are made anew, with the release's latest packages

require_release() {
    [[ " $releases " == *" $1 "* ]] || { echo "no such release: '$1' (there are: $releases)" >&2 && exit 2; }
}

# host_release: the code name of the release that this machine runs.
host_release() { (. /etc/os-release && echo "${VERSION_CODENAME-}"); }

# make_root RELEASE DIRECTORY [GROUP...]: a bare root of the release, or one that has these
# groups of scripts/install-packages too. Logs to $log.
make_root() {
    local release=$1 tree=$2 cache=$root/build/roots/$1 name
    shift 2
    mkdir -p "$root/build/roots" "$tree"
    find "$root/build/roots" -name '*.tar' -mtime "+$cached_days" -delete
    if [[ ! -e $cache.tar ]]; then
        # With the package lists, as a host has them. Nobody needs what dpkg writes after a crash.
        mmdebstrap --quiet --variant=minbase --include=ca-certificates \
            --dpkgopt=force-unsafe-io --skip=cleanup/apt/lists "$release" "$cache.new.tar" >>"$log" 2>&1 ||
            cannot "no Debian root could be made: $(tail -n 1 "$log")"
        mv "$cache.new.tar" "$cache.tar"
    fi
    name=$cache${*:+-}$(IFS=-; echo "$*").tar
    if [[ -e $name ]]; then
        tar -C "$tree" -xf "$name"
    else
        tar -C "$tree" -xf "$cache.tar"
    fi
    (($#)) || return 0
    put_tree "$tree" scripts/install-packages scripts/lib
    # What is in the cached root already is not installed again.
    in_root "$tree" "$in_root_tree/scripts/install-packages" "$@" >"$tree.install.log" 2>&1 ||
        cannot "packages cannot be installed: $(tail -n 1 "$tree.install.log")"
    if [[ ! -e $name || -s $tree.install.log ]]; then
        rm -rf "${tree:?}$in_root_tree"
        tar -C "$tree" -cf "$name.new" --one-file-system . && mv "$name.new" "$name"
    fi
}

# Where the source tree, or a part of it, is in a root.
readonly in_root_tree=/opt/vorl_proxy

# put_tree ROOT PATH...: these parts of the source tree.
put_tree() {
    mkdir -p "$1$in_root_tree"
    tar -C "$root" -cf - --exclude=./build --exclude-vcs "${@:2}" | tar -C "$1$in_root_tree" -xf -
}

# in_root DIRECTORY COMMAND...: runs it there, in mount, process and other namespaces that end
# with it. The network stays the host's. pivot_root and not chroot: only so may the command make
# user namespaces of its own.
in_root() {
    cp --remove-destination /etc/resolv.conf "$1/etc/resolv.conf"
    # shellcheck disable=SC2016 # expanded by the inner shell
    unshare --mount --pid --fork --kill-child --ipc --uts --cgroup sh -euc '
        tree=$1
        shift
        mount --bind "$tree" "$tree"
        cd "$tree"
        mount -t proc proc proc
        mount --rbind /sys sys
        mount --rbind /dev dev
        mount -t tmpfs -o mode=755 run run
        mount -t tmpfs -o mode=1777 shm dev/shm 2>/dev/null || true
        mkdir -p run/outside
        pivot_root . run/outside
        umount -l /run/outside
        exec env -i HOME=/root LC_ALL=C.UTF-8 PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
            DEB_BUILD_OPTIONS="${DEB_BUILD_OPTIONS-}" "$@"' sh "$@" </dev/null
}
