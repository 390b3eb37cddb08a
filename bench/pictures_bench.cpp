// What showing one photo costs: reading a 12- and a 24-megapixel JPEG with QImage, the grey
// conversion, the quarter-turn copy into a new bitmap and the EXIF parse, each beside a plain
// libjpeg-turbo decode of the same file into an RGBA buffer in the same run. After the table the
// program prints each step's time divided by the plain decode's; reading should stay within
// 1.10 of it.
//
// The pictures are made here, into /tmp: smooth colour gradients with pixel noise, so that the
// entropy data looks like a photo's, written by libjpeg at quality 90 with an EXIF block that
// says "rotate 90".
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "bench/bench_photo.h"
#include "framework/qbitmap.h"
#include "framework/image/qexif.h"
#include "framework/image/qimage.h"
#include "framework/qmessage.h"

namespace {

struct Photo {
  int width;
  int height;
  const char* label;
};
const Photo kPhotos[] = {{4000, 3000, "12MP"}, {6000, 4000, "24MP"}};

std::string PhotoPath(const Photo& p) { return std::string("/tmp/glimra_bench_") + p.label + ".jpg"; }

void MakePhoto(const Photo& p) { bench::WritePhoto(PhotoPath(p), p.width, p.height, 6); }

void BM_RawDecode(benchmark::State& state, const Photo* p) {
  for (auto _ : state) {
    if (!bench::RawDecode(PhotoPath(*p).c_str())) state.SkipWithError("no photo");
  }
  state.SetItemsProcessed(state.iterations() * p->width * p->height);
}

void BM_QImageRead(benchmark::State& state, const Photo* p) {
  for (auto _ : state) {
    QImage img;
    if (!img.Read(PhotoPath(*p).c_str())) state.SkipWithError("read failed");
    benchmark::DoNotOptimize(img.GetBuffer());
  }
  state.SetItemsProcessed(state.iterations() * p->width * p->height);
}

void BM_MakeGray(benchmark::State& state, const Photo* p) {
  QImage img;
  if (!img.Read(PhotoPath(*p).c_str())) state.SkipWithError("read failed");
  for (auto _ : state) img.MakeGray();
  state.SetItemsProcessed(state.iterations() * p->width * p->height);
}

void BM_Rotate90(benchmark::State& state, const Photo* p) {
  QImage img;
  if (!img.Read(PhotoPath(*p).c_str())) state.SkipWithError("read failed");
  for (auto _ : state) {
    QBitMap turned(32, img.GetHeight(), img.GetWidth());
    img.Rotate(90, nullptr, &turned, nullptr);
    benchmark::DoNotOptimize(turned.GetBuffer());
  }
  state.SetItemsProcessed(state.iterations() * p->width * p->height);
}

void BM_ExifParse(benchmark::State& state, const Photo* p) {
  std::ifstream in(PhotoPath(*p), std::ios::binary);
  const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  QExif exif;
  for (auto _ : state) {
    if (exif.ReadFromJpeg(bytes.data(), bytes.size()) != QExif::OK || exif.orientation != 6)
      state.SkipWithError("EXIF not read");
  }
}

void Quiet(const char*, const char*) {}

}  // namespace

int main(int argc, char** argv) {
  qSetDbgHandler(Quiet);
  for (const Photo& p : kPhotos) {
    MakePhoto(p);
    // Alternate the yardstick and the reader so that both see the same machine state.
    benchmark::RegisterBenchmark((std::string("RawDecode/") + p.label).c_str(), BM_RawDecode, &p)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark((std::string("QImageRead/") + p.label).c_str(), BM_QImageRead, &p)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark((std::string("MakeGray/") + p.label).c_str(), BM_MakeGray, &p)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark((std::string("Rotate90/") + p.label).c_str(), BM_Rotate90, &p)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark((std::string("ExifParse/") + p.label).c_str(), BM_ExifParse, &p)
        ->Unit(benchmark::kMicrosecond);
  }
  benchmark::Initialize(&argc, argv);
  bench::MeanReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  for (const Photo& p : kPhotos) {
    const double raw = reporter.Seconds(std::string("RawDecode/") + p.label);
    for (const char* step : {"QImageRead", "MakeGray", "Rotate90", "ExifParse"}) {
      const double t = reporter.Seconds(std::string(step) + "/" + p.label);
      if (raw > 0 && t > 0) printf("%s %s / raw decode = %.4g\n", p.label, step, t / raw);
    }
  }
  for (const Photo& p : kPhotos) remove(PhotoPath(p).c_str());
  benchmark::Shutdown();
  return 0;
}
