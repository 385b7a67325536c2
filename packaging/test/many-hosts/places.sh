# shellcheck shell=bash disable=SC2034,SC2154 # shares its variables with run
# Places: network and mount namespaces that are joined to the front's alone, which does not forward.
# A place's name is also its keeper's, the process that holds the namespaces.

declare -A address=() # of a place
front4=10.77.0.1 front6=fd77::1

prepare_front_network() {
    ip link set lo up
    ip addr add "$front4/32" dev lo
    ip addr add "$front6/128" dev lo nodad
}

# make_place NAME NUMBER: with the addresses 10.77.NUMBER.2 and fd77:NUMBER::2.
make_place() {
    local name=$1 net4=10.77.$2 net6=fd77:$2:
    start_needed "$name" unshare --net --mount sleep infinity
    wait_until 10 keeps_a_network "$name" || fail "no network namespace for $name"
    ip link add "$name" type veth peer name eth0 netns "${pids[$name]}"
    ip addr add "$net4.1/24" dev "$name"
    ip addr add "$net6:1/64" dev "$name" nodad
    ip link set "$name" up
    # shellcheck disable=SC2016 # expanded by the inner shell
    enter "$name" sh -euc '
        ip link set lo up
        ip addr add "$1.2/24" dev eth0
        ip addr add "$2:2/64" dev eth0 nodad
        ip link set eth0 up
        ip route add default via "$1.1"
        ip -6 route add default via "$2:1"' sh "$net4" "$net6"
    address[$name]=$net4.2
}

keeps_a_network() {
    [[ $(readlink "/proc/${pids[$1]}/ns/net") != "$(readlink /proc/self/ns/net)" ]]
}

# entering NAME: puts the command that enters a place, as words, into $entering.
entering() { entering=(nsenter --target "${pids[$1]}" --net --mount --); }

enter() {
    entering "$1"
    "${entering[@]}" "${@:2}"
}
