#!/usr/bin/env bash
# Builds the libFuzzer targets (fuzz/, clang) into build-fuzz/ and runs each
# for a while, starting from a copy of its seed corpus (fuzz/corpus/<target>;
# the committed corpus is never changed). Fails on any crash, hang, leak,
# sanitizer report or broken property; the input that caused it is kept in
# $FUZZ_OUT/artifacts/<target>/ and the whole log in $FUZZ_OUT/logs/
# (FUZZ_OUT defaults to build-fuzz; set it to keep two runs apart).
#
# Usage: scripts/fuzz.sh [SECONDS_PER_TARGET [TARGET...]]   (default: 30, all)
# Reproduce a finding: build-fuzz/fuzz/<target> build-fuzz/artifacts/<target>/crash-...
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-30}
shift || true
targets=("$@")
[[ ${#targets[@]} -gt 0 ]] || targets=(fuzz_keyvalues fuzz_url fuzz_escape fuzz_split fuzz_protocol)

bash scripts/install-deps.sh

cmake --preset fuzz >/dev/null
cmake --build build-fuzz --target fuzzers -j"$(nproc 2>/dev/null || echo 2)"

# Corpus copies and the protocol target's configuration files, in memory
# where possible.
work=$(mktemp -d -p /dev/shm 2>/dev/null || mktemp -d)
trap 'rm -rf "$work"' EXIT
export RELAYTOOL_FUZZ_TMPDIR="$work"
out=${FUZZ_OUT:-build-fuzz}
mkdir -p "$out/logs"

# Reports in the sanitizers' stricter modes; leaks are checked per input by
# libFuzzer (-detect_leaks=1).
export ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1:check_initialization_order=1
export UBSAN_OPTIONS=print_stacktrace=1

passed=0
failed=0
for target in "${targets[@]}"; do
  corpus="$work/$target"
  artifacts="$out/artifacts/$target"
  log="$out/logs/$target.log"
  mkdir -p "$corpus" "$artifacts"
  cp -R "fuzz/corpus/$target/." "$corpus/"
  options=(-max_total_time="$seconds" -detect_leaks=1 -timeout=10 -rss_limit_mb=2048
           -close_fd_mask=3 -print_final_stats=1 -artifact_prefix="$artifacts/")
  [[ "$target" == fuzz_protocol ]] && options+=(-dict=fuzz/protocol.dict)

  status=0
  "build-fuzz/fuzz/$target" "${options[@]}" "$corpus" >"$log" 2>&1 || status=$?

  # The last status line ("#N DONE cov: C ft: F corp: ...") and final stats.
  last=$(grep -E '^#[0-9]+' "$log" | tail -n 1 || true)
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -n 1)
  cov=$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<<"$last")
  ft=$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<<"$last")
  corp=$(sed -n 's/.* corp: \([0-9]*\/[0-9]*[a-zA-Z]*\).*/\1/p' <<<"$last")
  if [[ $status -ne 0 ]] || grep -qE 'ERROR: (AddressSanitizer|LeakSanitizer|UndefinedBehaviorSanitizer|libFuzzer)|runtime error:|==FUZZ==' "$log"; then
    failed=$((failed + 1))
    echo "FAIL $target: exit status $status after ${runs:-?} runs; report:"
    grep -E -A 30 '==FUZZ==|ERROR: |runtime error:' "$log" | head -n 60 || tail -n 40 "$log"
    kept=$(find "$artifacts" -type f -newer "$corpus" | head -n 1)
    echo "  input kept in: ${kept:-$artifacts/}  (full log: $log)"
  else
    passed=$((passed + 1))
    printf 'ok   %-15s %10s runs (%s/s) in %ss  cov: %s  ft: %s  corpus: %s\n' \
      "$target" "${runs:-?}" "${rate:-?}" "$seconds" "${cov:-?}" "${ft:-?}" "${corp:-?}"
  fi
done
echo "fuzz: $passed passed, $failed failed"
[[ $failed -eq 0 ]]
