# shellcheck shell=bash disable=SC2034,SC2154 # shares its variables with demo/run
# One connection, stage by stage, and its end.

# connect PASSWORD SECURITY: from the allowance to the relay. Leaves the shadow server's
# process id in $shadow_pid.
connect() {
    mark=${#events[@]}
    stage allowance
    allow_client
    wait_until 10 seen "signalProxyAllowConnection: session id" ||
        fail "the daemon has not noticed the allowance"
    reached "session $session may have one client"

    stage listener
    port_open || fail "nobody listens on port $port"
    reached "the daemon waits on 127.0.0.1:$port"

    stage client
    say "$(client_line "$1" "$2")"
    start_client "$1" "$2"
    ! port_open || fail "the port is still open for others"
    reached "accepted; the port is closed again"

    stage shadow
    wait_until 10 seen "<- vorlSessionInfoJson" || fail "the daemon has not asked for the session"
    wait_until 10 seen "unixConnect: fd:" || fail "the shadow server has no socket"
    reached "a shadow server of its own for this client listens on its socket"

    stage relay
    await_relay
    reached "the daemon carries bytes between the client and shadow server $shadow_pid"
}

# In the kernel's table: the port in hexadecimal, no peer, state LISTEN.
port_open() { grep -q "$(printf ':%04X 00000000:0000 0A' "$port")" /proc/net/tcp; }

# show_picture NAME: the client's, once it is the desktop's.
show_picture() {
    local file=$output/vorl-demo-$1.png
    stage picture
    expect_picture "$file"
    [[ -d /proc/$shadow_pid ]] || fail "shadow server $shadow_pid is not there"
    shadow_files=$(relay_files)
    [[ $shadow_files == *"proxy_${session}_0"* ]] || fail "the shadow server's socket is not there"
    reached "the desktop, but for $differing of $((${size/x/ * })) pixels; saved as"$'\n'"$file"
}

show_clean_up() {
    stage clean-up
    expect_nothing_left
    reached "gone: shadow server $shadow_pid and ${shadow_files% }"
}
