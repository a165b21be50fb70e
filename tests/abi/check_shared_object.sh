#!/usr/bin/env bash
# The shared object exports only the library's API and needs nothing but libc.
set -euo pipefail
lib=$1
fail=0
unexpected=$(nm -D --defined-only "$lib" | awk '{print $3}' |
  grep -vE '^(quelm_|__quelm_|utils_)|^__compute_protocol_filter_size$' || true)
if [ -n "$unexpected" ]; then
  echo "exported names outside the API:"; echo "$unexpected"; fail=1
fi
needed=$(readelf -d "$lib" | grep NEEDED || true)
echo "$needed"
if echo "$needed" | grep -vq 'libc.so.6'; then echo "DT_NEEDED beyond libc"; fail=1; fi
exit $fail
