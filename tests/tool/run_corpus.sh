#!/usr/bin/env bash
# Runs `quelm flows` over every capture of a folder, many of them malformed on purpose. Each run
# must end with 0 (read) or 65 (damaged or unsupported input) and print no sanitizer report.
# Usage: run_corpus.sh QUELM_BINARY FOLDER [PART PARTS]   (exit 77, "skipped", when the folder is
# absent). With PART and PARTS it runs every PARTS-th capture from the PART-th (0-based), so that
# the parts run side by side.
set -u
tool=$1
folder=$2
part=${3:-0}
parts=${4:-1}
if [[ ! -d $folder ]]; then
    echo "skipped: no capture folder at $folder"
    exit 77
fi

failures=0 total=0 damaged=0 index=-1
for capture in "$folder"/*; do
    [[ -f $capture ]] || continue
    index=$((index + 1))
    [[ $((index % parts)) -eq $part ]] || continue
    total=$((total + 1))
    # JSON, slices, tunnel decoding and detection reading answers too exercise the most code per
    # capture; the captures are small, so a small table keeps each run short.
    report=$("$tool" flows -r "$capture" --format json --tunnels --slice 5 --extra-dissection --max-flows 4096 -w /dev/null 2>&1)
    status=$?
    if [[ $status -eq 65 ]]; then damaged=$((damaged + 1)); fi
    if [[ $status -ne 0 && $status -ne 65 ]] || grep -q -e 'Sanitizer' -e 'runtime error' <<<"$report"; then
        failures=$((failures + 1))
        echo "FAILED (exit $status): $capture"
        head -n 30 <<<"$report"
    fi
done
echo "$total captures: $((total - damaged)) read, $damaged refused as damaged or unsupported, $failures failed"
[[ $failures -eq 0 ]]
