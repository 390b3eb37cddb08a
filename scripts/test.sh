#!/usr/bin/env bash
# Builds glimra and runs every test: the normal build, the AddressSanitizer + UBSan build, and
# the fuzz targets for a bounded time. Exits non-zero on any failure.
#   FUZZ_SECONDS  seconds per fuzz target (default 5)
#   JOBS          parallel build jobs (default: number of cores)
set -u
cd "$(dirname "$0")/.."
. scripts/deps.sh
glimra_install_deps || { echo "dependency installation failed"; exit 1; }

JOBS=${JOBS:-$(nproc)}
# The end-to-end tests mostly wait on their X servers: one more than the cores keeps them busy.
TEST_JOBS=$((JOBS + 1))
FUZZ_SECONDS=${FUZZ_SECONDS:-5}
status=0

# GUI tests need an X server: use Xvfb when there is no display.
run_with_display() {
  if [ -n "${DISPLAY:-}" ]; then "$@"; else xvfb-run -a -s "-screen 0 1280x1024x24" "$@"; fi
}

build() {  # dir, extra cmake args...; only the targets in $TARGETS when it is set
  local dir=$1; shift
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null || return 1
  cmake --build "$dir" -j "$JOBS" ${TARGETS:+--target $TARGETS} 2>&1 | grep -E "warning|error|Error"
  return "${PIPESTATUS[0]}"
}

# The tests want no debugger information (leaving it out takes about a third off compiling); the
# sanitizer and fuzz builds keep line tables for their reports.
echo "=== normal build and tests (${SECONDS}s in)"
if build build "-DCMAKE_C_FLAGS_RELWITHDEBINFO=-O2 -g0 -DNDEBUG" \
     "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O2 -g0 -DNDEBUG"; then
  (cd build && run_with_display ctest --output-on-failure -j "$TEST_JOBS") || status=1
else
  echo "build failed"; status=1
fi

echo "=== AddressSanitizer + UndefinedBehaviorSanitizer build and tests (${SECONDS}s in)"
# -O1 compiles faster than -O2; this run is about the checks, not speed.
if build build-asan -DGLIMRA_SANITIZE=ON -DGLIMRA_BENCH=OFF \
     "-DCMAKE_C_FLAGS_RELWITHDEBINFO=-O1 -g1 -DNDEBUG" "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1 -g1 -DNDEBUG"; then
  # One test per core: the sanitizers keep each end-to-end test's processor busy.
  (cd build-asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1 \
     run_with_display ctest --output-on-failure -j "$JOBS") || status=1
else
  echo "sanitizer build failed"; status=1
fi

echo "=== fuzz targets (${FUZZ_SECONDS}s each; ${SECONDS}s in)"
if ls fuzz/*_fuzz.cpp >/dev/null 2>&1; then
  # The fuzz targets alone: the program and the tools are built and tested above.
  if CC=clang-14 CXX=clang++-14 TARGETS=$(basename -s .cpp fuzz/*_fuzz.cpp | tr '\n' ' ') \
       build build-fuzz -DGLIMRA_FUZZ=ON \
       "-DCMAKE_C_FLAGS_RELWITHDEBINFO=-O2 -g1 -DNDEBUG" "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O2 -g1 -DNDEBUG"; then
    # One target per core at a time; each keeps its own log.
    fuzz_one() {
      local f=$1 name corpus
      name=$(basename "$f")
      corpus=$(mktemp -d)
      [ -d "fuzz/corpus/$name" ] && cp -r "fuzz/corpus/$name/." "$corpus/"
      if "$f" -max_total_time="$FUZZ_SECONDS" -rss_limit_mb=2048 -print_final_stats=0 \
           "$corpus" >"build-fuzz/$name.log" 2>&1; then
        echo "fuzz $name: ok"
      else
        echo "fuzz $name: FAILED"
      fi
      rm -rf "$corpus"
    }
    export -f fuzz_one; export FUZZ_SECONDS
    results=$(ls build-fuzz/fuzz/*_fuzz | xargs -P "$JOBS" -I{} bash -c 'fuzz_one {}')
    echo "$results"
    for name in $(sed -n 's/^fuzz \(.*\): FAILED$/\1/p' <<<"$results"); do
      echo "--- $name"; tail -40 "build-fuzz/$name.log"
    done
    fuzzed=$(grep -c ': ok$' <<<"$results"); fuzzfail=$(grep -c ': FAILED$' <<<"$results")
    [ "$fuzzfail" -eq 0 ] || status=1
    echo "fuzz: $fuzzed passed, $fuzzfail failed"
  else
    echo "fuzz build failed"; status=1
  fi
fi

echo "(${SECONDS}s)"
[ $status -eq 0 ] && echo "ALL TESTS PASSED" || echo "SOME TESTS FAILED"
exit $status
