// PictureIndex with a library of 100,000 pictures: the first start's Puts in batches of 1,000
// into a new file, and a restart's Load of them all.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "app/picture_index.h"

namespace {

constexpr int kPictures = 100000;
constexpr int kBatch = 1000;

struct Library {
  Library() {
    char tmpl[] = "/tmp/picture_index_bench_XXXXXX";
    dir = mkdtemp(tmpl) ? tmpl : "/tmp";
    for (int i = 0; i < kPictures; ++i) {
      // A folder of 300 pictures after another, as a walk of dated folders lists them.
      rows.push_back({"2024/" + std::to_string(i / 9000 + 1) + "/" + std::to_string(i / 300) +
                          "/IMG_" + std::to_string(i) + ".JPG",
                      3000000 + i, 1700000000000000000LL + i * 1000000LL, 1700000000 + i, 1,
                      6000, 4000});
    }
  }
  ~Library() { std::filesystem::remove_all(dir); }
  std::string dir;
  std::vector<IndexedPicture> rows;
};

Library& Lib() {
  static Library lib;
  return lib;
}

void Fill(PictureIndex& index, const std::vector<IndexedPicture>& rows) {
  for (size_t at = 0; at < rows.size(); at += kBatch) {
    std::vector<IndexedPicture> batch(rows.begin() + long(at),
                                      rows.begin() + long(std::min(rows.size(), at + kBatch)));
    if (!index.Put(batch)) std::abort();
  }
}

void BM_PutFirstStart(benchmark::State& state) {
  Library& lib = Lib();
  const std::string file = lib.dir + "/put.db";
  for (auto _ : state) {
    state.PauseTiming();
    std::filesystem::remove(file);
    PictureIndex index;
    state.ResumeTiming();
    if (!index.Open(file, "/photos")) std::abort();
    Fill(index, lib.rows);
    index.Close();
  }
  state.SetItemsProcessed(state.iterations() * kPictures);
}
BENCHMARK(BM_PutFirstStart)->Unit(benchmark::kMillisecond);

void BM_LoadRestart(benchmark::State& state) {
  Library& lib = Lib();
  const std::string file = lib.dir + "/load.db";
  {
    PictureIndex index;
    if (!index.Open(file, "/photos")) std::abort();
    Fill(index, lib.rows);
  }
  std::vector<IndexedPicture> rows;
  for (auto _ : state) {
    PictureIndex index;
    if (!index.Open(file, "/photos") || !index.Load(&rows) || rows.size() != kPictures)
      std::abort();
  }
  state.SetItemsProcessed(state.iterations() * kPictures);
}
BENCHMARK(BM_LoadRestart)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
