#!/usr/bin/env bash
# Usage: run_corpus.sh QUELM FOLDER [PART PARTS]. Runs `quelm flows` over every PARTS-th capture of
# FOLDER from the PART-th (many malformed on purpose), with the options that exercise the most code:
# each run must end with 0 (read) or 65 (damaged or unsupported) and report no sanitizer error.
# At the end, the captures refused for their link type, counted by link type.
set -u
tool=$1 folder=$2 part=${3:-0} parts=${4:-1}
[[ -d $folder ]] || { echo "skipped: no capture folder at $folder"; exit 77; }
failures=0 total=0 damaged=0 index=-1
declare -A refused_links=()
for capture in "$folder"/*; do
    [[ -f $capture ]] || continue
    index=$((index + 1))
    [[ $((index % parts)) -eq $part ]] || continue
    total=$((total + 1))
    report=$("$tool" flows -r "$capture" --format json --tunnels --slice 5 --extra-dissection --max-flows 4096 -w /dev/null 2>&1)
    status=$?
    [[ $status -eq 65 ]] && damaged=$((damaged + 1))
    link=$(sed -n 's/.*: \(link type .*)\) is not supported.*/\1/p' <<<"$report")
    [[ -n $link ]] && refused_links[$link]=$((${refused_links[$link]:-0} + 1))
    if [[ $status -ne 0 && $status -ne 65 ]] || grep -q -e 'Sanitizer' -e 'runtime error' <<<"$report"; then
        failures=$((failures + 1)); echo "FAILED (exit $status): $capture"; head -n 30 <<<"$report"
    fi
done
echo "$total captures: $((total - damaged)) read, $damaged refused as damaged or unsupported, $failures failed"
for link in "${!refused_links[@]}"; do echo "${refused_links[$link]} refused: $link"; done | sort -rn
[[ $failures -eq 0 ]]
