# shellcheck shell=bash disable=SC2034 # shares its variables with the stages
# What the stages work with: words, waits, a desktop, an RDP client, a session service.

output=/var/lib/package-test # what the host gets to see at the end
size=1024x768
session=7
mark=0 # the lines of the session service that have been dealt with
examples=/usr/share/doc/vorl-proxy/examples
work_directory=/run/vorl_proxy/.vorl
stage=

say() { printf '%s\n' "$*"; }

stage() {
    stage=$1
    say "== $1"
}

fail() {
    say "FAILED at stage '$stage': $1"
    systemctl --no-pager --lines=40 status vorl_proxy.service || true
    cp "$work_directory"/*.log "$output" 2>/dev/null || true
    journalctl --boot --no-pager >"$output/journal.txt" || true
    local log
    for log in "$output"/*.log; do
        [[ ! -s $log ]] || printf -- '--- %s\n%s\n' "${log##*/}" "$(tail -n 12 "$log")"
    done
    exit 1
}

expect() {
    local what=$1
    shift
    "$@" >"$output/expect.out" 2>&1 || fail "$what: $* ($(tail -n 3 "$output/expect.out"))"
}

not() { ! "$@"; }

# wait_until SECONDS COMMAND...
wait_until() {
    local limit=$((SECONDS + $1))
    shift
    until "$@"; do
        ((SECONDS < limit)) || return 1
        sleep 0.1
    done
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

# Alice's display is :10, and its cookie hers alone. The client's is :11.
start_displays() {
    local cookie
    cookie=$(mcookie)
    as alice xauth -q -f /home/alice/.Xauthority add :10 . "$cookie" 2>/dev/null
    chmod 600 /home/alice/.Xauthority
    as alice Xvfb :10 -nolisten tcp -noreset -auth /home/alice/.Xauthority \
        -screen 0 "${size}x24" >"$output/display-10.log" 2>&1 &
    Xvfb :11 -nolisten tcp -noreset -screen 0 "${size}x24" >"$output/display-11.log" 2>&1 &
    wait_until 20 test -S /tmp/.X11-unix/X10 || fail "no display :10"
    wait_until 20 test -S /tmp/.X11-unix/X11 || fail "no display :11"
    on_desktop xsetroot -solid '#20507a'
    on_desktop xlogo -geometry 240x240+720+60 >/dev/null 2>&1 &
    on_desktop xterm -geometry 70x20+40+60 -bg '#10222f' -fg '#d8e6f0' -e 'cat /etc/os-release; sleep infinity' >/dev/null 2>&1 &
    wait_until 20 drawn || fail "the desktop has not been drawn"
}

on_desktop() { as alice env DISPLAY=:10 XAUTHORITY=/home/alice/.Xauthority "$@"; }

drawn() {
    local last=${picture-}
    on_desktop import -window root png:- >"$output/desktop.png"
    picture=$(identify -format '%# %k' "$output/desktop.png")
    ((${picture#* } > 4)) && [[ $picture == "$last" ]]
}

# Built as its users would, from the package's examples.
start_session_service() {
    mkdir /root/session-service
    cp "$examples"/session-service/* /root/session-service/
    make -s -C /root/session-service >"$output/example.log" 2>&1 || fail "the example does not build"
    mkfifo /root/commands
    exec {commands}<>/root/commands
    /root/session-service/session_service /root/session.json </root/commands \
        >"$output/session-service.log" 2>&1 &
    wait_until 10 heard "owning net.qarel.vorl" || fail "the session service is not on the bus"
}

heard() { tail -n "+$((mark + 1))" "$output/session-service.log" | grep -q -- "$1"; }

# describe KEYS: the session as the daemon gets to know it, with its security.
describe() {
    cat >/root/session.json.new <<-JSON
	{ "display": 10, "xauthfile": "$xauthfile", "username": "alice", "uid": 1000,
	  "home": "/home/alice", $1 }
	JSON
    mv /root/session.json.new /root/session.json
}

tls='"sec:tls": true, "sec:auth": false'
pam='"sec:tls": true'
nla='"sec:nla": true, "ntlm": "alice:::878d8014606cda29677a44efa1353fc7:::"'
nla_password=secret
xauthfile=/home/alice/.Xauthority

# connect SECURITY PASSWORD: an allowance, and a client. Leaves its process id in $client.
connect() {
    mark=$(wc -l <"$output/session-service.log")
    echo "allow $session 3" >&"$commands"
    wait_until 10 heard "proxyListenStarted.*listening" || fail "the daemon does not listen"
    DISPLAY=:11 xfreerdp /v:127.0.0.1 /u:alice "/p:$2" "/sec:$1" /cert:ignore /size:"$size" /f \
        >"$output/client.log" 2>&1 &
    client=$!
    wait_until 15 heard "proxySessionConnected" || fail "no relay"
    shadow=$(sed -n 's/.*proxySessionConnected.*shadow pid \([0-9]*\).*/\1/p' \
        "$output/session-service.log" | tail -n 1)
}

shows_desktop() {
    on_desktop import -window root png:- >"$output/desktop.png"
    DISPLAY=:11 import -window root "$output/client.png"
    differing=$(compare -metric AE -fuzz 10% "$output/desktop.png" "$output/client.png" null: 2>&1) ||
        (($? == 1)) || fail "the pictures cannot be compared: $differing"
    ((differing * 100 <= ${size/x/ * }))
}

expect_picture() {
    wait_until 20 shows_desktop || fail "the client does not show the desktop"
    mv "$output/client.png" "$output/$1.png"
    say "   the desktop, but for $differing pixels: $1.png"
}

client_ended() { ! kill -0 "$client" 2>/dev/null; }

expect_refusal() {
    wait_until 20 client_ended || fail "the client is still there"
    ! wait "$client" || fail "the client reports success"
    not shows_desktop || fail "a wrong password has got the picture"
    expect_nothing_left
}

disconnect() {
    echo "disconnect $session $shadow 127.0.0.1" >&"$commands"
    wait_until 10 client_ended || fail "the client has not been let go"
    wait "$client" || true
    expect_nothing_left
}

expect_nothing_left() { wait_until 10 nothing_left || fail "left behind: $(ls -a "$work_directory")"; }

nothing_left() {
    [[ ! -d /proc/$shadow ]] && [[ -z $(find "$work_directory" ! -type d ! -name '*.log') ]]
}

status_is() { [[ $(systemctl show --value --property StatusText vorl_proxy) == "$1"* ]]; }

exposure() {
    systemd-analyze security --no-pager --threshold="$1" vorl_proxy.service >"$output/exposure-$1" ||
        fail "$(tail -n 1 "$output/exposure-$1")"
    say "   $(tail -n 1 "$output/exposure-$1")"
}
