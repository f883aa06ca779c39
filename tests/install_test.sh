#!/bin/bash
# install_test.sh BUILD_DIR CMAKE_OPTION...: installs the build, compares the simulator with its manual page, builds
# tests/install against what is installed, and lets it talk to the installed server.
set -euo pipefail
build_dir=$1
shift
work=$(mktemp -d)
server=
trap '[ -z "$server" ] || kill -9 "$server"; rm -rf "$work"' EXIT

cmake --install "$build_dir" --prefix "$work/installed" >"$work/install.log"
cmake -S "$(dirname "$0")/install" -B "$work/user" -DCMAKE_PREFIX_PATH="$work/installed" "$@"
cmake --build "$work/user"

# The manual page and the completion of the simulator know the options that it has, and no others.
if [ -x "$work/installed/bin/kandb-sim" ]; then
  options() { grep -oE -- '--[a-z]+(-[a-z]+)*' | sort -u; }
  "$work/installed/bin/kandb-sim" --help | options >"$work/options"
  zcat "$work/installed/share/man/man1/kandb-sim.1.gz" | sed 's/\\-/-/g' | options | diff "$work/options" -
  options <"$work/installed/share/bash-completion/completions/kandb-sim" | diff "$work/options" -
fi

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
