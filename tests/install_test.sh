#!/bin/bash
# install_test.sh BUILD_DIR CMAKE_OPTION...: installs the build, builds tests/install against what is
# installed, and lets it talk to the installed server.
set -euo pipefail
build_dir=$1
shift
work=$(mktemp -d)
server=
trap '[ -z "$server" ] || kill -9 "$server"; rm -rf "$work"' EXIT

cmake --install "$build_dir" --prefix "$work/installed" >"$work/install.log"
cmake -S "$(dirname "$0")/install" -B "$work/user" -DCMAKE_PREFIX_PATH="$work/installed" "$@"
cmake --build "$work/user"

# The server cannot be asked which port it took: try some until one is free.
for _ in {1..20}; do
  address=127.0.0.1:$((20000 + RANDOM % 12000))
  exec {output}< <(exec "$work/installed/bin/kandb-meta" --bind_addr=127.0.0.1 --port="${address#*:}" \
    --data_dir="$work/state")
  server=$!
  read -r -t 20 -u "$output" banner && break
  kill -9 "$server" 2>/dev/null || true  # mostly it has ended by itself
  server=
done
echo "$banner"

"$work/user/user" "$address" | tee "$work/printed"
diff "$work/printed" - <<'END'
OK: ids from 1024
OK
OK: region 1024 at s1:20160
END
