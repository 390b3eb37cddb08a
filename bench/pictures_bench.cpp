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
#include <map>
#include <string>
#include <vector>

#include <jpeglib.h>

#include "framework/qbitmap.h"
#include "framework/qexif.h"
#include "framework/qimage.h"
#include "framework/qmessage.h"

namespace {

struct Photo {
  int width;
  int height;
  const char* label;
};
const Photo kPhotos[] = {{4000, 3000, "12MP"}, {6000, 4000, "24MP"}};

std::string PhotoPath(const Photo& p) { return std::string("/tmp/glimra_bench_") + p.label + ".jpg"; }

// APP1 payload: "Exif", a little-endian TIFF header and one IFD with orientation 6.
std::vector<uint8_t> ExifBlock() {
  std::vector<uint8_t> b = {'E', 'x', 'i', 'f', 0, 0, 'I', 'I', 42, 0, 8, 0, 0, 0};
  const uint8_t ifd[] = {1, 0, 0x12, 0x01, 3, 0, 1, 0, 0, 0, 6, 0, 0, 0, 0, 0, 0, 0};
  b.insert(b.end(), std::begin(ifd), std::end(ifd));
  return b;
}

void MakePhoto(const Photo& p) {
  FILE* f = fopen(PhotoPath(p).c_str(), "wb");
  if (!f) return;
  jpeg_compress_struct c;
  jpeg_error_mgr err;
  c.err = jpeg_std_error(&err);
  jpeg_create_compress(&c);
  jpeg_stdio_dest(&c, f);
  c.image_width = JDIMENSION(p.width), c.image_height = JDIMENSION(p.height);
  c.input_components = 3, c.in_color_space = JCS_RGB;
  jpeg_set_defaults(&c);
  jpeg_set_quality(&c, 90, TRUE);
  jpeg_start_compress(&c, TRUE);
  const std::vector<uint8_t> exif = ExifBlock();
  jpeg_write_marker(&c, JPEG_APP0 + 1, exif.data(), unsigned(exif.size()));
  std::vector<uint8_t> row(size_t(p.width) * 3);
  uint32_t seed = 12345;
  for (int y = 0; y < p.height; ++y) {
    for (int x = 0; x < p.width; ++x) {
      seed = seed * 1664525u + 1013904223u;
      const int noise = int(seed >> 27) - 16;  // -16 .. 15
      const int r = 255 * x / p.width, g = 255 * y / p.height, b = 255 * (x + y) / (p.width + p.height);
      auto clamp = [](int v) { return uint8_t(v < 0 ? 0 : v > 255 ? 255 : v); };
      row[size_t(x) * 3] = clamp(r + noise), row[size_t(x) * 3 + 1] = clamp(g + noise / 2),
                      row[size_t(x) * 3 + 2] = clamp(b - noise);
    }
    JSAMPROW r = row.data();
    jpeg_write_scanlines(&c, &r, 1);
  }
  jpeg_finish_compress(&c);
  jpeg_destroy_compress(&c);
  fclose(f);
}

// The yardstick: libjpeg-turbo straight into a fresh RGBA buffer, top row first.
bool RawDecode(const char* path, int* width) {
  FILE* f = fopen(path, "rb");
  if (!f) return false;
  jpeg_decompress_struct d;
  jpeg_error_mgr err;
  d.err = jpeg_std_error(&err);
  jpeg_create_decompress(&d);
  jpeg_stdio_src(&d, f);
  jpeg_read_header(&d, TRUE);
  d.out_color_space = JCS_EXT_RGBA;
  jpeg_start_decompress(&d);
  const size_t stride = size_t(d.output_width) * 4;
  uint8_t* buffer = static_cast<uint8_t*>(malloc(stride * d.output_height));
  JSAMPROW rows[16];
  while (d.output_scanline < d.output_height) {
    const unsigned first = d.output_scanline;
    unsigned n = d.output_height - first;
    if (n > 16) n = 16;
    for (unsigned k = 0; k < n; ++k) rows[k] = buffer + (first + k) * stride;
    jpeg_read_scanlines(&d, rows, n);
  }
  jpeg_finish_decompress(&d);
  *width = int(d.output_width);
  benchmark::DoNotOptimize(buffer[0]);
  free(buffer);
  jpeg_destroy_decompress(&d);
  fclose(f);
  return true;
}

void BM_RawDecode(benchmark::State& state, const Photo* p) {
  int width = 0;
  for (auto _ : state) {
    if (!RawDecode(PhotoPath(*p).c_str(), &width)) state.SkipWithError("no photo");
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

// Keeps the mean time of each run so that the ratios can be printed after the table.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  RatioReporter() : ConsoleReporter(OO_None) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& r : runs)
      if (r.run_type == Run::RT_Iteration && r.iterations > 0 && !r.error_occurred)
        seconds_[r.benchmark_name()] = r.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(r.time_unit);
    ConsoleReporter::ReportRuns(runs);
  }
  void PrintRatios() const {
    for (const Photo& p : kPhotos) {
      const std::string raw = std::string("RawDecode/") + p.label;
      auto base = seconds_.find(raw);
      if (base == seconds_.end()) continue;
      for (const char* step : {"QImageRead", "MakeGray", "Rotate90", "ExifParse"}) {
        auto it = seconds_.find(std::string(step) + "/" + p.label);
        if (it != seconds_.end())
          printf("%s %s / raw decode = %.4g\n", p.label, step, it->second / base->second);
      }
    }
  }

 private:
  std::map<std::string, double> seconds_;
};

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
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintRatios();
  for (const Photo& p : kPhotos) remove(PhotoPath(p).c_str());
  benchmark::Shutdown();
  return 0;
}
