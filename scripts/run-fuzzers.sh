#!/usr/bin/env bash
# Runs every libFuzzer target of a fuzz build and fails on the first crash, leak, sanitizer report
# or time-out. Usage: scripts/run-fuzzers.sh BUILD_DIR [SECONDS_EACH]
#
# Without SECONDS_EACH (CI): each target runs a fixed number of inputs from a fixed seed, from its
# seeds alone (Fuzz/ci-runs.tsv gives runs and seed per target; others take the default), so the
# same commit always gives the same verdict.
# With SECONDS_EACH (developers): each target runs that long from a random seed, on a corpus kept
# in BUILD_DIR/fuzz-corpus between runs; an input it fails on is copied into
# Fuzz/regressions/<name without "fuzz_">/, which the ordinary test suite replays: fix the fault,
# then commit the input with the fix.
# Seeds come from Fuzz/corpus/<name>/ and are only read, tokens from Fuzz/dictionaries/<name>.dict
# where there is one; crash artifacts go into BUILD_DIR/fuzz-artifacts. Targets run side by side,
# one per core (FUZZ_JOBS overrides).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build_dir=${1:?usage: run-fuzzers.sh BUILD_DIR [SECONDS_EACH]}
seconds=${2:-}
default_runs=200000
default_seed=1

mapfile -t fuzzers < <(find "$build_dir/Fuzz" -maxdepth 1 -type f -name 'fuzz_*' -perm -u+x | sort)
if ((${#fuzzers[@]} == 0)); then
  echo "no fuzz targets in $build_dir/Fuzz" >&2
  exit 1
fi

jobs=${FUZZ_JOBS:-$(nproc 2>/dev/null || echo 2)}

# "runs seed" of a target from Fuzz/ci-runs.tsv (lines "name<TAB>runs<TAB>seed", # comments).
ci_budget() {
  local name=$1 runs=$default_runs seed=$default_seed row
  row=$(awk -v n="$name" '$1 == n { print $2, $3 }' "$root/Fuzz/ci-runs.tsv" 2>/dev/null || true)
  [[ -n "$row" ]] && read -r runs seed <<<"$row"
  echo "$runs $seed"
}

run_one() {
  local fuzzer=$1 name short corpus artifacts budget
  name=$(basename "$fuzzer")
  short=${name#fuzz_}
  artifacts="$build_dir/fuzz-artifacts/$name"
  mkdir -p "$artifacts"
  local seeds=() options=()
  [[ -d "$root/Fuzz/corpus/$short" ]] && seeds=("$root/Fuzz/corpus/$short")
  [[ -f "$root/Fuzz/dictionaries/$short.dict" ]] && options=(-dict="$root/Fuzz/dictionaries/$short.dict")
  if [[ -n "$seconds" ]]; then
    corpus="$build_dir/fuzz-corpus/$name"
    options+=(-max_total_time="$seconds")
    echo "-- $name (${seconds}s, random seed)"
  else
    # A fresh corpus each time: what an earlier run found must not change this run's inputs.
    corpus="$build_dir/fuzz-corpus-ci/$name"
    rm -rf "$corpus"
    read -r runs seed <<<"$(ci_budget "$short")"
    options+=(-runs="$runs" -seed="$seed")
    echo "-- $name ($runs runs, seed $seed)"
  fi
  mkdir -p "$corpus"
  if ! "$fuzzer" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
       -artifact_prefix="$artifacts/" "${options[@]}" "$corpus" "${seeds[@]}" \
       >"$build_dir/fuzz-$name.log" 2>&1; then
    tail -n 60 "$build_dir/fuzz-$name.log"
    echo "$name failed; the input is in $artifacts/" >&2
    if [[ -n "$seconds" ]]; then
      mkdir -p "$root/Fuzz/regressions/$short"
      find "$artifacts" -maxdepth 1 -type f -newer "$build_dir/fuzz-$name.started" \
        -exec cp -v {} "$root/Fuzz/regressions/$short/" \; >&2
    fi
    return 1
  fi
  echo "$name: $(grep -E '^stat::number_of_executed_units' "$build_dir/fuzz-$name.log" || true)"
}

failed=0
running=0
for fuzzer in "${fuzzers[@]}"; do
  touch "$build_dir/fuzz-$(basename "$fuzzer").started"
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
