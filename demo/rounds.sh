# shellcheck shell=bash disable=SC2034,SC2154 # shares its variables with demo/run
# What the demo shows: one connection over TLS, two over NLA; or a desktop that stays up.

headline() { printf '\n== %s\n' "$1"; }

round_tls() {
    headline "TLS: encrypted, no password; ended by the session service"
    describe_session "$sec_tls"
    connect "$password" tls
    show_picture tls
    stage disconnect
    end_relay
    show_clean_up
    stop client
}

round_nla() {
    headline "NLA with a SAM file: a wrong password"
    describe_session "$sec_nla"
    connect wrong nla
    stage refusal
    expect_refusal
    grep -q "client authentication failure" "$work_directory/rdp_transport_${session_uid}_0.log" ||
        fail "the shadow server's log has no refusal"
    reached "the shadow server has refused the password; the client shows nothing"
    show_clean_up

    headline "NLA with a SAM file: the right password; ended by the client"
    connect "$password" nla
    show_picture nla
    stage disconnect
    stop client
    show_clean_up
}

# One client after the other, until Ctrl-C. An allowance is for one listener and one
# client, and is lost while the daemon still handles the one before. Its timeout or failure is
# not reported, so it is renewed when it must have ended.
stay_up() {
    local due=0
    trap 'echo; exit 0' INT
    headline "The desktop stays up until Ctrl-C"
    describe_session "$sec_nla"
    listen_timeout=300
    command_service timeout "$listen_timeout"
    say "from another machine, first: ssh -L $port:127.0.0.1:$port $(hostname)"
    mark=${#events[@]}
    while true; do
        if ((SECONDS >= due)); then
            command_service allow "$session" "$second"
            due=$((SECONDS + 10))
        fi
        wait_until 1 seen "<- proxy" || continue
        for (( ; mark < ${#events[@]}; ++mark)); do
            case ${events[mark]} in
            *"<- proxyListenStarted"*listening*)
                due=$((SECONDS + listen_timeout + 2))
                say "connect with:"$'\n'"$(client_line "$password" nla)"
                ;;
            *"<- proxyListenStarted"*) due=$((SECONDS + 5)) ;; # the port is taken
            # A shadow server has five seconds to start, and as many to go when it does not.
            *"<- proxyClientConnected"*) due=$((SECONDS + 12)) ;;
            *"<- proxySessionConnected"*) due=$((SECONDS + 2)) ;;
            esac
        done
    done
}
