# shellcheck shell=bash disable=SC2034,SC2154 # shares its variables with the stages
# What the stages of the package's trial work with, beside the library of scripts/lib.

work=/var/lib/package-test # what the host gets to see at the end
port=3389
examples=/usr/share/doc/vorl-proxy/examples
work_directory=/run/vorl_proxy/.vorl
session_uid=1000
session_home=/home/$user
stage=

say() { printf '%s\n' "$*"; }

stage() {
    stage=$1
    say "== $1"
}

fail() {
    say "FAILED at stage '$stage': $1"
    systemctl --no-pager --lines=40 status vorl_proxy.service || true
    cp "$work_directory"/*.log "$work" 2>/dev/null || true
    journalctl --boot --no-pager >"$work/journal.txt" || true
    show_logs 12 "$work"/*.log
    exit 1
}

expect() {
    local what=$1
    shift
    "$@" >"$work/expect.out" 2>&1 || fail "$what: $* ($(tail -n 3 "$work/expect.out"))"
}

# Alice has a session, Bob an account and a password.
make_accounts() {
    local name
    for name in alice bob; do
        useradd --create-home --shell /bin/bash "$name"
        echo "$name:password-of-$name" | chpasswd
    done
}

# as ACCOUNT COMMAND...
as() { setpriv --reuid "$1" --regid "$1" --clear-groups env HOME="/home/$1" "${@:2}"; }

# The session's display and its cookie are Alice's.
start_displays() {
    start_display desktop /home/alice/.Xauthority as alice
    start_display client /root/.Xauthority
    on desktop as alice xsetroot -solid '#20507a'
    on desktop start xlogo as alice xlogo -geometry 240x240+720+60
    on desktop start xterm as alice xterm -geometry 70x20+40+60 -bg '#10222f' -fg '#d8e6f0' \
        -e 'cat /etc/os-release; sleep infinity'
    wait_until 20 desktop_settled 4 || fail "the desktop has not been drawn"
}

# Built as its users would, from the package's examples.
build_session_service() {
    mkdir /root/session-service
    cp "$examples"/session-service/* /root/session-service/
    make -s -C /root/session-service >"$work/example.log" 2>&1 || fail "the example does not build"
}

# connect PASSWORD SECURITY
connect() {
    allow_client
    start_client "$@"
    await_relay
}

show_picture() {
    expect_picture "$work/$1.png"
    say "   the desktop, but for $differing pixels: $1.png"
}

refuse_client() {
    expect_refusal
    expect_nothing_left
}

client_ended() { not running client; }

disconnect() {
    end_relay
    wait_until 10 client_ended || fail "the client has not been let go"
    stop client
    expect_nothing_left
}

status_is() { [[ $(systemctl show --value --property StatusText vorl_proxy) == "$1"* ]]; }

exposure() {
    systemd-analyze security --no-pager --threshold="$1" vorl_proxy.service >"$work/exposure-$1" ||
        fail "$(tail -n 1 "$work/exposure-$1")"
    say "   $(tail -n 1 "$work/exposure-$1")"
}
