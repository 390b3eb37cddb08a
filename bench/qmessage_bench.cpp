// Cost of one logged line (format, open, append, close) and of a suppressed repeat.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstdio>
#include <string>

#include "framework/qmessage.h"

namespace {

std::string TempLog() {
  static std::string dir;
  if (dir.empty()) {
    char tmpl[] = "/tmp/glimra_logbench_XXXXXX";
    dir = mkdtemp(tmpl);
  }
  return dir + "/QLOG.txt";
}

void Quiet(const char*, const char*) {}

void BM_LoggedLine(benchmark::State& state) {
  qlogSetFileName(TempLog().c_str());
  long i = 0;
  for (auto _ : state) {
    // Each text differs, so every call opens, appends and closes the file. Standard error is
    // skipped (bit 256) to measure the file path only.
    qlogwrite(QLOG_WARN | QLOG_ONSTDERR, "WARN,bench.cpp:1,Bench::Line", "line %ld", i++);
  }
  state.SetItemsProcessed(state.iterations());
  remove(TempLog().c_str());
}
BENCHMARK(BM_LoggedLine);

void BM_SuppressedRepeat(benchmark::State& state) {
  qlogSetFileName(TempLog().c_str());
  qlogwrite(QLOG_WARN | QLOG_ONSTDERR, "WARN,bench.cpp:1,Bench::Repeat", "same text");
  for (auto _ : state) qlogwrite(QLOG_WARN | QLOG_ONSTDERR, "WARN,bench.cpp:1,Bench::Repeat", "same text");
  state.SetItemsProcessed(state.iterations());
  qlogwrite(QLOG_WARN | QLOG_ONSTDERR, nullptr, "end of repeats");
  remove(TempLog().c_str());
}
BENCHMARK(BM_SuppressedRepeat);

// The front call with a hook installed: formatting and locking only.
void BM_FrontCallToHook(benchmark::State& state) {
  QMessageHandler old = qSetWarnHandler(Quiet);
  for (auto _ : state) QWARN("Bench::Hook", "value '%d'", 42);
  qSetWarnHandler(old);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FrontCallToHook);

}  // namespace

BENCHMARK_MAIN();
