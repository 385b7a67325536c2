# shellcheck shell=bash disable=SC2034,SC2154 # shares its variables with demo/run
# The host that the daemon runs on: bus, journal and session service, and the daemon itself.

listen_timeout=30 # seconds

start_bus() {
    stage bus
    export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$work/bus
    start_needed bus dbus-daemon --nofork --nopidfile --nosyslog --config-file="$here/bus.conf" \
        --address="$DBUS_SYSTEM_BUS_ADDRESS" --print-address=3 3>"$work/bus.address"
    wait_until 10 test -s "$work/bus.address" || fail "dbus-daemon does not listen"
    reached "a private system bus, $DBUS_SYSTEM_BUS_ADDRESS"
}

start_journal() {
    stage journal
    grep -qsE '^[0-9a-f]{32}$' /etc/machine-id ||
        fail "journald needs a machine id: run systemd-machine-id-setup once"
    mkdir -p /run/log/journal /run/systemd/journal /run/systemd/journald.conf.d
    cp "$here/journald.conf" /run/systemd/journald.conf.d/zz-vorl-demo.conf
    SYSTEMD_LOG_TARGET=console start_needed journal /lib/systemd/systemd-journald
    wait_until 10 test -S /run/systemd/journal/socket || fail "journald does not listen"
    reached "a private systemd-journald"
}

start_service() {
    stage service
    start_session_service "$build/vorl_demo_session"
    reached "the session service is on the bus"
}

start_daemon() {
    # Free a moment ago; should it be taken meanwhile, the stage "listener" fails.
    port=$(perl -MIO::Socket::INET -e \
        'print IO::Socket::INET->new(Listen => 1, LocalAddr => "127.0.0.1")->sockport')
    # -auth: it would ask PAM for a system account; over NLA the SAM file decides.
    cat >"$work/vorl_proxy.json" <<-JSON
	{
	    "debug:level": "debug",
	    "listen:addr": "127.0.0.1",
	    "listen:port": $port,
	    "x11rdp:path": "$shadow_server",
	    "x11rdp:args": [ "-auth", "/ipc-socket:%{socket}" ]
	}
	JSON
    stage daemon
    start_needed daemon "$build/vorl_proxy" --config "$work/vorl_proxy.json"
    wait_until 20 seen "start: started" || fail "the daemon has not started"
    command_service timeout "$listen_timeout"
    wait_until 10 seen "set timeout: $listen_timeout" || fail "the daemon does not receive the service's signals"
    reached "vorl_proxy runs and receives the session service's signals"
}

stop_daemon() {
    stage stop
    needed=()
    command_service stopped
    wait_until 10 not running daemon || fail "the daemon is still running"
    stop daemon
    ((status == 0)) || fail "the daemon ended with status $status"
    reached "the session service has stopped, and so has the daemon"
}
