#!/bin/bash
# The demonstration: selections among headends at different distances, three of them useless. Checks
# every outcome. Ends all programs that it started, even when interrupted.
#
#     demo.sh [--loopback] BUILD_DIRECTORY
#
# If it may make a network, it runs itself again inside ahs-wan (as `demo.sh --within
# BUILD_DIRECTORY SCRATCH_DIRECTORY`), and the network has the distances. Otherwise, and with
# --loopback, the headends listen on the loopback interface and delay their answers; the preferences
# then measure the answer.

set -euo pipefail

# A selection refuses files that a group may write.
umask 022

# Name, round-trip time in ms, last part of the address. Brussels is within 20 % of Amsterdam, so a
# client stays with the one it used last; Sydney is far away.
readonly gateways=(
  'Amsterdam   60 11'
  'Brussels    66 12'
  'Frankfurt   85 13'
  'Madrid     110 14'
  'New-York   140 15'
  'Singapore  200 16'
  'Sydney     280 17'
)
readonly refusing='Oslo' refusing_number=18
readonly silent='Cairo' silent_number=19
readonly unknown='Atlantis'

# How often a measurement may be repeated: answers come late on a busy machine.
attempts=3
scratch=''
gateways_pid=''

end() {
  local status=$?
  trap - EXIT INT TERM HUP
  if [[ -n $gateways_pid ]]; then
    kill "$gateways_pid" 2>/dev/null || true
    wait "$gateways_pid" 2>/dev/null || true
  fi
  if [[ -n $scratch ]]; then rm -rf "$scratch"; fi
  exit "$status"
}

fail() {
  printf '\ndemo: %s\n' "$1" >&2
  exit 1
}

# say TEXT...: prints an explanation, set off from the tool's output.
say() {
  printf '\n\033[1m== %s\033[0m\n' "$*" | if [[ -t 1 ]]; then cat; else sed 's/\x1b\[[0-9;]*m//g'; fi
}

host_entry() { printf '    <host name="%s" address="%s"/>\n' "$1" "$2"; }

write_profile() {
  local entry
  mkdir "$scratch/profiles" "$scratch/cache"
  {
    printf '<profile version="1">\n  <preferences>\n'
    printf '    <preference name="EnableAutomaticServerSelection" value="true"/>\n'
    printf '  </preferences>\n  <hosts>\n'
    while read -r entry; do
      # shellcheck disable=SC2086 # name and address are two words
      host_entry $entry
    done
    printf '  </hosts>\n</profile>\n'
  } >"$scratch/profiles/demo.xml"
}

# write_preferences MEASURE PROBES: gives up a silent headend after one second per probe, to save
# time.
write_preferences() {
  cat >"$scratch/preferences.xml" <<XML
<preferences version="1">
  <preference name="SelectionPingTimeout" value="1000"/>
  <preference name="SelectionTestPingTimeout" value="1"/>
  <preference name="RoundTripTime" value="$1"/>
  <preference name="SelectionPingsPerHeadend" value="$2"/>
</preferences>
XML
}

# run OPTION...: runs a selection; prints its output and keeps it in a file.
run() {
  # Ignores this machine's proxy settings. In the new network the machine's root is an unmapped user,
  # whose files are not trusted.
  env -u http_proxy -u https_proxy -u all_proxy -u HTTP_PROXY -u HTTPS_PROXY -u ALL_PROXY \
    RES_OPTIONS='timeout:1 attempts:1' \
    "$build/bin/ahs" select --explain --trust-profiles --profiles "$scratch/profiles" \
    --preferences "$scratch/preferences.xml" --cache-dir "$scratch/cache" "$@" |
    tee "$scratch/output" || fail "'ahs select' ended with status ${PIPESTATUS[0]}"
}

# came_out FIRST LINE: succeeds if the first headend is FIRST and the output has LINE.
came_out() {
  local first
  first=$(sed -n '/^ *1\. /{s/^ *1\. *\([^ ]*\).*/\1/p;q}' "$scratch/output")
  [[ $first == "$1" ]] && grep -qF -- "$2" "$scratch/output"
}

# measure FIRST LINE OPTION...: measures until FIRST and LINE come out, a few times at most.
measure() {
  local first=$1 line=$2 attempt
  shift 2
  for ((attempt = 1; attempt <= attempts; ++attempt)); do
    rm -f "$scratch"/cache/*
    run "$@"
    if came_out "$first" "$line"; then return 0; fi
    if ((attempt < attempts)); then say 'This machine is too busy to tell the headends apart: once more'; fi
  done
  fail "expected $first first, and: $line"
}

# recall FIRST: selects from the cache.
recall() {
  run
  came_out "$1" 'Remembered from ' ||
    fail "expected $1 first, from the cache"
}

# show AMSTERDAM BRUSSELS USELESS...: the four selections; the arguments are names in the list.
show() {
  local amsterdam=$1 brussels=$2 useless
  shift 2
  say "A connection: of ten headends $refusing refuses, $silent is silent, the name of $unknown does not exist"
  measure "$amsterdam" 'Why: Chose '
  for useless in "$@"; do
    if sed -n 's/^ *[0-9]*\. *\([^ ]*\).*/\1/p' "$scratch/output" | grep -qxF -- "$useless"; then
      fail "$useless has a place in the list"
    fi
  done

  say 'The same again: the answer is in the cache, nothing is measured'
  recall "$amsterdam"

  say 'A reconnection from Brussels: not 20 % slower than the best, so the client stays where it was'
  measure "$brussels" 'Why: Stays with ' \
    --reason reconnection --last Brussels

  say 'A reconnection from Sydney: far slower than the best, so the client moves'
  measure "$amsterdam" 'Why: Chose ' \
    --reason reconnection --last Sydney

  say 'All four came out as they should.'
}

# --- In a network of its own ----------------------------------------------------------------------

write_wan_scene() {
  local name rtt number
  for gateway in "${gateways[@]}"; do
    read -r name rtt number <<<"$gateway"
    printf 'path 10.77.0.%s rtt=%s\n' "$number" "$rtt"
    printf 'gateway 10.77.0.%s:443\n' "$number"
    printf 'name %s.vpn.example 10.77.0.%s\n' "${name,,}" "$number"
  done
  printf 'path 10.77.0.%s rtt=50\n' "$refusing_number" "$silent_number"
  printf 'gateway 10.77.0.%s:443 behaviour=silent\n' "$silent_number"
  printf 'name %s.vpn.example 10.77.0.%s\n' \
    "${refusing,,}" "$refusing_number" "${silent,,}" "$silent_number"
}

run_in_wan() {
  local name
  write_wan_scene >"$scratch/scene"
  for name in "${gateways[@]%% *}" "$refusing" "$silent" "$unknown"; do
    printf '%s %s.vpn.example\n' "$name" "${name,,}"
  done | write_profile
  write_preferences network 3
  say 'The headends are in a network of their own on this machine; the delays are those of the network.'
  local servers
  printf -v servers '%q --config %q' "$build/bin/ahs-gateways" "$scratch/scene"
  # In the background: a trap then acts at once, not after the program's end.
  "$build/bin/ahs-wan" --config "$scratch/scene" --servers "$servers" \
    -- "$0" --within "$build" "$scratch" &
  gateways_pid=$!
  local status=0
  wait "$gateways_pid" || status=$?
  gateways_pid=''
  return "$status"
}

# --- On the loopback interface --------------------------------------------------------------------

# Twice the delays, and more probes than usual: answering programs wait for a processor, which must not
# hide the differences on a busy machine.
write_loopback_scene() {
  local port=$1 name rtt number
  for gateway in "${gateways[@]}"; do
    read -r name rtt number <<<"$gateway"
    printf 'gateway 127.0.77.%s:%s delay=%s\n' "$number" "$port" "$((2 * rtt))"
  done
  printf 'gateway 127.0.77.%s:%s behaviour=silent\n' "$silent_number" "$port"
}

# start_gateways PORT: succeeds if all gateways listen.
start_gateways() {
  local line
  write_loopback_scene "$1" >"$scratch/scene"
  : >"$scratch/gateways"
  "$build/bin/ahs-gateways" --config "$scratch/scene" >"$scratch/gateways" 2>&1 &
  gateways_pid=$!
  while kill -0 "$gateways_pid" 2>/dev/null; do
    line=$(tail -n 1 "$scratch/gateways")
    if [[ $line == ready ]]; then return 0; fi
    sleep 0.05
  done
  gateways_pid=''
  return 1
}

run_on_loopback() {
  local port name number
  for port in 8443 18443 28443 38443 ''; do
    [[ -n $port ]] || fail "the headends do not start: $(tail -n 1 "$scratch/gateways")"
    if start_gateways "$port"; then break; fi
  done
  {
    for gateway in "${gateways[@]}"; do
      read -r name _ number <<<"$gateway"
      printf '%s 127.0.77.%s:%s\n' "$name" "$number" "$port"
    done
    printf '%s 127.0.77.%s:%s\n' "$refusing" "$refusing_number" "$port" \
      "$silent" "$silent_number" "$port"
    # A name that never exists, on any network (RFC 2606).
    printf '%s %s.invalid\n' "$unknown" "${unknown,,}"
  } | write_profile
  write_preferences response 5
  show "127.0.77.11:$port" "127.0.77.12:$port" "127.0.77.$refusing_number:$port" \
    "127.0.77.$silent_number:$port" "${unknown,,}.invalid"
}

# --------------------------------------------------------------------------------------------------

trap end EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

if [[ ${1-} == --within ]]; then
  build=$2
  scratch=$3
  # The directory belongs to the caller.
  trap - EXIT
  show {amsterdam,brussels,oslo,cairo,atlantis}.vpn.example
  exit 0
fi

force_loopback=''
if [[ ${1-} == --loopback ]]; then
  force_loopback='as was asked for'
  shift
fi
if (($# != 1)) || [[ ! -x $1/bin/ahs ]]; then
  printf 'usage: %s [--loopback] BUILD_DIRECTORY (one that has been built)\n' "$0" >&2
  exit 2
fi
build=$(realpath "$1")
scratch=$(mktemp -d)
if [[ -z $force_loopback ]] && reason=$("$build/bin/ahs-wan" -- true 2>&1); then
  run_in_wan
else
  reason=${force_loopback:-${reason#ahs-wan: }}
  say "The headends are on the loopback interface and delay their answers, which are measured ($reason)."
  run_on_loopback
fi
