# shellcheck shell=bash disable=SC2034,SC2154 # shares its variables with debian/tests/serving
# A certificate of a private authority, which a client verifies, and its renewal under a relay.

make_authority() {
    openssl req -x509 -newkey rsa:2048 -nodes -keyout "$work/authority.key" \
        -out "$work/authority.crt" -subj "/CN=Authority of a trial" -days 30 2>/dev/null
    cp "$work/authority.crt" /usr/local/share/ca-certificates/trial.crt
    expect "the client's host trusts the authority" update-ca-certificates
}

# issue NAME: a key and a certificate for the host NAME.example.
issue() {
    echo "127.0.0.1 $1.example" >>/etc/hosts
    openssl req -newkey rsa:2048 -nodes -keyout "$work/$1.key" -out "$work/$1.csr" \
        -subj "/CN=$1.example" 2>/dev/null
    openssl x509 -req -in "$work/$1.csr" -CA "$work/authority.crt" -CAkey "$work/authority.key" \
        -CAcreateserial -days 30 -extfile <(echo "subjectAltName=DNS:$1.example") \
        -out "$work/$1.crt" 2>/dev/null
}

try_certificate() {
    local client_certificates=deny client_host=first.example # deny what cannot be verified
    make_authority
    issue first
    issue second

    describe_session "$sec_tls"
    connect any tls
    refuse_client
    say "   the shadow server's own certificate: refused"
    expect "a certificate with another's key is refused" \
        not "$examples/install-certificate" "$work/second.key" "$work/first.crt"
    expect "installed" "$examples/install-certificate" "$work/first.key" "$work/first.crt"
    connect any tls
    show_picture certificate
    expect "renewed" "$examples/install-certificate" "$work/second.key" "$work/second.crt"
    running client || fail "the renewal has ended the client"
    client_shows_desktop || fail "the renewal has disturbed the relay"
    disconnect
    client_host=second.example
    connect any tls
    show_picture certificate-renewed
    disconnect
}
