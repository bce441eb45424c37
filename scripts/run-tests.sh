#!/usr/bin/env bash
# Builds everything and runs every test on a fresh machine:
#   1. a build with warnings as errors, all tests, and the libraries' test
#      programs again under valgrind (less the thread and fork stress ones);
#   2. AddressSanitizer + UndefinedBehaviorSanitizer build, all tests;
#   3. ThreadSanitizer build, the concurrency tests;
#   4. the libFuzzer targets (clang), each for QV_FUZZ_SECONDS (default 18),
#      QV_JOBS at a time, each held to its coverage floor in
#      fuzz/coverage-floors.txt.
# Set QV_QUICK=1 to run only step 1.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
jobs=${QV_JOBS:-$(nproc)}
fuzz_seconds=${QV_FUZZ_SECONDS:-18}

scripts/install-deps.sh

passed=0
failed=0
summary=()

# run_ctest NAME BUILD_DIR [ctest args...]: runs ctest, tallies its counts.
run_ctest() {
  local name=$1 dir=$2
  shift 2
  local log="$dir/ctest.log" status=0
  ctest --test-dir "$dir" -j"$jobs" --output-on-failure "$@" 2>&1 | tee "$log" || status=$?
  local line
  line=$(grep -E 'tests passed, [0-9]+ tests failed out of [0-9]+' "$log" | tail -n1 || true)
  if [ -z "$line" ]; then
    summary+=("$name: no tests ran (ctest status $status)")
    failed=$((failed + 1))
    return
  fi
  local nfail total
  nfail=$(sed -E 's/.* ([0-9]+) tests failed out of ([0-9]+).*/\1/' <<<"$line")
  total=$(sed -E 's/.* ([0-9]+) tests failed out of ([0-9]+).*/\2/' <<<"$line")
  passed=$((passed + total - nfail))
  failed=$((failed + nfail))
  summary+=("$name: $((total - nfail)) of $total passed")
}

# Every option that differs between the trees is given each time, so that a
# tree configured earlier by hand (or by another script) is set back.
configure_build() {
  local dir=$1
  shift
  cmake -S "$root" -B "$dir" -G Ninja -DQV_WERROR=ON -DQV_TESTS=ON -DQV_BENCH=ON -DQV_FUZZ=OFF -DQV_SANITIZE= \
    -DQV_CONCURRENCY_ONLY=OFF "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
}

echo "== build (warnings as errors) and tests"
configure_build build
run_ctest "tests" build

if [ "${QV_QUICK:-0}" != 1 ]; then
  echo "== valgrind (the test programs of the libraries, one run each)"
  # The thread and fork stress programs are left out here: valgrind runs one
  # thread at a time, so their bounded waits measure its scheduler rather
  # than the library. They run in the plain, ASan+UBSan and TSan builds.
  ran=0
  skipped=0
  for exe in build/bin/qv_cu_*_test build/bin/qv_tr_*_test build/bin/qv_sec_*_test build/bin/mpm_*_test; do
    [ -x "$exe" ] || continue
    name=$(basename "$exe")
    if [[ "$name" =~ concurren|fork_child|_thread_test ]]; then
      skipped=$((skipped + 1))
      continue
    fi
    ran=$((ran + 1))
    if valgrind -q --leak-check=full --errors-for-leak-kinds=definite,possible --error-exitcode=9 \
         --suppressions=tests/qv_cu/valgrind.supp "$exe" >"build/$name.valgrind.log" 2>&1; then
      passed=$((passed + 1))
    else
      failed=$((failed + 1))
      summary+=("valgrind $name: FAILED (see build/$name.valgrind.log)")
      tail -n 30 "build/$name.valgrind.log"
    fi
  done
  if [ "$ran" -eq 0 ]; then
    failed=$((failed + 1))
    summary+=("valgrind: FAILED, no test program found")
  else
    summary+=("valgrind: $ran test programs run once each ($skipped thread and fork stress programs left out)")
  fi

  echo "== AddressSanitizer + UndefinedBehaviorSanitizer"
  configure_build build-asan -DQV_SANITIZE=address,undefined -DQV_BENCH=OFF
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
    run_ctest "tests under ASan+UBSan" build-asan -E '^install_layout$'

  echo "== ThreadSanitizer (concurrency tests)"
  configure_build build-tsan -DQV_SANITIZE=thread -DQV_BENCH=OFF -DQV_CONCURRENCY_ONLY=ON
  TSAN_OPTIONS=halt_on_error=1 run_ctest "concurrency tests under TSan" build-tsan -L concurrency

  echo "== fuzz targets (${fuzz_seconds}s each)"
  CC=clang CXX=clang++ configure_build build-fuzz -DQV_FUZZ=ON -DQV_TESTS=OFF -DQV_BENCH=OFF
  if ! grep -q . build-fuzz/fuzzers.txt; then
    failed=$((failed + 1))
    summary+=("fuzz: FAILED, no fuzz target built")
  fi
  # A run must reach at least its target's coverage floor (fuzz/coverage-floors.txt):
  # a target whose inputs stop at the first checks (a module that does not
  # load, seeds that no longer parse) fails rather than pass for hours.
  # Targets run $jobs at a time, one core each; each writes its verdict to
  # build-fuzz/<target>.verdict ("ok ..." or "FAILED ..."), read in order below.
  run_fuzzer() {
    local fuzzer=$1 exe corpus log floor work cov
    exe=$(find build-fuzz -type f -name "$fuzzer" -perm -u+x | head -n1)
    corpus="fuzz/corpus/$fuzzer"
    log="$root/build-fuzz/$fuzzer.log"
    floor=$(awk -v t="$fuzzer" '$1 == t { print $2 }' fuzz/coverage-floors.txt)
    work=$(mktemp -d)
    [ -d "$corpus" ] && cp -r "$corpus"/. "$work"/ 2>/dev/null || true
    if [ -n "$exe" ] && (cd build-fuzz && "$root/$exe" -max_total_time="$fuzz_seconds" -print_final_stats=1 "$work" >"$log" 2>&1); then
      cov=$(grep -oE 'cov: [0-9]+' "$log" | tail -n1 | cut -d' ' -f2 || true)
      if [ -z "$floor" ]; then
        echo "FAILED, no coverage floor in fuzz/coverage-floors.txt (reached ${cov:-?})"
      elif [ -z "$cov" ] || [ "$cov" -lt "$floor" ]; then
        echo "FAILED, coverage ${cov:-none} below its floor $floor (see $log)"
      else
        echo "ok: no crash in ${fuzz_seconds}s, coverage $cov (floor $floor)"
      fi
    else
      echo "FAILED (see build-fuzz/$fuzzer.log)"
    fi >"build-fuzz/$fuzzer.verdict"
    rm -rf "$work"
  }
  mapfile -t fuzzers < <(grep . build-fuzz/fuzzers.txt || true)
  for fuzzer in "${fuzzers[@]}"; do
    rm -f "build-fuzz/$fuzzer.verdict"
    while [ "$(jobs -rp | wc -l)" -ge "$jobs" ]; do wait -n || true; done
    run_fuzzer "$fuzzer" &
  done
  wait
  for fuzzer in "${fuzzers[@]}"; do
    verdict=$(cat "build-fuzz/$fuzzer.verdict" 2>/dev/null || echo "FAILED, no verdict")
    if [[ "$verdict" == ok:* ]]; then
      passed=$((passed + 1))
      summary+=("fuzz $fuzzer: ${verdict#ok: }")
    else
      failed=$((failed + 1))
      summary+=("fuzz $fuzzer: $verdict")
      tail -n 40 "build-fuzz/$fuzzer.log" 2>/dev/null || true
    fi
  done
fi

echo
echo "== summary"
printf '  %s\n' "${summary[@]}"
echo "${passed} passed, ${failed} failed"
[ "$failed" -eq 0 ]
