# shellcheck shell=bash disable=SC2034,SC2154 # shares its variables with run
# RDP clients of the release, each in a place with a display of its own, and strangers.

make_client_place() {
    make_place "$1" "$2"
    start_display "$1" "$work/$1.authority"
}

# open_client NAME USER PASSWORD [OPTION...]: to the front, unless the options say otherwise.
open_client() {
    local name=$1
    entering "$name"
    on "$name" start "$name-client" "${entering[@]}" "$rdp_client" "/v:$front4" "/u:$2" "/p:$3" \
        /sec:nla /cert:ignore "/size:$size" /f "${@:4}"
}

close_client() { stop "$1-client"; }
client_gone() { not running "$1-client"; }

# shows NAME HOST: whether the client shows that host's desktop.
shows() {
    display[client]=${display[$1]} authority[client]=${authority[$1]}
    display[desktop]=${display[$2]} authority[desktop]=${authority[$2]}
    client_shows_desktop
}

expect_picture_of() {
    wait_until 20 shows "$1" "$2" || {
        cp "$work/client.png" "$output/$1-failed.png"
        fail "$1 does not show $2's desktop: $differing of the pixels differ"
    }
    cp "$work/client.png" "$output/$((++pictures))-$1-shows-$2.png"
}

# expect_still NAME HOST: also now.
expect_still() { shows "$1" "$2" || fail "$1 no longer shows $2's desktop"; }

# expect_refused NAME USER PASSWORD [OPTION...]: the client ends by itself, without a picture.
expect_refused() {
    open_client "$@"
    wait_until 20 client_gone "$1" || fail "$1's client is still there"
    close_client "$1"
    ((status != 0)) || fail "$1's client reports success"
}

# send NAME BYTES [ADDRESS]: from that place to the front, bytes as for printf; prints how many bytes
# came back until the front closed.
send() {
    # shellcheck disable=SC2016 # expanded by the inner shell
    enter "$1" timeout 10 bash -c 'exec 3<>"/dev/tcp/$1/3389" && printf "$2" >&3 && wc -c <&3' \
        bash "${3-$front4}" "$2" 2>/dev/null || true
}

# Connection requests without and with a cookie (MS-RDPBCGR 2.2.1.1).
no_cookie='\x03\x00\x00\x13\x0e\xe0\x00\x00\x00\x00\x00\x01\x00\x08\x00\x03\x00\x00\x00'
alices_cookie='\x03\x00\x00\x2b\x26\xe0\x00\x00\x00\x00\x00Cookie: mstshash=alice\r\n\x01\x00\x08\x00\x03\x00\x00\x00'
