#!/bin/bash
# The Debian package on a machine with systemd that it may ruin: scripts/try-package runs this there as root, with the
# package as /root/kandb-meta.deb. Ends at the first check that fails, with status 1.
set -Eeuo pipefail
trap 'echo "FAILED in line $LINENO" >&2' ERR
export DEBIAN_FRONTEND=noninteractive
state=/var/lib/kandb-meta
flags=/etc/default/kandb-meta

next_id() { kandb-ctl --json alloc-id | grep -o '[0-9]*' | head -n 1; }
# Waits until the command succeeds, for a minute.
eventually() {
  for _ in {1..60}; do
    ! "$@" >/dev/null 2>&1 || return 0
    sleep 1
  done
  echo "never: $*" >&2
  return 1
}
# refused TEXT: the service does not start, and its journal has the text.
refused() {
  local cursor
  cursor=$(journalctl -n 1 --show-cursor -o cat | sed -n 's/^-- cursor: //p')
  if systemctl start kandb-meta 2>/dev/null; then return 1; fi
  systemctl stop kandb-meta
  systemctl reset-failed kandb-meta 2>/dev/null || true # not loaded any more, perhaps
  journalctl --sync
  journalctl -u kandb-meta -o cat --after-cursor "$cursor" | grep -F -m 1 -- "$1"
}

echo "== install and start"
dpkg -i /root/kandb-meta.deb >/dev/null
if systemctl is-enabled --quiet kandb-meta; then false; fi
systemctl start kandb-meta
kandb-ctl health --data-dir $state >/dev/null
kandb-ctl bootstrap --store-address s1.example:20160 >/dev/null
first=$(next_id)

echo "== kill -9, stop, start"
before=$(systemctl show -P MainPID kandb-meta)
kill -9 "$before"
restarted() { [ "$(systemctl show -P MainPID kandb-meta)" != "$before" ] && systemctl is-active kandb-meta; }
eventually restarted
systemctl stop kandb-meta
cp /usr/bin/kandb-ctl /root
printf '#!/bin/sh\nexec sleep 600\n' >/usr/bin/kandb-ctl
systemctl start --no-block kandb-meta
eventually pgrep -fx "sleep 600"
systemctl stop kandb-meta # during the start: that is no failure
cp /root/kandb-ctl /usr/bin
[ "$(systemctl show -P ActiveState kandb-meta)" = inactive ]
systemctl start kandb-meta
[ "$(next_id)" -gt "$first" ]

echo "== starts that fail"
systemctl stop kandb-meta
cp $flags /root/flags
echo 'KANDB_META_FLAGS="--bind_addr=127.0.0.1 --prot=2379"' >$flags
refused "unknown flag: --prot"
echo 'KANDB_META_FLAGS="--bind_addr=127.0.0.1 --port=22"' >$flags
refused "bind 127.0.0.1:22 failed: Permission denied"
echo 'KANDB_META_FLAGS="--bind_addr=127.0.0.1 --port=2380"' >$flags
cp -a $state /root/state
kandb-meta --bind_addr=127.0.0.1 --port=2380 --data_dir=/root/other >/dev/null &
other=$!
eventually kandb-ctl --server 127.0.0.1:2380 ping --count 1
refused "bind 127.0.0.1:2380 failed: Address already in use"
kill "$other"
cp /root/flags $flags
chmod 0 $state/MANIFEST
refused "failed to open pd state at $state: Corruption: manifest open: Permission denied"
chmod 640 $state/MANIFEST
printf 'sst 000099.sst\nnext_file 100\n' >>$state/MANIFEST
refused "failed to open pd state at $state: Corruption: sst open"
rm -r $state
cp -a /root/state $state
mount -t tmpfs -o size=8m tmpfs $state
chown kandb-meta:kandb-meta $state
refused "less than 16 MiB free in $state"
umount $state
systemctl start kandb-meta
[ "$(next_id)" -gt "$first" ]

echo "== metrics and backups"
mkdir -p /var/lib/prometheus/node-exporter
systemctl enable --now --quiet kandb-meta-metrics.timer kandb-meta-backup.timer
systemctl start kandb-meta-metrics kandb-meta-backup
grep -qx 'kandb_healthy 1' /var/lib/prometheus/node-exporter/kandb-meta.prom
kandb-ctl load alloc-id --seconds 20 --yes >/root/load 2>&1 &
load=$!
systemctl start kandb-meta-backup
wait "$load"
[ "$(find /var/lib/kandb-meta-backups -name '20*Z' | wc -l)" = 2 ]
kandb-ctl state verify /var/lib/kandb-meta-backups/latest

echo "== an address that is closed"
drop_in=/etc/systemd/system/kandb-meta.service.d/closed-network.conf
install -D -m 0644 /usr/share/doc/kandb-meta/examples/systemd/closed-network.conf -t ${drop_in%/*}
systemctl daemon-reload
systemctl restart kandb-meta
kandb-ctl ping --count 1 >/dev/null
sed -i s/localhost// $drop_in
systemctl daemon-reload
if kandb-ctl --timeout-ms 1000 --attempts 1 ping --count 1 2>/dev/null; then false; fi
rm -r ${drop_in%/*}
systemctl daemon-reload
systemctl restart kandb-meta

echo "== the same version again, under load"
first=$(next_id)
kandb-ctl load alloc-id --seconds 20 --yes >/root/load 2>&1 &
load=$!
before=$(systemctl show -P MainPID kandb-meta)
dpkg -i /root/kandb-meta.deb >/dev/null
wait "$load" || true # its connections broke
restarted >/dev/null
[ "$(next_id)" -gt "$first" ]

echo "== remove, install again, purge"
enabled() { find /etc/systemd/system -name 'kandb-meta*' | grep .; }
systemctl enable --quiet kandb-meta
enabled >/dev/null
dpkg -r kandb-meta >/dev/null
if enabled || pgrep -x kandb-meta || systemctl list-units --all | grep kandb-meta; then false; fi
dpkg -i /root/kandb-meta.deb >/dev/null
systemctl start kandb-meta
[ "$(next_id)" -gt "$first" ]
dpkg -P kandb-meta 2>&1 | grep -F "rm -r $state $state-backups && deluser --system kandb-meta"
if pgrep -x kandb-meta; then false; fi
[ -e $state/MANIFEST ]
[ ! -e $flags ]
rm -r $state $state-backups
dpkg -i /root/kandb-meta.deb >/dev/null
dpkg -P kandb-meta >/dev/null 2>&1
[ ! -e $state ]
if getent passwd kandb-meta; then false; fi
echo "all checks held"
