#!/usr/bin/env bash
# Runs every libFuzzer target of a fuzz build for a bounded time and fails on the first crash,
# leak, sanitizer report or time-out. Usage: scripts/run-fuzzers.sh BUILD_DIR [SECONDS_EACH]
# Seeds come from Fuzz/corpus/<name without "fuzz_">/ and are only read, tokens from
# Fuzz/dictionaries/<name without "fuzz_">.dict where there is one; new inputs and crash
# artifacts go into BUILD_DIR/fuzz-corpus and BUILD_DIR/fuzz-artifacts. Targets run side by side,
# one per core (FUZZ_JOBS overrides), each for its full time.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build_dir=${1:?usage: run-fuzzers.sh BUILD_DIR [SECONDS_EACH]}
seconds=${2:-20}

mapfile -t fuzzers < <(find "$build_dir/Fuzz" -maxdepth 1 -type f -name 'fuzz_*' -perm -u+x | sort)
if ((${#fuzzers[@]} == 0)); then
  echo "no fuzz targets in $build_dir/Fuzz" >&2
  exit 1
fi

jobs=${FUZZ_JOBS:-$(nproc 2>/dev/null || echo 2)}

run_one() {
  local fuzzer=$1 name corpus artifacts
  name=$(basename "$fuzzer")
  corpus="$build_dir/fuzz-corpus/$name"
  artifacts="$build_dir/fuzz-artifacts/$name"
  mkdir -p "$corpus" "$artifacts"
  local seeds=() options=()
  [[ -d "$root/Fuzz/corpus/${name#fuzz_}" ]] && seeds=("$root/Fuzz/corpus/${name#fuzz_}")
  [[ -f "$root/Fuzz/dictionaries/${name#fuzz_}.dict" ]] &&
    options=(-dict="$root/Fuzz/dictionaries/${name#fuzz_}.dict")
  echo "-- $name (${seconds}s)"
  if ! "$fuzzer" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
       -artifact_prefix="$artifacts/" "${options[@]}" "$corpus" "${seeds[@]}" \
       >"$build_dir/fuzz-$name.log" 2>&1; then
    tail -n 60 "$build_dir/fuzz-$name.log"
    echo "$name failed; the input is in $artifacts/" >&2
    return 1
  fi
  echo "$name: $(grep -E '^stat::number_of_executed_units' "$build_dir/fuzz-$name.log" || true)"
}

failed=0
running=0
for fuzzer in "${fuzzers[@]}"; do
  run_one "$fuzzer" &
  running=$((running + 1))
  if ((running >= jobs)); then
    wait -n || failed=1
    running=$((running - 1))
  fi
done
while ((running > 0)); do
  wait -n || failed=1
  running=$((running - 1))
done
exit "$failed"
