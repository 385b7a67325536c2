# shellcheck shell=bash disable=SC2034,SC2154 # shares its variables with the trials
# One RDP client through the daemon, from the allowance to the end. Builds on the other files.
# Whoever sources this sets $port, and $work_directory, the daemon's directory .vorl.

# allow_client: returns when the daemon listens.
allow_client() {
    heard_from=$(($(wc -l <"$work/service.log") + 1))
    command_service allow "$session" "$second"
    wait_until 10 heard "<- proxyListenStarted" || fail "the daemon has not tried to listen"
    [[ $heard_line == *listening* ]] || fail "the daemon cannot listen on port $port"
}

client_host=127.0.0.1
client_certificates=ignore # what the client does with those that it cannot verify

# client_line PASSWORD SECURITY: the command line, without what makes the picture full size.
client_line() {
    echo "$rdp_client /v:$client_host:$port /u:$user /p:$1 /sec:$2 /cert:$client_certificates"
}

# start_client PASSWORD SECURITY: the process "client"; returns when the daemon has accepted it.
start_client() {
    local client
    read -r -a client < <(client_line "$1" "$2")
    on client start client "${client[@]}" /size:"$size" /f
    wait_until 15 heard "<- proxyClientConnected" || fail "the client has not been accepted"
}

# await_relay: leaves the shadow server's process id in $shadow_pid.
await_relay() {
    wait_until 15 heard "<- proxySessionConnected" || fail "the relay has not been set up"
    [[ $heard_line =~ shadow\ pid\ ([0-9]+) ]]
    shadow_pid=${BASH_REMATCH[1]}
}

# expect_picture FILE: saves the picture that the client shows, once it is the desktop's.
expect_picture() {
    local file=$1
    wait_until 20 client_shows_desktop || file=${1%.png}-failed.png
    install -m 644 "$work/client.png" "$file"
    # Owned by the directory's owner, also under sudo.
    chown --reference="$(dirname "$file")" "$file"
    [[ $file == "$1" ]] || fail "$differing of the pixels differ; see $file"
}

# expect_refusal: the client ends by itself, with a failure and without having shown anything.
expect_refusal() {
    wait_until 20 client_refused || fail "the client is still running"
    stop client
    ((status != 0)) || fail "the client reports success"
}

client_refused() {
    not client_shows_desktop || fail "a wrong password shows the desktop"
    not running client
}

# end_relay: the session service ends it.
end_relay() { command_service disconnect "$session" "$shadow_pid" 127.0.0.1; }

expect_nothing_left() {
    wait_until 10 nothing_left || fail "left behind: pid $shadow_pid or $(relay_files)"
    wait_until 10 client_shows_nothing || fail "the client still shows a picture"
}

nothing_left() { [[ ! -d /proc/$shadow_pid && -z $(relay_files) ]]; }

# relay_files: sockets and SAM files; the logs stay when a connection ends.
relay_files() { find "$work_directory" ! -type d ! -name '*.log' -printf '%f '; }
