# shellcheck shell=bash disable=SC2034,SC2154 # shares its variables with debian/tests/serving
# A library is upgraded under a relay.

# As dpkg does it: the daemon goes on with a file that has no name any more.
upgrade_library() {
    local library
    library=$(sed -n 's|.* \(/.*libjsoncpp\.so[^ ]*\).*|\1|p' "/proc/$(main_pid)/maps" | head -n 1)
    cp --preserve "$library" "$library.new"
    mv "$library.new" "$library"
}

try_needrestart() {
    local running configuration=/etc/needrestart/conf.d/vorl-proxy.conf
    describe_session "$sec_tls"
    connect any tls
    expect_picture "$work/needrestart.png"
    running=$(main_pid)
    upgrade_library
    expect "needrestart" needrestart -b -l
    grep -q "^NEEDRESTART-SVC: vorl_proxy.service" "$work/expect.out" ||
        fail "needrestart does not see the old library"
    expect "needrestart" needrestart -r a -l
    say "   $(grep -i -A 2 defer "$work/expect.out" | tr -s '\n ' ' ')"
    [[ $(main_pid) == "$running" ]] || fail "needrestart has restarted it"
    client_shows_desktop || fail "the relay is disturbed"
    disconnect
    # And it would have, without the package's file.
    mv "$configuration" /root/needrestart.conf
    expect "needrestart" needrestart -r a -l
    [[ $(main_pid) != "$running" ]] || fail "needrestart does not restart it in any case"
    mv /root/needrestart.conf "$configuration"
    wait_until 15 systemctl -q is-active vorl_proxy || fail "it has not been started again"
}
