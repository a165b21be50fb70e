#!/usr/bin/env bash
# Times `quelm flows` on captures side by side with a program that only reads them through libpcap
# (the floor) and with other flow exporters from Debian's packages when they are installed
# (softflowd, nfpcapd from nfdump, argus from argus-server). Each program reads the same file and
# writes nothing, or writes to /dev/null (nfpcapd insists on a directory: a temporary one, removed
# afterwards). Prints the median wall time of several runs, packets per second, the share of the
# floor's packets per second and the peak resident memory, then the tool's start-up time on a tiny
# capture.
#
# usage: bench/compare-peers.sh [PCAP...]
#   With no capture, generates two in a temporary directory first: 100 thousand flows in 2 million
#   packets, and 1 million flows in 10 million packets (about 6.5 GB; takes a minute or two).
#   A capture named like the generated ones (traffic-<N>flows-...) is taken to hold N flows.
# environment:
#   QUELM_BIN    the quelm tool (default build/release/tools/quelm)
#   BENCH_DIR    where quelm-pcap-floor and quelm-gen-traffic are (default build/release/bench/traffic)
#   RUNS         timed runs per program and capture (default 3)
#   TMPDIR       where generated captures go (default /tmp)
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
quelm=${QUELM_BIN:-$root/build/release/tools/quelm}
bench_dir=${BENCH_DIR:-$root/build/release/bench/traffic}
floor=$bench_dir/quelm-pcap-floor
gen=$bench_dir/quelm-gen-traffic
runs=${RUNS:-3}
flow_bytes=384 # memory budget of one flow in the table

die() {
    echo "compare-peers: $*" >&2
    exit 1
}
[[ -x $quelm ]] || die "no quelm tool at $quelm: build it (cmake --build build/release) or set QUELM_BIN"
[[ -x $floor ]] || die "no quelm-pcap-floor at $floor: build bench/traffic or set BENCH_DIR"
[[ -x /usr/bin/time ]] || die "/usr/bin/time is needed for peak memory: apt-get install time"
[[ $runs =~ ^[1-9][0-9]*$ ]] || die "RUNS must be a positive number"

work=$(mktemp -d "${TMPDIR:-/tmp}/quelm-peers.XXXXXX")
trap 'rm -rf "$work"' EXIT

# Flow counts of generated captures, to tell the flows' own share of memory.
declare -A flows_in

captures=("$@")
if ((${#captures[@]} == 0)); then
    [[ -x $gen ]] || die "no quelm-gen-traffic at $gen: build bench/traffic or set BENCH_DIR"
    for spec in 100000:2000000 1000000:10000000; do
        f=${spec%%:*} p=${spec##*:}
        file=$work/traffic-${f}flows-${p}pkts.pcap
        echo "generating $file" >&2
        "$gen" --flows "$f" --packets "$p" --seed 1 -o "$file"
        flows_in[$file]=$f
        captures+=("$file")
    done
fi
for c in "${captures[@]}"; do
    [[ -r $c ]] || die "cannot read capture $c"
    if [[ $(basename "$c") =~ ^traffic-([0-9]+)flows- ]]; then flows_in[$c]=${BASH_REMATCH[1]}; fi
done

median() { sort -g | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

# run NAME CMD...: runs the command $runs times; sets the globals secs (median wall seconds) and
# rss_kib (largest peak resident memory), or returns 1 when the command fails.
run() {
    local name=$1 i t0 t1 out
    shift
    local times=() rss=0 r
    for ((i = 0; i < runs; i++)); do
        t0=$EPOCHREALTIME
        if ! /usr/bin/time -f %M -o "$work/rss" "$@" >"$work/out" 2>&1; then
            echo "  $name failed: $(tail -n 3 "$work/out" | tr '\n' ' ')" >&2
            return 1
        fi
        t1=$EPOCHREALTIME
        times+=("$(awk -v a="$t0" -v b="$t1" 'BEGIN { print b - a }')")
        r=$(tail -n 1 "$work/rss")
        if ((r > rss)); then rss=$r; fi
    done
    secs=$(printf '%s\n' "${times[@]}" | median)
    rss_kib=$rss
}

row() { # name seconds packets floor_pps rss_kib
    awk -v n="$1" -v s="$2" -v p="$3" -v f="$4" -v m="$5" 'BEGIN {
        pps = p / s
        printf "  %-12s %9.3f %9.3f %7.1f%% %10.1f\n", n, s, pps / 1e6, (f > 0 ? 100 * pps / f : 0), m / 1024 }'
}

for cap in "${captures[@]}"; do
    cat "$cap" >/dev/null # the page cache holds the file for every program alike
    # The floor first: it also counts the packets.
    run floor "$floor" "$cap" || die "the floor could not read $cap"
    packets=$(awk '/^packets/ { print $2 }' "$work/out")
    floor_pps=$(awk -v p="$packets" -v s="$secs" 'BEGIN { print p / s }')
    echo
    echo "$cap: $packets packets, $runs runs each, medians"
    printf "  %-12s %9s %9s %8s %10s\n" program seconds Mpps "floor" "peak MiB"
    row floor "$secs" "$packets" "$floor_pps" "$rss_kib"

    if run quelm "$quelm" flows -r "$cap" -w /dev/null; then
        row quelm "$secs" "$packets" "$floor_pps" "$rss_kib"
        quelm_rss=$rss_kib
    else
        quelm_rss=
    fi
    if command -v softflowd >/dev/null; then
        # Foreground, IPv6 too, VLAN in the key, room for every flow; no -n: nothing is sent.
        run softflowd softflowd -r "$cap" -d -6 -T vlan -m 4000000 &&
            row softflowd "$secs" "$packets" "$floor_pps" "$rss_kib"
    fi
    if command -v nfpcapd >/dev/null; then
        mkdir -p "$work/nfpcapd"
        # Node cache large enough for every flow of the biggest capture.
        run nfpcapd nfpcapd -r "$cap" -w "$work/nfpcapd" -B 4194304 &&
            row nfpcapd "$secs" "$packets" "$floor_pps" "$rss_kib"
        rm -rf "$work/nfpcapd"
    fi
    if command -v argus >/dev/null; then
        # No configuration file, records to /dev/null, no remote-access port.
        run argus argus -F /dev/null -r "$cap" -w /dev/null -P 0 &&
            row argus "$secs" "$packets" "$floor_pps" "$rss_kib"
    fi
    if [[ -n $quelm_rss && -n ${flows_in[$cap]:-} ]]; then
        # All of the capture's flows at once is the most the table can hold; flows that expire
        # before the end make the real share smaller.
        awk -v m="$quelm_rss" -v f="${flows_in[$cap]}" -v b="$flow_bytes" 'BEGIN {
            share = f * b / 1048576; beyond = m / 1024 - share
            extra = "none"
            if (beyond > 0) extra = sprintf("%.1f MiB", beyond)
            printf "  quelm peak memory %.1f MiB; %d flows x %d bytes at most %.1f MiB; beyond: %s\n",
                m / 1024, f, b, share, extra }'
    fi
done

# Start-up: a capture of a handful of packets, many runs, median wall time. The floor on the same
# file shows what starting any process costs on this machine.
startup_ms() {
    local i t0 t1 times=()
    for ((i = 0; i < 31; i++)); do
        t0=$EPOCHREALTIME
        "$@" >/dev/null 2>&1 || die "$1 failed on a tiny capture"
        t1=$EPOCHREALTIME
        times+=("$(awk -v a="$t0" -v b="$t1" 'BEGIN { print (b - a) * 1000 }')")
    done
    printf '%s\n' "${times[@]}" | median
}
if [[ -x $gen ]]; then
    tiny=$work/tiny.pcap
    "$gen" --flows 2 --packets 20 -o "$tiny" 2>/dev/null
    echo
    printf 'start-up on a 20-packet capture (median of 31 runs): quelm %.2f ms, floor %.2f ms\n' \
        "$(startup_ms "$quelm" flows -r "$tiny" -w /dev/null)" "$(startup_ms "$floor" "$tiny")"
fi
