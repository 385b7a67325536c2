# shellcheck shell=bash disable=SC2034,SC2154 # shares its variables with the stages
# The gate of docs/many-hosts.md: HAProxy before the daemon, on one machine, with the units' sandboxes.

session_examples=/usr/share/doc/vorl-session/examples

try_gate() {
    local client_host='[::1]'
    cp -r --backup "$session_examples/gate/etc" /
    expect "restart" systemctl restart vorl_proxy
    expect "restart" systemctl restart haproxy
    wait_until 20 says "can be reached at 127.0.0.1:13389" || fail "$(vorl_session status)"
    wait_until 20 front_noted "vorl-tell.* /user status=204" || fail "the gate has been told nothing"
    open_client one "pässword-1"
    expect_picture_on one alice
    close_client one
    wait_until 10 front_noted "vorl-front client=::1 .*user=.alice" || fail "no line of the gate"
    open_client one wrong
    expect_no_picture_on one
    vorl_session ticket --rdp alice >"$work/alice.rdp"
    wait_until 10 front_noted "vorl-tell.* PUT /ticket status=204" || fail "the gate knows no ticket"
    on one start one-client "$rdp_client" "$work/alice.rdp" "/v:$client_host" \
        "/p:pässword-1" /sec:nla /cert:ignore "/size:$size" /f
    expect_picture_on one alice
    close_client one
}

# The machine is its own front: for the hook's way through the service's sandbox.
try_gate_over_tls() {
    local client_host='[::1]'
    cp -r --backup "$session_examples/host/etc" /
    (cd "$work" && "$session_examples/certificate" front 127.0.0.1 && "$session_examples/certificate" host desk)
    echo https://127.0.0.1:3390 >/etc/vorl/fronts
    install -m 600 "$work/desk.pem" /etc/vorl/host.pem
    install -m 644 "$work/authority.crt" /etc/vorl/authority.crt
    install -m 600 "$work/127.0.0.1.pem" /etc/haproxy/vorl/front.pem
    install -m 644 "$work/authority.crt" /etc/haproxy/vorl/hosts.crt
    sed -i 's/#bind 0.0.0.0:3390/bind 0.0.0.0:3390/' /etc/haproxy/haproxy.cfg
    expect "restart" systemctl restart haproxy
    expect "restart" systemctl daemon-reload
    expect "restart" systemctl restart vorl_session
    wait_until 20 front_noted "certificate=.desk.* /user status=204" || fail "the front has been told nothing"
    open_client one "pässword-1"
    expect_picture_on one alice
    close_client one
}

front_noted() { journalctl -q -t haproxy -o cat --grep "$1" >/dev/null 2>&1; }

remove_gate() {
    local file
    systemctl stop haproxy
    rm -r /etc/systemd/system/vorl_session.service.d /etc/haproxy/vorl /etc/vorl/{front-hook,fronts,host.pem,authority.crt}
    rm -f /etc/vorl/front-hook~ /run/haproxy/vorl.sock
    for file in /etc/haproxy/haproxy.cfg /etc/vorl/vorl_proxy.json; do
        mv "$file~" "$file"
    done
    rm /etc/vorl/vorl_session.json~
    configure
    systemctl daemon-reload
    systemctl restart vorl_session vorl_proxy
    wait_until 20 says "can be reached at 0.0.0.0:3389" || fail "$(vorl_session status)"
}
