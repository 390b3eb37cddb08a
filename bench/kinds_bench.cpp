// What showing a 12-megapixel HEIC, AVIF, WebP and TIFF costs: the slideshow's whole load
// (read, decode at or reduced to a 1920x1080 screen, ready to upload) beside each library's own
// plain full decode of the same file into RGBA, in the same run. After the table the program
// prints each load's time divided by the plain decode's. Goals: at most 1.2 (HEIF, AVIF and TIFF
// are decoded whole by their libraries and reduced as their rows come out), and at most 0.7 for
// WebP, which the library decodes straight at the screen's size.
//
// The pictures are made once into /tmp (kept for the next run: the AV1 encoder alone takes a
// minute) from the benchmarks' photo-like JPEG, by the encoders the fixtures come from:
// heif-enc, cwebp and ImageMagick (LZW, one strip per few rows, as scanners write it).
#include <benchmark/benchmark.h>
#include <libheif/heif.h>
#include <tiffio.h>
#include <webp/decode.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "app/picture_loader.h"
#include "bench/bench_photo.h"
#include "framework/qmessage.h"

namespace {

const std::string kSource = "/tmp/glimra_bench_kinds_12MP.jpg";

struct Kind {
  const char* label;
  const char* file;
  const char* make;  // shell command from kSource to file
};
const Kind kKinds[] = {
    {"HEIC", "/tmp/glimra_bench_kinds_12MP.heic", "heif-enc -q 80 -o %s %s"},
    {"AVIF", "/tmp/glimra_bench_kinds_12MP.avif", "heif-enc -A -q 80 -p speed=8 -o %s %s"},
    {"WebP", "/tmp/glimra_bench_kinds_12MP.webp", "cwebp -quiet -q 80 -o %s %s"},
    {"TIFF", "/tmp/glimra_bench_kinds_12MP.tif", "convert %2$s -compress lzw %1$s"},
};

bool Exists(const char* path) {
  FILE* f = fopen(path, "rb");
  if (f) fclose(f);
  return f != nullptr;
}

bool Make(const Kind& k) {
  if (Exists(k.file)) return true;
  if (!Exists(kSource.c_str()) && !bench::WritePhoto(kSource, 4000, 3000, 0)) return false;
  char command[512];
  snprintf(command, sizeof(command), k.make, k.file, kSource.c_str());
  return system(command) == 0 && Exists(k.file);
}

std::vector<uint8_t> ReadFile(const char* path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// The libraries' plain decodes: the file read, the whole picture decoded into RGBA.
bool PlainHeif(const char* path) {
  const std::vector<uint8_t> bytes = ReadFile(path);
  heif_context* ctx = heif_context_alloc();
  heif_image_handle* handle = nullptr;
  heif_image* image = nullptr;
  bool ok = heif_context_read_from_memory_without_copy(ctx, bytes.data(), bytes.size(), nullptr)
                    .code == heif_error_Ok &&
            heif_context_get_primary_image_handle(ctx, &handle).code == heif_error_Ok &&
            heif_decode_image(handle, &image, heif_colorspace_RGB, heif_chroma_interleaved_RGBA,
                              nullptr)
                    .code == heif_error_Ok;
  if (image) benchmark::DoNotOptimize(heif_image_get_plane_readonly(image, heif_channel_interleaved, nullptr));
  heif_image_release(image);
  heif_image_handle_release(handle);
  heif_context_free(ctx);
  return ok;
}

bool PlainWebP(const char* path) {
  const std::vector<uint8_t> bytes = ReadFile(path);
  int w = 0, h = 0;
  uint8_t* rgba = WebPDecodeRGBA(bytes.data(), bytes.size(), &w, &h);
  benchmark::DoNotOptimize(rgba);
  WebPFree(rgba);
  return rgba != nullptr;
}

bool PlainTiff(const char* path) {
  TIFF* tif = TIFFOpen(path, "r");
  if (!tif) return false;
  uint32_t w = 0, h = 0;
  TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &w);
  TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &h);
  std::vector<uint32_t> raster(size_t(w) * h);
  const bool ok = TIFFReadRGBAImage(tif, w, h, raster.data(), 0) != 0;
  benchmark::DoNotOptimize(raster.data());
  TIFFClose(tif);
  return ok;
}

void BM_Plain(benchmark::State& state, const Kind* k) {
  const std::string label = k->label;
  for (auto _ : state) {
    const bool ok = label == "WebP" ? PlainWebP(k->file)
                    : label == "TIFF" ? PlainTiff(k->file)
                                      : PlainHeif(k->file);
    if (!ok) state.SkipWithError("plain decode failed");
  }
}

void BM_Load(benchmark::State& state, const Kind* k) {
  ScreenFit fit;
  fit.windowWidth = 1920, fit.windowHeight = 1080, fit.maxTexture = 16384;
  for (auto _ : state) {
    LoadedPicture picture;
    LoadPicture(k->file, fit, false, &picture);
    if (!picture.ok) state.SkipWithError("load failed");
    benchmark::DoNotOptimize(picture.pixels.get());
  }
}

void Quiet(const char*, const char*) {}

}  // namespace

int main(int argc, char** argv) {
  qSetDbgHandler(Quiet);
  for (const Kind& k : kKinds) {
    if (!Make(k)) {
      fprintf(stderr, "could not make %s\n", k.file);
      continue;
    }
    // Alternate the yardstick and the load so that both see the same machine state.
    benchmark::RegisterBenchmark((std::string("Plain/") + k.label).c_str(), BM_Plain, &k)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark((std::string("Load/") + k.label).c_str(), BM_Load, &k)
        ->Unit(benchmark::kMillisecond);
  }
  benchmark::Initialize(&argc, argv);
  bench::MeanReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  for (const Kind& k : kKinds) {
    const double plain = reporter.Seconds(std::string("Plain/") + k.label);
    const double load = reporter.Seconds(std::string("Load/") + k.label);
    if (plain > 0 && load > 0) printf("%s load / plain decode = %.3g\n", k.label, load / plain);
  }
  benchmark::Shutdown();
  return 0;
}
