#!/bin/bash
# failover_test.sh KANDB_META KANDB_SIM KANDB_CTL: a simulated cluster works with a server that is killed three times;
# each time the state moves to another mount and a server starts there on the same port, as after a failover. All that
# was acknowledged must be there. Then once more with an older copy of the state, which the simulator must find out.
set -euo pipefail
server_program=$1
sim=$2
ctl=$3
disk=$(mktemp -d)
memory=$(mktemp -d -p /dev/shm 2>/dev/null) || memory=$disk
server=
simulator=
trap '{ kill -9 $server $simulator || true; wait || true; } 2>/dev/null; rm -rf "$disk" "$memory"' EXIT
if [ "$(stat -c %d "$disk")" = "$(stat -c %d "$memory")" ]; then
  echo "/dev/shm is no second mount"
  exit 77
fi

mkfifo "$disk/banner" "$disk/progress"

# serve DIR PORT: until it listens; false when it ends before.
serve() {
  "$server_program" --bind_addr=127.0.0.1 --port="$2" --data_dir="$1" --target_replicas=3 >"$disk/banner" &
  server=$!
  read -r -t 20 <"$disk/banner"
}

# simulate DIR: a server on DIR and a simulated cluster that works with it. The port is none that the system gives to
# clients: one of those could take it while no server listens.
simulate() {
  for _ in {1..20}; do
    port=$((20000 + RANDOM % 12000))
    ! serve "$1" "$port" || break
  done
  "$sim" --server "127.0.0.1:$port" --reconnect-ms 20000 --rounds 100 --interval-ms 50 --lookups 100 --measure-ms 1 \
    >"$disk/report" 2>"$disk/progress" &
  simulator=$!
  exec {progress}<"$disk/progress"
}

# Until the simulator, in the disturbed rounds, says again how far it is, which it does every second. The rounds last
# longer than all that is done meanwhile.
wait_for_progress() {
  local line
  while read -r -t 30 -u "$progress" line; do
    echo "$line"
    [[ $line != disturbed:* ]] || return 0
  done
  echo "the simulator is not in the disturbed rounds" && exit 1
}

# At any moment of a round.
kill_server() {
  sleep "0.0$((RANDOM % 90 + 10))"
  kill -9 "$server"
  wait "$server" 2>/dev/null || true
}

# The name is there once all files are, on the other mount.
move() {
  mv "$1" "$2.moving"
  sync "$2.moving"/* "$2.moving"
  mv "$2.moving" "$2"
}

simulate "$disk/state"
from=$disk/state
for to in "$memory/state" "$disk/state" "$memory/state"; do
  wait_for_progress
  kill_server
  move "$from" "$to"
  serve "$to" "$port"
  from=$to
done
cat <&"$progress"
wait "$simulator"
grep -A1 "^calls tried again" "$disk/report"
[ "$(grep -A1 "^calls tried again" "$disk/report" | tail -n 1)" -ge 3 ] # each failover met one at least
kill_server
"$ctl" state verify "$from"

simulate "$disk/second"
wait_for_progress
"$ctl" backup "$disk/second" --out "$memory/copy" --no-verify
wait_for_progress
kill_server
serve "$memory/copy" "$port"
cat <&"$progress" | tee "$disk/finding"
status=0
wait "$simulator" || status=$?
kill_server
[ "$status" = 1 ]
grep -E "some were handed out before|the server says|remote: NotFound" "$disk/finding"
