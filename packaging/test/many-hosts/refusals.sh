# shellcheck shell=bash disable=SC2034,SC2154 # shares its variables with run
# Who is refused, and what the auditor and fail2ban learn of it.

# make_ticket [--rdp]: what "vorl_session ticket" prints for Alice goes to $work/ticket; returns when
# the front knows it. $token has the ticket then.
make_ticket() {
    session_command h1 ticket "$@" alice >"$work/ticket" 2>"$work/ticket.log"
    token=$(grep -o 'mstshash=[0-9a-f]*' "$work/ticket")
    token=${token#*=}
    wait_until 10 knows_ticket || fail "the front does not know the ticket"
    expected_soon alice h1 || fail "the front does not expect alice"
}

knows_ticket() { admin "show table tickets" | grep -q "key=$token " && admin "show map $work/front/tickets.map" | grep -q " $token alice$"; }

try_tickets() {
    local words
    expect_refused c3 alice "alice's" "/load-balance-info:Cookie: mstshash=$(openssl rand -hex 16)"
    # A wrong password does not end the ticket at the host, but the front takes it once.
    make_ticket
    eval "words=($(<"$work/ticket"))"
    expect_refused c3 alice wrong "${words[@]:1}"
    expected_soon alice h1 || fail "the front does not expect alice"
    knows_ticket || fail "the host has ended the ticket"
    expect_refused c3 alice "alice's" "${words[@]:1}"
    front_line "source=-:- host=${address[h1]}:3389 .* user=\"alice\"" || fail "the front has let a used ticket pass"
    close_client c1
    make_ticket --rdp
    mv "$work/ticket" "$work/alice.rdp"
    entering c1
    on c1 start c1-client "${entering[@]}" "$rdp_client" "$work/alice.rdp" "/p:alice's" /sec:nla \
        /cert:ignore "/size:$size" /f
    expect_picture_of c1 h1
    wait_until 10 not knows_ticket || fail "the host has not ended the ticket"
}

# tell NAME METHOD HEADER OPTION...: as a hook on that host would; prints the HTTP status.
tell() {
    enter "$1" curl -s --max-time 5 -o "$work/tell.out" -w '%{http_code}' -X "$2" -H "$3" -H "vorl-port: 3389" \
        --cacert "$work/certificates/authority.crt" "${@:4}" "https://$front4:3390/user" || true
}

try_certificates() {
    local listeners
    [[ $(tell c3 PUT "vorl-user: alice") == 000 ]] || fail "the front listens without a certificate"
    mkdir "$work/others"
    (cd "$work/others" && "$examples/certificate" host c3 >/dev/null)
    [[ $(tell c3 PUT "vorl-user: alice" --cert "$work/others/c3.pem") == 000 ]] ||
        fail "the front listens to another authority's certificate"
    # The front's own is no host's.
    [[ $(tell c3 PUT "vorl-user: alice" --cert "$work/front/front.pem") == 000 ]] ||
        fail "the front takes its own certificate for a host's"
    expected_soon alice h1 || fail "the front does not expect alice"
    [[ $(tell h2 DELETE "vorl-user: alice" --cert "$work/h2/etc/host.pem") == 204 ]] || fail "h2 is not heard"
    [[ $(tell h2 POST "vorl-user: alice" --cert "$work/h2/etc/host.pem") == 204 ]] || fail "h2 is not heard"
    expected alice h1 || fail "h2 has taken alice from h1"
    listeners=$(ss -Hltn | awk '{ print $4 }' | sort | tr '\n' ' ')
    [[ $listeners == "0.0.0.0:3389 0.0.0.0:3390 127.0.0.1:8405 [::]:3389 " ]] || fail "open ports: $listeners"
}

# The front's line has the client's address, and its own port, by which the host's line is found.
try_audit() {
    local source before
    before=$(passed_count c3)
    expected_soon alice h1 || fail "the front does not expect alice"
    expect_refused c3 alice wrong
    wait_until 10 passed_more_than "$before" c3 || fail "no line of the front"
    front_line "client=${address[c3]} .* source=[0-9].* host=${address[h1]}:3389 .* user=\"alice\""
    source=$(sed -n 's/.* source=[0-9.]*:\([0-9]*\) .*/\1/p' <<<"$line")
    wait_until 10 host_has_noted "$source" || fail "no record of the host about port $source: $line"
    banned haproxy vorl-front "${address[c3]}"
    banned vorl_session vorl-session 10.77.1.1
}

passed_more_than() { (($(passed_count "$2") > $1)); }

host_has_noted() {
    journalctl -q MESSAGE_ID=6c1d8a57e9f2436cb1a85d0f3e7b9a44 "VORL_PORT=$1" VORL_USER=alice | grep -q .
}

# banned IDENTIFIER FILTER ADDRESS: whether fail2ban's filter finds it in the journal's lines of this
# program, and nobody else.
banned() {
    local directory=$work/fail2ban found
    if [[ ! -d $directory ]]; then
        cp -r "$(if [[ -d $UNPACKED/etc/fail2ban ]]; then echo "$UNPACKED"; fi)/etc/fail2ban" "$directory"
        cp "$examples"/fail2ban/filter.d/* "$directory/filter.d/"
    fi
    journalctl -q -t "$1" -o short >"$work/$1.lines"
    found=$(PYTHONPATH=$UNPACKED/usr/lib/python3/dist-packages fail2ban-regex -c "$directory" -o ip \
        "$work/$1.lines" "$directory/filter.d/$2.conf" | sort -u)
    [[ $found == "$3" ]] || fail "fail2ban with $2 finds '$found', not $3"
}
