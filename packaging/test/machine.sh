# shellcheck shell=bash disable=SC2034,SC2154 # shares its variables with the stages
# What the stages of the package's trial share, beside the library of scripts/lib.

work=/var/lib/package-test # what the host gets to see at the end
port=3389
examples=/usr/share/doc/vorl-proxy/examples
work_directory=/run/vorl_proxy/.vorl
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
        id "$name" >/dev/null 2>&1 || useradd --create-home --shell /bin/bash "$name"
        echo "$name:password-of-$name" | chpasswd
    done
    session_uid=$(id -u alice)
}

# Before a command: it runs as this account.
as_alice=(setpriv --reuid alice --regid alice --clear-groups env HOME=/home/alice)
as_bob=(setpriv --reuid bob --regid bob --clear-groups env HOME=/home/bob)

# The session's display and its cookie are Alice's.
start_displays() {
    start_display desktop /home/alice/.Xauthority "${as_alice[@]}"
    start_display client /root/.Xauthority
    on desktop "${as_alice[@]}" xsetroot -solid '#20507a'
    on desktop start xlogo "${as_alice[@]}" xlogo -geometry 240x240+720+60
    on desktop start xterm "${as_alice[@]}" xterm -geometry 70x20+40+60 -bg '#10222f' -fg '#d8e6f0' \
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
    say "   the desktop, except for $differing pixels: $1.png"
}

refuse_client() {
    expect_refusal
    expect_nothing_left
}

client_ended() { not running client; }

disconnect() {
    end_relay
    wait_until 10 client_ended || fail "the client is still running"
    stop client
    expect_nothing_left
}

drop_ins=/etc/systemd/system/vorl_proxy.service.d

# use_drop_in NAME: one of the package's examples.
use_drop_in() {
    install -D -m 644 -t "$drop_ins" "$examples/$1"
    restart
}

remove_drop_ins() {
    rm -r "$drop_ins"
    restart
}

restart() {
    systemctl daemon-reload
    systemctl restart vorl_proxy || fail "it does not start"
}

main_pid() { systemctl show --value --property MainPID vorl_proxy; }

# in_journal TEXT: whether the last shadow server's lines in the journal have it.
in_journal() {
    wait_until 5 shadow_journal "$1"
}

shadow_journal() { journalctl -q "_PID=$shadow_pid" -o cat | grep -qi -- "$1"; }

status_is() { [[ $(systemctl show --value --property StatusText vorl_proxy) == "$1"* ]]; }

exposure() {
    systemd-analyze security --no-pager --threshold="$1" vorl_proxy.service >"$work/exposure-$1" ||
        fail "$(tail -n 1 "$work/exposure-$1")"
    say "   $(tail -n 1 "$work/exposure-$1")"
}
