#!/usr/bin/env bash
# Soak run: for SECONDS (default 3600) walks every table the daemon serves through confd-emu's
# SNMP front end, flaps a veth pair, commits configuration and sends audit events, in a loop, and
# samples the RSS (kB), open descriptors and threads of the daemon and of confd-emu every
# SOAK_INTERVAL seconds (default 10). After the first SOAK_WARMUP seconds (default 60), a figure
# must not grow: its highest value in the last half of the run may not exceed its highest in the
# first half (RSS gets 1 % of slack for the allocator).
# Run as root: bench/soak.sh [SECONDS]. Everything runs in private network, mount and pid
# namespaces; the scripts the daemon may run are recording stubs there.
set -euo pipefail
cd "$(dirname "$0")/.."
bin=build/${PRESET:-release}
if [ -z "${SOAK_INSIDE:-}" ]; then
    cmake --preset "${PRESET:-release}" >/dev/null
    cmake --build --preset "${PRESET:-release}" --target leisobek confd-emu confd-emu-cli \
        models_share mibs >/dev/null
    exec env SOAK_INSIDE=1 unshare -n -m -p -f --mount-proc "$0" "$@"
fi
duration=${1:-3600} interval=${SOAK_INTERVAL:-10} warmup=${SOAK_WARMUP:-60}
ip link set lo up
mount -t tmpfs none /tmp
out=/tmp/soak
mkdir -p $out/bin/up $out/bin/work $out/etc/up $out/etc/work
# Every script the daemon runs becomes a stub that records its call and prints nothing.
mount -t overlay overlay -o lowerdir=/usr/bin,upperdir=$out/bin/up,workdir=$out/bin/work /usr/bin
for s in $(grep -rhoE '/usr/bin/[A-Za-z0-9_.-]+' src | sort -u); do
    printf '#!/bin/sh\necho "$0 $*" >>%s/recorded\n' $out >"$s"
    chmod +x "$s"
done
mount -t overlay overlay -o lowerdir=/etc,upperdir=$out/etc/up,workdir=$out/etc/work /etc
mkdir -p /etc/config
printf "config interface 'lan'\n\toption ifname 'veth0'\n" >/etc/config/network
ip link add veth0 type veth peer name veth1
ip link set veth1 up
export MIBS= MIBDIRS=$out SNMPCONFPATH=$out SNMP_PERSISTENT_DIR=$out

"$bin/emu/confd-emu" --snmp udp:127.0.0.1:1161 >$out/emu.log 2>&1 &
emu=$!
cli="$bin/emu/confd-emu-cli"
for _ in $(seq 100); do "$cli" status >/dev/null 2>&1 && break; sleep 0.1; done
"$bin/src/leisobek" 2>$out/daemon.log &
daemon=$!
for _ in $(seq 100); do "$cli" status | grep -q '"registered":true' && break; sleep 0.1; done

# One sample line: seconds, then RSS, descriptors and threads of the daemon, then of confd-emu.
sample() {
    local line=$1
    for p in $daemon $emu; do
        kill -0 "$p" 2>/dev/null || { echo "soak: process $p died" >&2; exit 1; }
        line+=" $(awk '/^VmRSS/{r=$2} /^Threads/{t=$2} END{print r}' /proc/$p/status)"
        line+=" $(ls /proc/$p/fd | wc -l)"
        line+=" $(awk '/^Threads/{print $2}' /proc/$p/status)"
    done
    echo "$line" | tee -a $out/samples
}

echo "# s daemon_rss_kb daemon_fds daemon_threads emu_rss_kb emu_fds emu_threads"
start=$(date +%s) next=0 rounds=0
while :; do
    now=$(($(date +%s) - start))
    if [ "$now" -ge "$next" ]; then sample "$now"; next=$((next + interval)); fi
    [ "$now" -ge "$duration" ] && break
    snmpbulkwalk -v2c -c public -On -Cr50 127.0.0.1:1161 .1.3.6.1 >/dev/null 2>&1 || true
    ip link set veth0 down && ip link set veth0 up
    "$cli" commit --user soak "/system/contact=soak$rounds@home.lan" >/dev/null
    "$cli" audit SNMP_AUTHENTICATION_FAILED --user soak >/dev/null
    "$cli" notifications --clear >/dev/null
    rounds=$((rounds + 1))
done
echo "soak: $rounds rounds in $duration s"

# Each column: its highest value in the first and in the last half of the run after the warm-up.
awk -v warm="$warmup" -v mid=$(((warmup + duration) / 2)) '
    $1 > warm { for (i = 2; i <= NF; i++) { if ($1 <= mid) { if ($i > a[i]) a[i] = $i }
                                             else if ($i > b[i]) b[i] = $i } }
    NR == 1 { for (i = 2; i <= NF; i++) first[i] = $i }
    { for (i = 2; i <= NF; i++) last[i] = $i; n = NF }
    END { split("daemon_rss daemon_fds daemon_threads emu_rss emu_fds emu_threads", name)
          bad = 0
          for (i = 2; i <= n; i++) {
              ok = b[i] <= ((i == 2 || i == 5) ? a[i] * 1.01 : a[i])
              printf "%-15s first %7d  last %7d  max first half %7d  max last half %7d  %s\n",
                     name[i-1], first[i], last[i], a[i], b[i], ok ? "flat" : "GREW"
              if (!ok) bad = 1
          }
          exit bad }' $out/samples
