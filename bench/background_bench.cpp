// What the blurred background adds to a load: a 24-megapixel portrait photo (stored 6000 x 4000
// with EXIF orientation 6, as a phone takes it) loaded for a 1920 x 1080 screen, decode and
// reduction included, with the background and without it, alternating in the same run. After
// the table the program prints the ratio of their processor times (a load is one thread, and the
// machine is shared: its wall time says more about the neighbours; the goal: at most 1.10) and
// the mean time of the background's own step.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "app/picture_loader.h"
#include "bench/bench_photo.h"
#include "framework/qmessage.h"

namespace {

const char* const kPhoto = "/tmp/glimra_bench_portrait24.jpg";
double g_backgroundMs = 0;
int g_loads = 0;

void BM_Load(benchmark::State& state, bool background) {
  ScreenFit fit;
  fit.windowWidth = 1920, fit.windowHeight = 1080, fit.desktopAspect = 16.0 / 9.0;
  fit.background = background;
  for (auto _ : state) {
    LoadedPicture p;
    LoadPicture(kPhoto, fit, false, &p);
    if (!p.ok || bool(p.background) != background) state.SkipWithError("not loaded as asked");
    if (background) g_backgroundMs += p.backgroundMs, ++g_loads;
    benchmark::DoNotOptimize(p.pixels.get());
  }
}

// Processor seconds per iteration of each run, by name.
class CpuReporter : public benchmark::ConsoleReporter {
 public:
  CpuReporter() : ConsoleReporter(OO_None) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& r : runs)
      if (r.run_type == Run::RT_Iteration && r.iterations > 0 && !r.error_occurred)
        seconds_[r.benchmark_name()] =
            r.GetAdjustedCPUTime() / benchmark::GetTimeUnitMultiplier(r.time_unit);
    ConsoleReporter::ReportRuns(runs);
  }
  double Seconds(const std::string& name) const {
    const auto it = seconds_.find(name);
    return it == seconds_.end() ? 0 : it->second;
  }

 private:
  std::map<std::string, double> seconds_;
};

void Quiet(const char*, const char*) {}

}  // namespace

int main(int argc, char** argv) {
  qSetDbgHandler(Quiet);
  if (!bench::WritePhoto(kPhoto, 6000, 4000, 6)) {
    fprintf(stderr, "can't write %s\n", kPhoto);
    return 1;
  }
  // Three rounds of each in turn, so that both see the same state of a shared machine.
  constexpr int kRounds = 3;
  const auto name = [](const char* kind, int round) {
    return std::string("Load/24MP/") + kind + "/" + std::to_string(round);
  };
  for (int round = 0; round < kRounds; ++round) {
    benchmark::RegisterBenchmark(name("black", round).c_str(), BM_Load, false)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(name("blur", round).c_str(), BM_Load, true)
        ->Unit(benchmark::kMillisecond);
  }
  benchmark::Initialize(&argc, argv);
  CpuReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  double black = 0, blur = 0;
  for (int round = 0; round < kRounds; ++round) {
    black += reporter.Seconds(name("black", round));
    blur += reporter.Seconds(name("blur", round));
  }
  if (black > 0 && blur > 0)
    printf("load with background / without = %.4g (goal <= 1.10); background step %.2f ms\n",
           blur / black, g_loads ? g_backgroundMs / g_loads : 0.0);
  remove(kPhoto);
  benchmark::Shutdown();
  return 0;
}
