#!/bin/bash
# tls_test.sh KANDB_META KANDB_CTL: the stunnel examples as they are, but for paths and ports: a call with a client
# certificate arrives, and none without one or with one of another authority.
set -euo pipefail
server_program=$1
ctl=$2
examples=$(cd "$(dirname "$0")/../packaging/examples/stunnel" && pwd)
if ! command -v stunnel4 >/dev/null || ! command -v openssl >/dev/null; then
  echo "stunnel4 or openssl is not installed"
  exit 77
fi
work=$(mktemp -d)
processes=()
trap '[ ${#processes[@]} -eq 0 ] || kill -9 "${processes[@]}" 2>/dev/null || true; rm -rf "$work"' EXIT

# start NAME PROGRAM ARGUMENT...: until it prints the first line that matches listening; false when it ends before.
start() {
  local name=$1 line output
  shift
  exec {output}< <(exec "$@" 2>&1)
  local process=$!
  while read -r -t 20 -u "$output" line; do
    echo "$line" >>"$work/$name.log"
    case $line in
      *"listening on"* | *"Configuration successful"*)
        processes+=("$process")
        cat <&"$output" >>"$work/$name.log" &
        return
        ;;
    esac
  done
  kill -9 "$process" 2>/dev/null || true
  return 1
}

# start_on_free_port NAME COMMAND...: with PORT in its arguments, or in the file CONF, replaced; sets port.
start_on_free_port() {
  local name=$1
  shift
  for _ in {1..20}; do
    port=$((20000 + RANDOM % 12000))
    [ ! -e "$work/$name.in" ] || sed "s/PORT/$port/" "$work/$name.in" >"$work/$name.conf"
    ! start "$name" "${@//PORT/$port}" || return 0
  done
  cat "$work/$name.log"
  exit 1
}

"$examples/make-certificates" "$work/pki" localhost 2>/dev/null
"$examples/make-certificates" "$work/other" localhost 2>/dev/null

start_on_free_port server "$server_program" --bind_addr=127.0.0.1 --port=PORT --data_dir="$work/state"
plain=$port
sed "s,^accept = .*,accept = 127.0.0.1:PORT,; s,^connect = .*,connect = 127.0.0.1:$plain,; s,/etc/stunnel/kandb-meta,$work/pki," \
  "$examples/server.conf" >"$work/tls.in"
start_on_free_port tls stunnel4 "$work/tls.conf"
tls=$port

# client NAME SED_SCRIPT: a tunnel by the example, changed; sets port.
client() {
  sed "s,^accept = .*,accept = 127.0.0.1:PORT,; s,^connect = .*,connect = 127.0.0.1:$tls,; s,meta.example,localhost,
    s,/etc/stunnel/kandb-meta,$work/pki,; $2" "$examples/client.conf" >"$work/$1.in"
  start_on_free_port "$1" stunnel4 "$work/$1.conf"
}
# next_id PORT
next_id() { "$ctl" --server "127.0.0.1:$1" --attempts 1 --json alloc-id | grep -o '[0-9]*' | head -n 1; }

client good ""
[ "$(next_id "$port")" = 1024 ]
[ "$(next_id "$port")" = 1025 ]

client without "/^cert/d; /^key/d"
client foreign "s,pki/client,other/client,"
client impostor "s,^checkHost = .*,checkHost = elsewhere,"
for name in without foreign impostor; do
  port=$(sed -n 's/^accept = .*://p' "$work/$name.conf")
  status=0
  "$ctl" --server "127.0.0.1:$port" --attempts 1 alloc-id 2>"$work/error" || status=$?
  echo "$name: status $status, $(cat "$work/error")"
  [ "$status" = 3 ]
done
# A client that speaks no TLS.
status=0
"$ctl" --server "127.0.0.1:$tls" --attempts 1 --timeout-ms 2000 alloc-id 2>"$work/error" || status=$?
[ "$status" = 3 ]
# Nothing of that reached the server.
[ "$(next_id "$plain")" = 1026 ]
