// What indexing a photo library costs per file: the facts (size, orientation, date taken) of
// 1,000 small camera-like JPEGs beside the least any reader of their heads can do, a plain
// open, read of 64 KiB and close of the same files, in the same run. After the table the program
// prints facts / plain; the goal is close to 1 (the parse is small beside the system calls).
// Also the EXIF date alone, by QExif's full parse and by its allocation-free ReadTaken.
//
// The files are written once per run into a temporary folder: a 320x240 photo-like JPEG with an
// orientation, dated and labelled by exiftool as a camera would (undated when exiftool is
// missing), copied 1,000 times.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "bench/bench_photo.h"
#include "framework/image/qexif.h"
#include "framework/image/qpicturefacts.h"

namespace {

constexpr int kFiles = 1000;

struct Library {
  Library() {
    char tmpl[] = "/tmp/glimra_bench_facts_XXXXXX";
    dir = mkdtemp(tmpl) ? tmpl : "";
    if (dir.empty()) return;
    const std::string first = dir + "/IMG_0000.JPG";
    if (!bench::WritePhoto(first, 320, 240, 6)) return;
    dated = system(("exiftool -q -overwrite_original -DateTimeOriginal='2021:06:15 10:20:30' "
                    "-CreateDate='2021:06:15 10:20:30' -Make=Camera -Model='Model 1' "
                    "-ExposureTime=0.01 -FNumber=2.8 -ISO=100 '" + first + "' >/dev/null 2>&1")
                       .c_str()) == 0;
    for (int k = 0; k < kFiles; ++k) {
      char name[32];
      snprintf(name, sizeof(name), "/IMG_%04d.JPG", k);
      paths.push_back(dir + name);
      if (k > 0) std::filesystem::copy_file(first, paths.back());
    }
    FILE* f = fopen(first.c_str(), "rb");
    if (f) {
      bytes.resize(65536);
      bytes.resize(fread(bytes.data(), 1, bytes.size(), f));
      fclose(f);
    }
  }
  ~Library() {
    if (!dir.empty()) std::filesystem::remove_all(dir);
  }
  std::string dir;
  std::vector<std::string> paths;
  std::vector<uint8_t> bytes;  // the first file
  bool dated = false;
};

Library& Files() {
  static Library library;
  return library;
}

void BM_Plain(benchmark::State& state) {
  static uint8_t buffer[65536];
  for (auto _ : state)
    for (const std::string& p : Files().paths) {
      const int fd = open(p.c_str(), O_RDONLY | O_CLOEXEC);
      if (fd < 0) return state.SkipWithError("open failed");
      benchmark::DoNotOptimize(pread(fd, buffer, sizeof(buffer), 0));
      close(fd);
    }
  state.SetItemsProcessed(state.iterations() * kFiles);
}
BENCHMARK(BM_Plain)->Unit(benchmark::kMillisecond);

void BM_Facts(benchmark::State& state) {
  const int64_t taken = Files().dated ? 1623752430 : 0;
  for (auto _ : state)
    for (const std::string& p : Files().paths) {
      QPictureFacts f;
      if (!QReadPictureFacts(p.c_str(), &f) || f.width != 320 || f.orientation != 6 ||
          f.taken != taken)
        return state.SkipWithError("wrong facts");
    }
  state.SetItemsProcessed(state.iterations() * kFiles);
}
BENCHMARK(BM_Facts)->Unit(benchmark::kMillisecond);

// The EXIF segment's TIFF structure in the first file.
const uint8_t* Tiff(size_t* length) {
  const std::vector<uint8_t>& b = Files().bytes;
  static const uint8_t kExif[] = {'E', 'x', 'i', 'f', 0, 0};
  for (size_t at = 0; at + 8 < b.size(); ++at)
    if (memcmp(&b[at], kExif, sizeof(kExif)) == 0) {
      *length = b.size() - at - 6;
      return &b[at + 6];
    }
  return nullptr;
}

void BM_ExifFullParse(benchmark::State& state) {
  size_t length = 0;
  const uint8_t* tiff = Tiff(&length);
  if (!tiff) return state.SkipWithError("no EXIF");
  for (auto _ : state) {
    QExif x;
    benchmark::DoNotOptimize(x.ReadExifSegment(tiff - 6, length + 6));
    benchmark::DoNotOptimize(x.dateTimeOriginal.cstr());
  }
}
BENCHMARK(BM_ExifFullParse);

void BM_ExifTaken(benchmark::State& state) {
  size_t length = 0;
  const uint8_t* tiff = Tiff(&length);
  if (!tiff) return state.SkipWithError("no EXIF");
  for (auto _ : state) {
    QExif::Taken taken;
    benchmark::DoNotOptimize(QExif::ReadTaken(tiff, length, &taken));
    benchmark::DoNotOptimize(taken.dateTimeOriginal);
  }
}
BENCHMARK(BM_ExifTaken);

}  // namespace

int main(int argc, char** argv) {
  if (Files().paths.size() != size_t(kFiles)) {
    fprintf(stderr, "could not write the pictures\n");
    return 1;
  }
  benchmark::Initialize(&argc, argv);
  bench::MeanReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  const double plain = reporter.Seconds("BM_Plain"), facts = reporter.Seconds("BM_Facts");
  if (plain > 0 && facts > 0)
    printf("facts / plain open+read+close = %.3g (%s)\n", facts / plain,
           Files().dated ? "dated" : "undated: no exiftool");
  benchmark::Shutdown();
  return 0;
}
