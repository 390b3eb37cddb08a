// What the colour conversion adds to a load: a 1920 x 1080 picture with a Display P3 profile
// taken to sRGB, with the transform kept from the previous picture (a phone's every picture) and
// made afresh (each picture with another profile), beside a copy of the same pixels as the
// yardstick of touching them at all. The profiles are made here with lcms2.
#include <benchmark/benchmark.h>
#include <lcms2.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "framework/image/qimage.h"
#include "framework/qmessage.h"

namespace {

constexpr int kW = 1920, kH = 1080;

// An RGB profile with the P3 primaries, sRGB's curve and white `wx`, `wy`.
std::vector<uint8_t> P3Profile(double wx, double wy) {
  const double curve[5] = {2.4, 1 / 1.055, 0.055 / 1.055, 1 / 12.92, 0.04045};
  cmsToneCurve* tone = cmsBuildParametricToneCurve(nullptr, 4, curve);
  cmsToneCurve* tones[3] = {tone, tone, tone};
  const cmsCIExyY white = {wx, wy, 1.0};
  const cmsCIExyYTRIPLE primaries = {{0.680, 0.320, 1.0}, {0.265, 0.690, 1.0}, {0.150, 0.060, 1.0}};
  cmsHPROFILE p = cmsCreateRGBProfile(&white, &primaries, tones);
  cmsFreeToneCurve(tone);
  cmsUInt32Number n = 0;
  std::vector<uint8_t> icc;
  if (p && cmsSaveProfileToMem(p, nullptr, &n)) {
    icc.resize(n);
    cmsSaveProfileToMem(p, icc.data(), &n);
  }
  if (p) cmsCloseProfile(p);
  return icc;
}

// A picture of every hue and lightness.
void Paint(QImage* img) {
  img->Alloc(32, kW, kH, 0);
  uint8_t* p = img->GetBuffer();
  for (int y = 0; y < kH; ++y)
    for (int x = 0; x < kW; ++x, p += 4) {
      p[0] = uint8_t(x * 255 / kW), p[1] = uint8_t(y * 255 / kH);
      p[2] = uint8_t((x + y) & 255), p[3] = 255;
    }
}

void BM_Copy(benchmark::State& state) {
  QImage img, to;
  Paint(&img);
  Paint(&to);
  for (auto _ : state) {
    memcpy(to.GetBuffer(), img.GetBuffer(), size_t(img.GetSize()));
    benchmark::DoNotOptimize(to.GetBuffer());
  }
}

// `fresh`: two profiles in turn, so that each conversion makes its transform.
void BM_ToSRGB(benchmark::State& state, bool fresh) {
  const std::vector<uint8_t> profiles[2] = {P3Profile(0.3127, 0.3290), P3Profile(0.3128, 0.3290)};
  QImage img;
  Paint(&img);
  int i = 0;
  for (auto _ : state) {
    state.PauseTiming();
    Paint(&img);
    const std::vector<uint8_t>& icc = profiles[fresh ? (i++ & 1) : 0];
    img.SetColourProfile(icc.data(), icc.size(), "bench");
    state.ResumeTiming();
    if (!img.ConvertToSRGB()) state.SkipWithError("not converted");
  }
}

void Quiet(const char*, const char*) {}

}  // namespace

int main(int argc, char** argv) {
  qSetDbgHandler(Quiet);
  benchmark::RegisterBenchmark("Copy/1080p", BM_Copy)->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("ToSRGB/1080p/kept", BM_ToSRGB, false)
      ->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("ToSRGB/1080p/made", BM_ToSRGB, true)
      ->Unit(benchmark::kMillisecond);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
