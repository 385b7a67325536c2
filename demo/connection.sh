# shellcheck shell=bash disable=SC2034,SC2154 # shares its variables with demo/run
# The road of one connection, stage by stage, and its end.

user=bob
password=secret
nt_hash=878d8014606cda29677a44efa1353fc7 # of the password: MD4 of its UTF-16LE form
sam=$user:::$nt_hash:::
session_uid=1000

# describe_session KEYS: what the session service tells the daemon. KEYS are JSON members.
describe_session() {
    cat >"$work/session.json.new" <<-JSON
	{
	    "display": ${display[desktop]},
	    "xauthfile": "$XAUTHORITY",
	    "username": "$user",
	    "uid": $session_uid,
	    "home": "$HOME",
	    $1
	}
	JSON
    mv "$work/session.json.new" "$work/session.json"
}

describe_tls() { describe_session '"sec:tls": true, "sec:auth": false'; }
describe_nla() { describe_session '"sec:nla": true, "sec:auth": false, "ntlm": "'"$sam"'"'; }

client_line() { echo "xfreerdp /v:127.0.0.1:$port /u:$user /p:$1 /sec:$2 /cert:ignore"; }

# connect PASSWORD SECURITY: from the allowance to the relay. Leaves the shadow server's
# process id in $shadow_pid, and its files in $shadow_files.
connect() {
    local client
    mark=${#events[@]}
    stage allowance
    command_service allow "$session" "$second"
    wait_until 10 seen "signalProxyAllowConnection: session id" ||
        fail "the daemon has not noticed the allowance"
    reached "session $session may have one client"

    stage listener
    wait_until 10 seen "<- proxyListenStarted" || fail "the daemon has not tried to listen"
    [[ $event == *listening* ]] || fail "port $port cannot be had"
    port_open || fail "nobody listens on port $port"
    reached "the daemon waits on 127.0.0.1:$port"

    stage client
    say "$(client_line "$1" "$2")"
    read -r -a client < <(client_line "$1" "$2")
    DISPLAY=:${display[client]} start client "${client[@]}" /size:"$size" /f
    wait_until 10 seen "<- proxyClientConnected" || fail "the client has not been accepted"
    ! port_open || fail "the port is still open for others"
    reached "accepted; the port is closed again"

    stage shadow
    wait_until 10 seen "<- vorlSessionInfoJson" || fail "the daemon has not asked for the session"
    wait_until 10 seen "unixConnect: fd:" || fail "the shadow server has no socket"
    reached "a shadow server of its own for this client listens on its socket"

    stage relay
    wait_until 10 seen "<- proxySessionConnected" || fail "the relay has not been set up"
    [[ $event =~ shadow\ pid\ ([0-9]+) ]]
    shadow_pid=${BASH_REMATCH[1]}
    shadow_files=("$HOME/.vorl/proxy_${session}_0")
    [[ $2 != nla ]] || shadow_files+=("$HOME/.vorl/sam_${second}_0")
    reached "the daemon carries bytes between the client and shadow server $shadow_pid"
}

# In the kernel's table: the port in hexadecimal, no peer, state LISTEN.
port_open() { grep -q "$(printf ':%04X 00000000:0000 0A' "$port")" /proc/net/tcp; }

shadow_there() {
    local file
    for file in "${shadow_files[@]}"; do
        [[ -e $file ]] || return
    done
    [[ -d /proc/$shadow_pid ]]
}

nothing_left() {
    local file
    for file in "${shadow_files[@]}"; do
        [[ ! -e $file ]] || return
    done
    [[ ! -d /proc/$shadow_pid ]]
}

# expect_picture NAME: saves the picture that the client shows, once it is the desktop's.
expect_picture() {
    local file=$output/vorl-demo-$1.png
    stage picture
    if ! wait_until 20 client_shows_desktop; then
        file=$output/vorl-demo-$1-failed.png
        save_picture "$file"
        fail "$differing of the pixels differ; see $file"
    fi
    save_picture "$file"
    shadow_there || fail "shadow server $shadow_pid or one of ${shadow_files[*]} is not there"
    reached "the desktop, but for $differing of $((${size/x/ * })) pixels; saved as"$'\n'"$file"
}

# The file belongs to whom the directory belongs, also under sudo.
save_picture() {
    install -m 644 "$work/client.png" "$1"
    chown --reference="$output" "$1"
}

expect_nothing_left() {
    stage clean-up
    wait_until 10 nothing_left || fail "still there: pid $shadow_pid or one of ${shadow_files[*]}"
    wait_until 10 client_shows_nothing || fail "the client still shows a picture"
    reached "gone: shadow server $shadow_pid and ${shadow_files[*]##*/}"
}
