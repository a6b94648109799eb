#!/bin/sh
# Runs a test in a network of its own, where nothing else can be reached, with a router, by which the
# cache tells the place. Without the right to make one, the machine's own network has to do.
# No address comes later, which would be a change of the network.
# usage: at_home.sh PROGRAM [ARGUMENT...]
if [ "$1" = --inside ]; then
  shift
  printf '%s\n' \
    'link set lo up' \
    'link add home0 type veth peer name home1' \
    'link set home0 addrgenmode none' \
    'link set home1 addrgenmode none' \
    'link set home0 up' \
    'link set home1 up' \
    'address add 192.0.2.2/24 dev home0' \
    'neighbour add 192.0.2.1 lladdr 02:00:00:00:00:01 dev home0 nud permanent' \
    'route add default via 192.0.2.1 dev home0 metric 200' \
    'route add unreachable default metric 100' | ip -batch - && exec "$@"
  exit 1
fi
if [ "$(id -u)" -eq 0 ] && unshare --net true 2>/dev/null; then
  exec unshare --net "$0" --inside "$@"
fi
exec "$@"
