#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for a short while over its checked-in corpus.
# New inputs go to a scratch folder, so the corpus in the tree stays as it is. FUZZ_SECONDS sets the time
# per target (default 15).
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${FUZZ_SECONDS:-15}"
cmake --preset fuzz >/dev/null
targets=$(cd fuzz && ls fuzz_*.cpp | sed 's/\.cpp$//')
cmake --build --preset fuzz -j "$(nproc)" --target $targets
scratch=$(mktemp -d)
# Crashes and slow inputs are kept in the build tree, never beside the sources.
mkdir -p build/fuzz/artifacts
trap 'rm -rf "$scratch"' EXIT
for t in $targets; do
  name=${t#fuzz_}
  mkdir -p "$scratch/$name"
  echo "fuzzing $name for ${seconds}s"
  ./build/fuzz/fuzz/"$t" -max_total_time="$seconds" -print_final_stats=1 -artifact_prefix=build/fuzz/artifacts/ \
    "$scratch/$name" "fuzz/corpus/$name" \
    2>&1 | grep -E '^(stat::number_of_executed_units|==[0-9]+==ERROR|SUMMARY)' || true
  # libFuzzer exits non-zero on a finding; PIPESTATUS keeps that visible through the filter.
  [ "${PIPESTATUS[0]}" -eq 0 ] || { echo "fuzz target $t found a failure (input in build/fuzz/artifacts)"; exit 1; }
done
echo "fuzz smoke: $(echo $targets | wc -w) targets ran ${seconds}s each without a finding"
