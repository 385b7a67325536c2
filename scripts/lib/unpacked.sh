# shellcheck shell=bash
# Programs from Debian that are unpacked, not installed: nothing is started or enabled on this
# machine. Whoever sources this defines fail TEXT, which reports and exits.

# fetch_unpacked DIRECTORY PACKAGE...: once, into DIRECTORY/root, with what they depend on; the
# packages stay in DIRECTORY/debs. What the machine already has is taken from it; apt leaves that out.
fetch_unpacked() {
    local archives=$1/debs
    [[ ! -e $archives/complete ]] || return 0
    mkdir -p "$archives/partial" "$1/root"
    apt-get update -qq
    apt-get install -qq --yes --download-only --no-install-recommends \
        -o Dir::Cache::archives="$archives" "${@:2}" >/dev/null ||
        fail "${*:2} cannot be fetched: is the Debian registry within reach?"
    find "$archives" -name '*.deb' -exec dpkg -x {} "$1/root" \;
    touch "$archives/complete"
}
