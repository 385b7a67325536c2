# shellcheck shell=bash
# Programs from Debian that are unpacked, not installed: nothing is started or enabled on this
# machine. Whoever sources this defines fail TEXT, which reports and exits.

# fetch_unpacked DIRECTORY PACKAGE...: once, into DIRECTORY/root, with what they depend on; the
# packages stay in DIRECTORY/debs. What the machine already has is taken from it; apt leaves that out.
fetch_unpacked() {
    local debs=$1/debs
    [[ ! -e $debs/complete ]] || return 0
    mkdir -p "$debs/partial" "$1/root"
    apt-get update -qq
    apt-get install -qq --yes --download-only --no-install-recommends \
        -o Dir::Cache::archives="$debs" "${@:2}" >/dev/null ||
        fail "${*:2} cannot be fetched: is the Debian registry within reach?"
    find "$debs" -name '*.deb' -exec dpkg -x {} "$1/root" \;
    touch "$debs/complete"
}
