// The running program as a person meets it, read from the screen: start -> first picture,
// Right -> next picture (prefetched), "load" of a picture outside the catalogue -> picture, its
// peak memory and its CPU while it shows a picture and nothing happens.
//
// Three 24-megapixel photos (a, b, c, each lifted towards another colour so that the screen
// tells them apart) lie in a folder that the program shows full screen at 1920 x 1080; a fourth
// (d) lies elsewhere and comes by a "load" datagram. The screen's centre is read back with
// XGetImage every millisecond or so, and a picture counts as shown when that patch has its
// colour. Beside them, the yardsticks of the same run: a plain libjpeg-turbo decode of the same
// file at full size and at 3/8 (the least a decode to screen size has to do); the ratios are
// printed after the table.
//
// Needs a display of 1920 x 1080: run it under xvfb-run -a -s "-screen 0 1920x1080x24".
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/XTest.h>
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <thread>

#include "bench/bench_photo.h"
#include "bench/bench_program.h"
#include "framework/qini.h"

namespace fs = std::filesystem;

namespace {

using bench::PeakMb;
using bench::Seconds;
using bench::SendUdp;
using bench::StartProgram;
using bench::StopProgram;

using Clock = std::chrono::steady_clock;
constexpr int kW = 1920, kH = 1080;
constexpr int kPort = 5181;

std::string g_dir;      // the runnable folder
std::string g_photos;   // a.jpg, b.jpg, c.jpg
std::string g_outside;  // d.jpg
Display* g_display = nullptr;
std::map<std::string, double> g_mean;  // seconds
double g_peakMb = -1, g_idlePercent = -1;

// Which colour the centre of the screen leans to: 1 red, 2 green, 3 blue, 0 none (black, or
// nothing clear).
int CentreTint() {
  const unsigned long c =
      bench::PatchColour(g_display, DefaultRootWindow(g_display), kW / 2, kH / 2);
  const long r = (c >> 16) & 255, g = (c >> 8) & 255, b = c & 255;
  if (r > g + 40 && r > b + 40) return 1;
  if (g > r + 40 && g > b + 40) return 2;
  if (b > r + 40 && b > g + 40) return 3;
  return 0;
}

// Polls the screen until it shows `tint`; the moment it did, or a time-out.
bool WaitFor(int tint, Clock::time_point* when) {
  const auto end = Clock::now() + std::chrono::seconds(30);
  while (Clock::now() < end) {
    if (CentreTint() == tint) {
      *when = Clock::now();
      return true;
    }
    std::this_thread::sleep_for(std::chrono::microseconds(500));
  }
  return false;
}

long CpuTicks(pid_t pid) {
  std::ifstream f("/proc/" + std::to_string(pid) + "/stat");
  std::string s((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  const size_t close = s.rfind(')');
  if (close == std::string::npos) return -1;
  std::istringstream in(s.substr(close + 2));
  std::string field;
  long ticks = 0;
  for (int i = 3; i <= 15 && in >> field; ++i)
    if (i == 14 || i == 15) ticks += atol(field.c_str());
  return ticks;
}

void PressRight() {
  const KeyCode key = XKeysymToKeycode(g_display, XStringToKeysym("Right"));
  XTestFakeKeyEvent(g_display, key, True, 0);
  XTestFakeKeyEvent(g_display, key, False, 0);
  XFlush(g_display);
}

// One whole visit per iteration: start on a, Right to b, "load" d; then memory and idle CPU.
void BM_Program(benchmark::State& state) {
  double start = 0, key = 0, load = 0;
  for (auto _ : state) {
    Clock::time_point t0 = Clock::now(), shown;
    const pid_t pid = StartProgram(g_dir, "a.jpg");
    if (!WaitFor(1, &shown)) {
      StopProgram(pid);
      state.SkipWithError("picture a never showed");
      return;
    }
    start += Seconds(t0, shown);
    // The neighbours are decoded in the background meanwhile.
    std::this_thread::sleep_for(std::chrono::seconds(2));
    t0 = Clock::now();
    PressRight();
    if (!WaitFor(2, &shown)) state.SkipWithError("Right did not show b");
    key += Seconds(t0, shown);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    t0 = Clock::now();
    SendUdp(kPort, "load " + g_outside);
    if (!WaitFor(3, &shown)) state.SkipWithError("load did not show d");
    load += Seconds(t0, shown);
    state.SetIterationTime(Seconds(t0, shown));
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const long c0 = CpuTicks(pid);
    const auto w0 = Clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(5));
    const long c1 = CpuTicks(pid);
    g_idlePercent =
        100.0 * double(c1 - c0) / double(sysconf(_SC_CLK_TCK)) / Seconds(w0, Clock::now());
    g_peakMb = PeakMb(pid);
    StopProgram(pid);
  }
  const double n = double(state.iterations());
  if (n > 0) {
    g_mean["start"] = start / n, g_mean["key"] = key / n, g_mean["load"] = load / n;
    state.counters["start_ms"] = start / n * 1000;
    state.counters["key_ms"] = key / n * 1000;
    state.counters["load_ms"] = load / n * 1000;
    state.counters["peak_MB"] = g_peakMb;
    state.counters["idle_cpu_pct"] = g_idlePercent;
  }
}

void BM_RawDecode(benchmark::State& state) {
  const int eighths = int(state.range(0));
  double total = 0;
  for (auto _ : state) {
    const auto t0 = Clock::now();
    if (!bench::RawDecode(g_outside.c_str(), eighths)) state.SkipWithError("no photo");
    total += Seconds(t0, Clock::now());
  }
  if (state.iterations() > 0)
    g_mean["raw" + std::to_string(eighths)] = total / double(state.iterations());
}

bool Prepare() {
  const std::string base = "/tmp/glimra-program-bench-" + std::to_string(getpid());
  g_dir = base + "/run";
  g_photos = base + "/pictures";
  std::error_code ec;
  fs::create_directories(g_photos, ec);
  if (ec || !bench::CopyRunnable(g_dir)) return false;
  g_outside = base + "/d.jpg";
  if (!bench::WritePhoto(g_photos + "/a.jpg", 6000, 4000, 0, 1) ||
      !bench::WritePhoto(g_photos + "/b.jpg", 6000, 4000, 0, 2) ||
      !bench::WritePhoto(g_photos + "/c.jpg", 6000, 4000, 0, 2) ||
      !bench::WritePhoto(g_outside, 6000, 4000, 0, 3))
    return false;
  QIni ini((g_dir + "/glimra.ini").c_str());
  ini.SetString("app.startup_directory", g_photos.c_str());
  ini.SetInt("network.port", kPort);
  ini.SetInt("resolution.width", kW);
  ini.SetInt("resolution.height", kH);
  ini.SetInt("resolution.fullscreen", 1);
  ini.SetBool("effects.show_info", false);
  return ini.Write(nullptr, false);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  g_display = XOpenDisplay(nullptr);
  if (!g_display || DisplayWidth(g_display, 0) != kW || DisplayHeight(g_display, 0) != kH) {
    fprintf(stderr,
            "program_bench needs a 1920x1080 display: run it under xvfb-run -a -s \"-screen 0 "
            "1920x1080x24\"\n");
    return 1;
  }
  if (!Prepare()) {
    fprintf(stderr, "program_bench: can't prepare the pictures and the program's folder\n");
    return 1;
  }
  benchmark::RegisterBenchmark("Program/24MP", BM_Program)
      ->Unit(benchmark::kMillisecond)
      ->UseManualTime()
      ->Iterations(5);
  benchmark::RegisterBenchmark("RawDecode/24MP", BM_RawDecode)
      ->Arg(8)
      ->Arg(3)
      ->Unit(benchmark::kMillisecond)
      ->Iterations(5);
  benchmark::RunSpecifiedBenchmarks();
  const double raw8 = g_mean["raw8"], raw3 = g_mean["raw3"];
  if (raw8 > 0 && raw3 > 0 && g_mean.count("start")) {
    printf("start -> picture    %6.0f ms = %.2f x full decode, %.2f x 3/8 decode\n",
           g_mean["start"] * 1000, g_mean["start"] / raw8, g_mean["start"] / raw3);
    printf("Right -> next       %6.0f ms = %.2f x full decode (prefetched)\n", g_mean["key"] * 1000,
           g_mean["key"] / raw8);
    printf("load -> picture     %6.0f ms = %.2f x full decode, %.2f x 3/8 decode\n",
           g_mean["load"] * 1000, g_mean["load"] / raw8, g_mean["load"] / raw3);
    printf("peak memory         %6.0f MB\nidle CPU            %6.2f %% of one core\n", g_peakMb,
           g_idlePercent);
  }
  XCloseDisplay(g_display);
  std::error_code ec;
  fs::remove_all(fs::path(g_dir).parent_path(), ec);
  benchmark::Shutdown();
  return 0;
}
