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
    port_open || fail "port $port is not open"
    reached "the daemon listens on 127.0.0.1:$port"

    stage client
    say "$(client_line "$1" "$2")"
    start_client "$1" "$2"
    ! port_open || fail "the port is still open for others"
    reached "accepted; the port is closed again"

    stage shadow
    wait_until 10 seen "<- vorlSessionInfoJson" || fail "the daemon has not asked for the session"
    wait_until 10 seen "unixConnect: fd:" || fail "the shadow server has no socket"
    reached "this client's shadow server listens on its unix socket"

    stage relay
    await_relay
    reached "the daemon relays between the client and shadow server $shadow_pid"
}

# In the kernel's table: the port in hexadecimal, no peer, state LISTEN.
port_open() { grep -q "$(printf ':%04X 00000000:0000 0A' "$port")" /proc/net/tcp; }

# show_picture NAME: the client's, once it is the desktop's.
show_picture() {
    local file=$output/vorl-demo-$1.png
    stage picture
    expect_picture "$file"
    [[ -d /proc/$shadow_pid ]] || fail "shadow server $shadow_pid is not running"
    shadow_files=$(relay_files)
    [[ $shadow_files == *"proxy_${session}_0"* ]] || fail "the shadow server's socket does not exist"
    reached "the desktop, except for $differing of $((${size/x/ * })) pixels; saved as"$'\n'"$file"
}

show_clean_up() {
    stage clean-up
    expect_nothing_left
    reached "shadow server $shadow_pid has ended; removed: ${shadow_files% }"
}
