# shellcheck shell=bash disable=SC2034,SC2154 # shares its variables with the trials
# The example of a session service (demo/session_service.cpp) and the session that it describes.
# Builds on displays.sh. Whoever sources this sets $session_uid and $session_home.

session=7    # the session id
second=3     # the second value of an allowance: it names the SAM file
heard_from=1 # the first line of the service's output that heard() looks at

user=alice
password=secret                          # over NLA
nt_hash=878d8014606cda29677a44efa1353fc7 # of the password: MD4 of its UTF-16LE form
sam=$user:::$nt_hash:::

# What a description says about security. Without "sec:auth" PAM is asked over TLS.
sec_tls='"sec:tls": true, "sec:auth": false'
sec_pam='"sec:tls": true'
sec_nla='"sec:nla": true, "ntlm": "'$sam'"'

# start_session_service PROGRAM: it takes commands, and prints calls and signals into
# $work/service.log.
start_session_service() {
    mkfifo "$work/commands"
    exec {commands}<>"$work/commands"
    start_needed service "$1" "$work/session.json" <"$work/commands"
    wait_until 20 heard "owning net.qarel.vorl" || fail "the session service is not on the bus"
}

# command_service WORDS...: has the session service send a signal.
command_service() { echo "$*" >&"$commands"; }

# heard TEXT: whether a line of the service has it; the line is then in $heard_line.
heard() {
    heard_line=$(tail -n "+$heard_from" "$work/service.log" | grep -m 1 -F -- "$1")
}

# describe_session SECURITY: what the session service tells the daemon from now on.
describe_session() {
    cat >"$work/session.json.new" <<-JSON
	{
	    "display": ${display[desktop]},
	    "xauthfile": "${authority[desktop]}",
	    "username": "$user",
	    "uid": $session_uid,
	    "home": "$session_home",
	    $1
	}
	JSON
    mv "$work/session.json.new" "$work/session.json"
}
