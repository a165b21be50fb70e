#!/bin/sh
# Builds the fuzz targets of the engine and the flow table with clang (libFuzzer + ASan + UBSan) and runs
# each for a short time, seeded from the shared capture corpus and fuzz/seeds.
# Usage: fuzz/run-smoke.sh [SECONDS]   (default 20 s per target)
# Environment: PELDA_FUZZ_BUILD (build dir, default build/pelda-fuzz under the
# repository root), CXX (default clang++). Exits non-zero when a target crashes.
set -eu

seconds=${1:-20}
here=$(cd "$(dirname "$0")" && pwd)
root=$(dirname "$here")
build=${PELDA_FUZZ_BUILD:-$root/build/pelda-fuzz}
cxx=${CXX:-clang++}
corpus=$root/../shared/corpus/tcpdump

if ! command -v "$cxx" >/dev/null 2>&1; then
    echo "run-smoke.sh: $cxx not found; install clang (apt-get install -y clang)" >&2
    exit 2
fi

mkdir -p "$build"
flags="-std=c++20 -g -O1 -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=all -I$root/pelda/include -I$root/pelda/src"
lib_sources=$(ls "$root"/pelda/src/*.cpp)

# The engine once, as objects with fuzzer coverage, then one binary per target.
objs=""
for src in $lib_sources; do
    obj=$build/$(basename "$src" .cpp).o
    $cxx $flags -fno-exceptions -c "$src" -o "$obj"
    objs="$objs $obj"
done
for target in fuzz_packet fuzz_files fuzz_tlv; do
    $cxx $flags "$here/$target.cpp" $objs -o "$build/$target"
done
# The flow table, linked with the engine so that detection runs too.
qobjs=""
for src in "$root"/src/*.cpp; do
    obj=$build/quelm_$(basename "$src" .cpp).o
    $cxx $flags -fno-exceptions -fno-rtti -I"$root/include" -I"$root/src" -c "$src" -o "$obj"
    qobjs="$qobjs $obj"
done
$cxx $flags -I"$root/include" "$here/fuzz_table.cpp" $qobjs $objs -o "$build/fuzz_table"

run() {
    target=$1
    shift
    work=$build/corpus-$target
    mkdir -p "$work"
    echo "== $target for ${seconds}s"
    # New inputs go to the first directory only; seed directories are read.
    if ! (cd "$build" && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
        "./$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
        -print_final_stats=1 "$work" "$@"); then
        echo "run-smoke.sh: $target failed; the crashing input is in $build (crash-*)" >&2
        exit 1
    fi
}

if [ -d "$corpus" ]; then
    run fuzz_packet "$corpus"
else
    echo "run-smoke.sh: no capture corpus at $corpus; fuzz_packet starts from nothing" >&2
    run fuzz_packet
fi
run fuzz_table "$here/seeds/table"
run fuzz_files "$here/seeds/files"
run fuzz_tlv "$here/seeds/tlv"
echo "run-smoke.sh: all targets ran clean"
