#!/usr/bin/env bash
# snmpbulkwalk of tcpConnectionTable at N loopback connections: wall time and CPU per varbind of
# confd-emu's SNMP front end plus the daemon, beside net-snmp's snmpd walking the same table in the
# same namespace (ratio: ours over snmpd's), and how many of the N connections each agent lists
# with their owning process (tcpConnectionProcess not 0); a cold and a warm walk per size. Run as
# root: bench/snmp_walk.sh [N ...] (PRESET=release by default; build the leisobek and confd-emu
# targets first). Everything runs in private network, mount and pid namespaces and dies with them.
set -euo pipefail
cd "$(dirname "$0")/.."
if [ -z "${SNMP_BENCH_INSIDE:-}" ]; then
    exec env SNMP_BENCH_INSIDE=1 unshare -n -m -p -f --mount-proc "$0" "$@"
fi
bin=build/${PRESET:-release}
ulimit -n 65536 2>/dev/null || true
ip link set lo up
mount -t tmpfs none /tmp
mkdir -p /tmp/snmp
export MIBS= MIBDIRS=/tmp/snmp SNMPCONFPATH=/tmp/snmp SNMP_PERSISTENT_DIR=/tmp/snmp
table=.1.3.6.1.2.1.6.19
# CPU time of every thread of a process in microseconds (schedstat counts nanoseconds; the stat
# file's 10 ms ticks are as coarse as the figure itself at 1 000 rows).
cpu_us() { cat /proc/$1/task/*/schedstat | awk '{ns += $1} END {printf "%d", ns / 1000}'; }
now() { date +%s.%N; }

"$bin/emu/confd-emu" --snmp udp:127.0.0.1:1161 >/dev/null 2>/tmp/snmp/emu.err &
emu=$!
sleep 0.5
"$bin/src/leisobek" 2>/dev/null &
daemon=$!
printf 'rocommunity public\n' >/tmp/snmp/bench-snmpd.conf
snmpd=
holder=
trap 'kill $emu $daemon $snmpd $holder 2>/dev/null; wait 2>/dev/null || true' EXIT
sleep 1

printf '%-7s %-5s %9s %8s %13s %13s %9s %8s %13s %6s %8s %8s\n' conns pass varbinds wall_s \
    emu_us_per_vb daemon_us_vb snmpd_vb wall_s snmpd_us_vb ratio owned snmpd_ow
port=7000
for n in "${@:-1000}"; do
    [ -n "$holder" ] && kill "$holder" && wait "$holder" 2>/dev/null || true
    # snmpd keeps the table of an earlier round for longer than a round lasts: each round starts
    # one of its own, so that both agents read the kernel's table afresh.
    [ -n "$snmpd" ] && kill "$snmpd" && wait "$snmpd" 2>/dev/null || true
    rm -f /tmp/snmp/ready
    port=$((port + 1))
    python3 - "$n" "$port" <<'PY' &
import os, socket, sys, time
# (Each round listens on a port of its own; what a round leaves dies with the namespace.)
# Connections in processes of at most 4 000 pairs each, under any open-file limit of 8 000 or more.
n, port = int(sys.argv[1]), int(sys.argv[2])
l = socket.socket()
l.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
l.bind(('127.0.0.1', port))
l.listen(4096)
left, kids = n // 2, []
while left > 0:
    share = min(left, 4000)
    left -= share
    r, w = os.pipe()
    pid = os.fork()
    if pid == 0:
        keep = []
        for _ in range(share):
            c = socket.create_connection(('127.0.0.1', port))
            a, _ = l.accept()
            keep += [c, a]
        # A socket open in several processes would count once per process in the daemon's
        # socket-to-process walk, which stops once it has counted as many as there are sockets:
        # the listener stays open in the parent only, and goes before the walks.
        l.close()
        os.write(w, b'x')
        time.sleep(3600)
        os._exit(0)
    os.read(r, 1)
    kids.append(pid)
l.close()
open('/tmp/snmp/ready', 'w').close()
try:
    time.sleep(3600)
finally:
    for k in kids:
        os.kill(k, 9)
PY
    holder=$!
    while [ ! -e /tmp/snmp/ready ]; do
        kill -0 "$holder" 2>/dev/null || { echo "cannot open $n connections" >&2; exit 1; }
        sleep 0.1
    done
    /usr/sbin/snmpd -f -Lf /dev/null -C -c /tmp/snmp/bench-snmpd.conf udp:127.0.0.1:1163 &
    snmpd=$!
    # confd-emu keeps a table's rows for a few seconds: a later round waits them out (and snmpd
    # gets up meanwhile).
    sleep $([ "$port" -gt 7001 ] && echo 6 || echo 1)
    # Connections of this round (local or remote port) listed with a process.
    owned() { grep -c "^$table\.1\.8\..*\.$port\(\.[0-9.]*\)\? = Gauge32: [1-9]" "$1" || true; }
    # A cold walk makes both agents read the kernel's table; the warm one right after it is
    # answered from what they keep of it.
    for pass in cold warm; do
        e0=$(cpu_us $emu) d0=$(cpu_us $daemon) t0=$(now)
        snmpbulkwalk -v2c -c public -On -Cr25 -t 60 127.0.0.1:1161 $table >/tmp/snmp/ours
        t1=$(now) e1=$(cpu_us $emu) d1=$(cpu_us $daemon)
        s0=$(cpu_us $snmpd) u0=$(now)
        snmpbulkwalk -v2c -c public -On -Cr25 -t 60 127.0.0.1:1163 $table >/tmp/snmp/snmpd
        u1=$(now) s1=$(cpu_us $snmpd)
        vb=$(wc -l </tmp/snmp/ours) svb=$(wc -l </tmp/snmp/snmpd)
        awk -v n="$n" -v p=$pass -v vb="$vb" -v w="$(echo "$t1 - $t0" | bc)" -v e=$((e1 - e0)) \
            -v d=$((d1 - d0)) -v svb="$svb" -v sw="$(echo "$u1 - $u0" | bc)" -v sc=$((s1 - s0)) \
            -v ow="$(owned /tmp/snmp/ours)" -v sow="$(owned /tmp/snmp/snmpd)" \
            'BEGIN { ours = (e + d) / (vb ? vb : 1); theirs = sc / (svb ? svb : 1)
                     printf "%-7d %-5s %9d %8.3f %13.1f %13.1f %9d %8.3f %13.1f %6.2f %8d %8d\n",
                     n, p, vb, w, e / (vb ? vb : 1), d / (vb ? vb : 1), svb, sw, theirs,
                     ours / (theirs ? theirs : 1), ow, sow }'
    done
done
