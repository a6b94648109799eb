#!/bin/bash
# Many selections under AddressSanitizer and under ThreadSanitizer, the same ones under both, each
# stopping at its first finding. With 200,000 runs this takes about half an hour.
# usage: soak.sh BUILD_ASAN BUILD_TSAN [RUNS [SEED]]
set -euo pipefail
runs=${3:-200000}
seed=${4:-$(date +%s)}

echo "AddressSanitizer and UndefinedBehaviorSanitizer"
ASAN_OPTIONS=detect_stack_use_after_return=1:strict_init_order=1 \
  "$1/bin/selection_stress" "$runs" "$seed"
echo "ThreadSanitizer"
TSAN_OPTIONS=halt_on_error=1:history_size=4 "$2/bin/selection_stress" "$runs" "$seed"
