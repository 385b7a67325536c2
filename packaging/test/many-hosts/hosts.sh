# shellcheck shell=bash disable=SC2034,SC2154 # shares its variables with run
# A host: a place with a bus, logind's files, a desktop, vorl_session, vorl_proxy, and the examples'
# hook, which tells the front with a certificate of the host's own.

# make_host NAME NUMBER COLOUR
make_host() {
    local name=$1 directory=$work/$1
    mkdir -p "$directory"/{etc,run,home}
    make_place "$name" "$2"
    enter "$name" mount -t tmpfs farm /run/systemd/sessions
    start_display "$name" "$directory/authority"
    draw_desktop "$name" "$3"
    cp "$examples/front-hook" "$directory/etc/"
    echo "https://$front4:3390" >"$directory/etc/fronts"
    certificate host "$name"
    cp "$work/certificates/$name.pem" "$directory/etc/host.pem"
    cp "$work/certificates/authority.crt" "$directory/etc/authority.crt"
    cat >"$directory/vorl_proxy.json" <<-JSON
	{
	    "listen:addr": "0.0.0.0",
	    "listen:port": 3389,
	    "x11rdp:path": "$shadow_server",
	    "x11rdp:args": [ "-auth", "/ipc-socket:%{socket}" ]
	}
	JSON
    configure "$name"
    start_host "$name"
}

draw_desktop() {
    on "$1" xsetroot -solid "$2"
    on "$1" start "$1-logo" xlogo -geometry 240x240+"$((RANDOM % 500))"+60
}

# configure NAME [KEYS]: the session service of the host, with the example's settings.
configure() {
    local file=$work/$1/vorl_session.json
    cat >"$file.new" <<-JSON
	{
	    "connection:slowdown": false,
	    "front:hook": "$work/$1/etc/front-hook",
	    "front:address": "$front4",
	    "proxy:config": "$work/$1/vorl_proxy.json",
	    "password:file": "$work/$1/passwords"
	    ${2:+, $2}
	}
	JSON
    mv "$file.new" "$file"
}

start_host() {
    local name=$1 variables=(DBUS_SYSTEM_BUS_ADDRESS="unix:path=$work/$1/bus"
        RUNTIME_DIRECTORY="$work/$1/run" HOME="$work/$1/home")
    entering "$name"
    start_needed "$name-bus" "${entering[@]}" dbus-daemon --nofork --nopidfile --nosyslog \
        --config-file="$root/demo/bus.conf" --address="unix:path=$work/$name/bus"
    wait_until 10 test -S "$work/$name/bus" || fail "no bus"
    start_needed "$name-session" "${entering[@]}" env "${variables[@]}" \
        "$build/vorl_session" --config "$work/$name/vorl_session.json"
    wait_until 10 host_says "$name" "nobody is logged in" || fail "$name: $(host_status "$name")"
    start_needed "$name-daemon" "${entering[@]}" env "${variables[@]}" \
        "$build/vorl_proxy" --config "$work/$name/vorl_proxy.json"
}

# session_command NAME WORDS...: vorl_session's commands on that host.
session_command() {
    enter "$1" env DBUS_SYSTEM_BUS_ADDRESS="unix:path=$work/$1/bus" \
        "$build/vorl_session" --config "$work/$1/vorl_session.json" "${@:2}"
}

host_status() { session_command "$1" status 2>&1 || true; }
host_says() { [[ $(host_status "$1") == *"$2"* ]]; }

# log_in USER NAME: at the host's screen, as logind notes it.
log_in() {
    enter "$2" sh -euc 'cat >/run/systemd/sessions/.new && mv /run/systemd/sessions/.new /run/systemd/sessions/3' <<-EOT
	UID=$(id -u "$1")
	USER=$1
	ACTIVE=1
	STATE=active
	DISPLAY=:${display[$2]}
	TYPE=x11
	CLASS=user
	EOT
    expected_soon "$1" "$2" || fail "the front does not expect $1: $(host_status "$2")"
}

log_out() { enter "$1" rm /run/systemd/sessions/3; }
