# shellcheck shell=bash disable=SC2034,SC2154 # shares its variables with run
# The front: HAProxy with the example's configuration, whose paths are made the farm's own.

certificate() { (cd "$work/certificates" && "$examples/certificate" "$@" >>"$work/certificates.log" 2>&1); }

configure_front() {
    mkdir -p "$work/front" "$work/certificates" /run/haproxy
    cp "$examples/entries.map" "$work/front/users.map"
    cp "$examples/entries.map" "$work/front/tickets.map"
    certificate front "$front4"
    cp "$work/certificates/$front4.pem" "$work/front/front.pem"
    cp "$work/certificates/authority.crt" "$work/front/hosts.crt"
    # The first line: what needs the account of the Debian package.
    sed -e '/^    \(chroot\|user\|group\) /d' \
        -e "s|/etc/haproxy/vorl|$work/front|g" \
        -e 's|/dev/log|/run/systemd/journal/dev-log|' \
        -e 's|^    #bind|    bind|' "$examples/haproxy.cfg" >"$work/haproxy.cfg"
    haproxy -c -f "$work/haproxy.cfg" >"$work/haproxy-check.log" 2>&1 || fail "$(<"$work/haproxy-check.log")"
}

start_front() {
    start_needed front haproxy -W -db -f "$work/haproxy.cfg"
    wait_until 10 listening 3389 || fail "the front does not listen"
}

crash_front() {
    local name others=()
    for name in "${needed[@]}"; do
        [[ $name == front ]] || others+=("$name")
    done
    needed=("${others[@]}")
    { kill -KILL "${pids[front]}" && stop front; } 2>/dev/null # bash would report it
}

# As "systemctl reload haproxy" does: running connections stay with the old process.
reload_front() {
    local before
    before=$(worker)
    kill -USR2 "${pids[front]}"
    wait_until 10 another_worker "$before" || fail "the front has not been reloaded"
}

worker() { admin "show info" 2>/dev/null | sed -n 's/^Pid: //p'; }

another_worker() {
    local now
    now=$(worker)
    [[ -n $now && $now != "$1" ]]
}

listening() { ss -Hltn "sport = :$1" | grep -q .; }

# admin COMMAND: HAProxy's answer.
admin() {
    python3 -c '
import socket, sys
with socket.socket(socket.AF_UNIX) as admin:
    admin.connect("/run/haproxy/admin.sock")
    admin.sendall(sys.argv[1].encode() + b"\n")
    while answer := admin.recv(65536):
        sys.stdout.write(answer.decode())' "$1"
}

# expected USER NAME: whether the front would send the user to that host now.
expected() {
    admin "show map $work/front/users.map" | grep -q " $1 ${address[$2]}:3389$" &&
        admin "show table users" | grep -q "key=$1 "
}

expected_soon() { wait_until 20 expected "$@"; }

# front_line TEXT: the newest line of the front about a client that has it, in $line.
front_line() {
    line=$(journalctl -q -t haproxy -o cat | grep "^vorl-front .*$1" | tail -n 1)
    [[ -n $line ]]
}

# passed_count NAME: how many connections from this place to a host have ended so far.
passed_count() { journalctl -q -t haproxy -o cat | grep -c "^vorl-front client=${address[$1]} .* source=[0-9]" || true; }
