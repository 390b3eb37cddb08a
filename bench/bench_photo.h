// Photo-like JPEGs for the benchmarks, and the yardstick they are measured against: a plain
// libjpeg-turbo decode into an RGBA buffer.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

// After <cstdio>: the library's header needs FILE.
#include <jpeglib.h>

#include "framework/image/qexif.h"

namespace bench {

// Smooth colour gradients with pixel noise (so the entropy data looks like a photo's), written
// by libjpeg at quality 90; `orientation` 1-8 adds an EXIF block with it, 0 none. `tint` 1, 2
// or 3 lifts red, green or blue, so that pictures can be told apart on the screen.
inline bool WritePhoto(const std::string& path, int width, int height, int orientation,
                       int tint = 0) {
  FILE* f = fopen(path.c_str(), "wb");
  if (!f) return false;
  jpeg_compress_struct c;
  jpeg_error_mgr err;
  c.err = jpeg_std_error(&err);
  jpeg_create_compress(&c);
  jpeg_stdio_dest(&c, f);
  c.image_width = JDIMENSION(width), c.image_height = JDIMENSION(height);
  c.input_components = 3, c.in_color_space = JCS_RGB;
  jpeg_set_defaults(&c);
  jpeg_set_quality(&c, 90, TRUE);
  jpeg_start_compress(&c, TRUE);
  if (orientation) {
    uint8_t seg[QExif::ORIENTATION_SEGMENT_SIZE];
    QExif::WriteOrientationSegment(uint16_t(orientation), seg);
    jpeg_write_marker(&c, JPEG_APP0 + 1, seg + 4, sizeof(seg) - 4);
  }
  std::vector<uint8_t> row(size_t(width) * 3);
  uint32_t seed = 12345;
  auto clamp = [](int v) { return uint8_t(v < 0 ? 0 : v > 255 ? 255 : v); };
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      seed = seed * 1664525u + 1013904223u;
      const int noise = int(seed >> 27) - 16;  // -16 .. 15
      uint8_t* px = &row[size_t(x) * 3];
      px[0] = clamp(255 * x / width + noise + (tint == 1 ? 90 : 0));
      px[1] = clamp(255 * y / height + noise / 2 + (tint == 2 ? 90 : 0));
      px[2] = clamp(255 * (x + y) / (width + height) - noise + (tint == 3 ? 90 : 0));
    }
    JSAMPROW r = row.data();
    jpeg_write_scanlines(&c, &r, 1);
  }
  jpeg_finish_compress(&c);
  jpeg_destroy_compress(&c);
  return fclose(f) == 0;
}

// The yardstick: libjpeg-turbo straight into a fresh RGBA buffer, top row first, at `eighths`
// of the full size (the library's DCT scaling).
inline bool RawDecode(const char* path, int eighths = 8) {
  FILE* f = fopen(path, "rb");
  if (!f) return false;
  jpeg_decompress_struct d;
  jpeg_error_mgr err;
  d.err = jpeg_std_error(&err);
  jpeg_create_decompress(&d);
  jpeg_stdio_src(&d, f);
  jpeg_read_header(&d, TRUE);
  d.scale_num = unsigned(eighths);
  d.scale_denom = 8;
  d.out_color_space = JCS_EXT_RGBA;
  jpeg_start_decompress(&d);
  const size_t stride = size_t(d.output_width) * 4;
  std::vector<uint8_t> buffer(stride * d.output_height);
  JSAMPROW rows[16];
  while (d.output_scanline < d.output_height) {
    const unsigned first = d.output_scanline;
    const unsigned n = d.output_height - first < 16 ? d.output_height - first : 16;
    for (unsigned k = 0; k < n; ++k) rows[k] = buffer.data() + (first + k) * stride;
    jpeg_read_scanlines(&d, rows, n);
  }
  jpeg_finish_decompress(&d);
  benchmark::DoNotOptimize(buffer.data());
  jpeg_destroy_decompress(&d);
  fclose(f);
  return true;
}

// The console table, keeping each run's mean real time so that a benchmark can print ratios
// against its yardstick after it.
class MeanReporter : public benchmark::ConsoleReporter {
 public:
  MeanReporter() : ConsoleReporter(OO_None) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& r : runs)
      if (r.run_type == Run::RT_Iteration && r.iterations > 0 && !r.error_occurred)
        seconds_[r.benchmark_name()] =
            r.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(r.time_unit);
    ConsoleReporter::ReportRuns(runs);
  }
  // Seconds of the run named `name`; 0 when it did not run.
  double Seconds(const std::string& name) const {
    auto it = seconds_.find(name);
    return it == seconds_.end() ? 0 : it->second;
  }

 private:
  std::map<std::string, double> seconds_;
};

}  // namespace bench
