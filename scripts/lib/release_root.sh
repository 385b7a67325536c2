# shellcheck shell=bash disable=SC2034,SC2154 # shares its variables with the scripts
# Throwaway root directories of a Debian release, made from tar files that are kept in build/roots.
# Whoever sources this sets $root, the source tree, and $log, and defines cannot TEXT, which reports
# why something is not possible here and exits with status 77.

readonly releases="bookworm trixie"
readonly cached_days=7 # then they are made anew, with the release's latest packages

require_release() {
    [[ " $releases " == *" $1 "* ]] || { echo "no such release: '$1' (there are: $releases)" >&2 && exit 2; }
}

# host_release: the code name of the release that this machine runs.
host_release() { (. /etc/os-release && echo "${VERSION_CODENAME-}"); }

# make_root RELEASE DIRECTORY [GROUP...]: a minimal root directory of the release; with groups, the
# packages of these groups of scripts/install-packages are installed in it.
make_root() {
    local release=$1 tree=$2 cache=$root/build/roots/$1 name
    shift 2
    mkdir -p "$root/build/roots" "$tree"
    find "$root/build/roots" -name '*.tar' -mtime "+$cached_days" -delete
    if [[ ! -e $cache.tar ]]; then
        # With the package lists, as a host has them. After a crash the root directory is worthless
        # anyway, so dpkg need not wait for the disk.
        mmdebstrap --quiet --variant=minbase --include=ca-certificates \
            --dpkgopt=force-unsafe-io --skip=cleanup/apt/lists --format=tar \
            "$release" "$cache.new.$$" >>"$log" 2>&1 ||
            cannot "mmdebstrap failed: $(tail -n 1 "$log")"
        mv "$cache.new.$$" "$cache.tar"
    fi
    name=$cache${*:+-}$(IFS=-; echo "$*").tar
    if [[ -e $name ]]; then
        tar -C "$tree" -xf "$name"
    else
        tar -C "$tree" -xf "$cache.tar"
    fi
    (($#)) || return 0
    put_tree "$tree" scripts/install-packages scripts/lib
    # Installs nothing, and prints nothing, if the tar file had all of them.
    in_root "$tree" "$in_root_tree/scripts/install-packages" "$@" >"$tree.install.log" 2>&1 ||
        cannot "packages cannot be installed: $(tail -n 1 "$tree.install.log")"
    if [[ ! -e $name || -s $tree.install.log ]]; then
        rm -rf "${tree:?}$in_root_tree" "$tree"/var/cache/apt/archives/*.deb
        tar -C "$tree" -cf "$name.new.$$" --one-file-system . && mv "$name.new.$$" "$name"
    fi
}

# The source tree, or a part of it, in a root directory.
readonly in_root_tree=/opt/vorl_proxy

# put_tree DIRECTORY PATH...: copies these parts of the source tree there.
put_tree() {
    mkdir -p "$1$in_root_tree"
    tar -C "$root" -cf - --exclude=./build --exclude-vcs "${@:2}" | tar -C "$1$in_root_tree" -xf -
}

# in_root DIRECTORY COMMAND...: runs the command there, in private namespaces except for the network.
# With pivot_root, because the kernel refuses new user namespaces in a chroot.
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
            DEB_BUILD_OPTIONS="${DEB_BUILD_OPTIONS-}" http_proxy="${http_proxy-}" "$@"' sh "$@" </dev/null
}
