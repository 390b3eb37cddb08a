// QIni on a generated 10,000-key file: reading it, and lookups by GetString and GetInt.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "framework/qini.h"
#include "framework/qmessage.h"

namespace {

constexpr int kGroups = 100;
constexpr int kKeysPerGroup = 100;

// 100 groups of 100 keys each, written once per process into a temporary directory.
struct BenchFile {
  BenchFile() {
    char tmpl[] = "/tmp/qini_bench_XXXXXX";
    dir = mkdtemp(tmpl) ? tmpl : "/tmp";
    name = dir + "/bench.ini";
    std::string text;
    for (int g = 0; g < kGroups; ++g) {
      text += "group" + std::to_string(g) + "\n{\n";
      for (int k = 0; k < kKeysPerGroup; ++k) {
        std::string key = "key" + std::to_string(k);
        text += "  " + key + "=" + std::to_string(g * 1000 + k) + "\n";
        keys.push_back("group" + std::to_string(g) + "." + key);
      }
      text += "}\n";
    }
    FILE* fp = fopen(name.c_str(), "wb");
    if (fp) {
      fwrite(text.data(), 1, text.size(), fp);
      fclose(fp);
    }
    bytes = text.size();
  }
  ~BenchFile() { std::filesystem::remove_all(dir); }
  std::string dir, name;
  std::vector<std::string> keys;
  size_t bytes = 0;
};

BenchFile& File() {
  static BenchFile f;
  return f;
}

void BM_QIniRead(benchmark::State& state) {
  BenchFile& f = File();
  for (auto _ : state) {
    QIni ini(f.name.c_str());
    benchmark::DoNotOptimize(ini.GetRoot());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * f.bytes));
}
BENCHMARK(BM_QIniRead)->Unit(benchmark::kMillisecond);

void BM_QIniGetString(benchmark::State& state) {
  BenchFile& f = File();
  QIni ini(f.name.c_str());
  char buf[QIni::MAX_TEXT];
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(ini.GetString(f.keys[i].c_str(), buf));
    i = (i + 7919) % f.keys.size();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_QIniGetString);

void BM_QIniGetInt(benchmark::State& state) {
  BenchFile& f = File();
  QIni ini(f.name.c_str());
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(ini.GetInt(f.keys[i].c_str(), -1));
    i = (i + 7919) % f.keys.size();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_QIniGetInt);

}  // namespace

BENCHMARK_MAIN();
