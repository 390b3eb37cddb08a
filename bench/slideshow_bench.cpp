// How quickly the slideshow puts a photo on the screen, and what it costs while it waits.
//
// Load to frame: the controller with a real window and its command socket, as the program runs
// them. Each iteration sends "load <photo>" to the socket, takes it with NetCheck (which loads
// the picture), paints, swaps and waits for the GL pipeline to finish: the time from the
// datagram to the frame on the screen. The counters split a load into the controller's phases
// (read, decode at screen size, reduce, grey, EXIF, upload) plus "frame" (paint, swap, finish).
// Black-and-white is on, so that the grey phase is measured too. Photos of 12 and 24
// megapixels, stored upright without EXIF data and stored turned with orientation 6, are made
// into /tmp: smooth gradients with pixel noise, quality 90. Beside each, a plain libjpeg-turbo
// decode of the same file; the ratio of the load to it is printed after the table.
//
// Idle: the real glimra of this build (../glimra) runs from a temporary copy of its folder at the
// defaults, showing the 12-megapixel photo; after it has loaded, its utime + stime
// from /proc/<pid>/stat over 10 s are printed as a percentage of one core.
//
// Needs a display: run it under xvfb-run -a -s "-screen 0 1920x1080x24".
#include <GL/gl.h>
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

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
#include <vector>

#include "app/command_channel.h"
#include "app/slideshow.h"
#include "bench/bench_photo.h"
#include "bench/bench_program.h"
#include "d3/dtexture.h"
#include "framework/qapp.h"
#include "framework/qini.h"
#include "framework/qmessage.h"
#include "framework/qshell.h"

namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kWindowW = 1920, kWindowH = 1080;

struct Photo {
  int width;
  int height;
  int orientation;  // 0: no EXIF block
  const char* label;
};
const Photo kPhotos[] = {{4000, 3000, 0, "12MP"},
                         {4000, 3000, 6, "12MP_o6"},
                         {6000, 4000, 0, "24MP"},
                         {6000, 4000, 6, "24MP_o6"}};

std::string PhotoPath(const Photo& p) {
  return std::string("/tmp/glimra_slideshow_bench_") + p.label + ".jpg";
}

bool MakePhoto(const Photo& p) {
  return bench::WritePhoto(PhotoPath(p), p.width, p.height, p.orientation);
}

// ---------------------------------------------------------------------------------------------
// Load to frame, in this process
// ---------------------------------------------------------------------------------------------

struct Rig {
  QApp* app = nullptr;
  QShell* window = nullptr;
  RaceManager* rm = nullptr;
  CommandChannel* channel = nullptr;
  int port = 0;
  int sender = -1;
  std::string dir;
};
Rig g_rig;

// Mean seconds per benchmark name, for the ratios after the table.
std::map<std::string, double> g_mean;

bool SetUpRig() {
  const char* display = getenv("DISPLAY");
  if (!display || !*display) return false;
  char tmpl[] = "/tmp/glimra-slideshow-bench-XXXXXX";
  if (!mkdtemp(tmpl)) return false;
  g_rig.dir = tmpl;
  std::ofstream(g_rig.dir + "/bench.ini") << "effects\n{\n  black_and_white=1\n}\n";

  g_rig.app = new QApp("glimra", "Glimra");
  g_rig.app->SetNoStateManager();
  g_rig.app->SetWindowRect(0, 0, kWindowW, kWindowH);
  if (!g_rig.app->Create()) return false;
  g_rig.window = g_rig.app->GetMainWindow();
  if (!g_rig.window || !g_rig.window->MakeCurrent()) return false;
  g_rig.rm = new RaceManager();
  g_rig.rm->SetIni(new QIni((g_rig.dir + "/bench.ini").c_str()));
  g_rig.rm->SetWindow(g_rig.window);

  // A port that was free a moment ago.
  const int probe = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(a);
  if (bind(probe, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0 ||
      getsockname(probe, reinterpret_cast<sockaddr*>(&a), &len) != 0)
    return false;
  close(probe);
  g_rig.port = ntohs(a.sin_port);
  g_rig.channel = new CommandChannel();
  g_rig.channel->Open(g_rig.port);
  g_rig.sender = socket(AF_INET, SOCK_DGRAM, 0);
  return g_rig.sender >= 0;
}

bool SendLoad(const std::string& path) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(uint16_t(g_rig.port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const std::string text = "load " + path;
  return sendto(g_rig.sender, text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&a),
                sizeof(a)) == ssize_t(text.size());
}

void BM_LoadToFrame(benchmark::State& state, const Photo* p) {
  if (!g_rig.rm) {
    state.SkipWithError("no display");
    return;
  }
  const std::string path = PhotoPath(*p);
  double read = 0, decode = 0, reduce = 0, grey = 0, exif = 0, upload = 0, frame = 0, total = 0;
  for (auto _ : state) {
    const auto start = Clock::now();
    if (!SendLoad(path)) state.SkipWithError("send failed");
    while (g_rig.channel->Drain() == 0) {
    }
    const RaceManager::LoadTimes& t = g_rig.rm->GetLoadTimes();
    // Neighbouring photos differ in their turned proportions, so a failed load shows here.
    const DBitMapTexture* tex = g_rig.rm->GetTexture();
    if (!tex || (tex->GetWidth() > tex->GetHeight()) != (p->width > p->height))
      state.SkipWithError("load failed");
    const auto painting = Clock::now();
    g_rig.rm->Paint();
    g_rig.window->Swap();
    glFinish();
    const auto end = Clock::now();
    const double seconds = std::chrono::duration<double>(end - start).count();
    state.SetIterationTime(seconds);
    read += t.read, decode += t.decode, reduce += t.reduce, grey += t.grey, exif += t.exif;
    upload += t.upload;
    frame += std::chrono::duration<double, std::milli>(end - painting).count();
    total += seconds;
  }
  const auto avg = benchmark::Counter::kAvgIterations;
  state.counters["read_ms"] = benchmark::Counter(read, avg);
  state.counters["decode_ms"] = benchmark::Counter(decode, avg);
  state.counters["reduce_ms"] = benchmark::Counter(reduce, avg);
  state.counters["grey_ms"] = benchmark::Counter(grey, avg);
  state.counters["exif_ms"] = benchmark::Counter(exif, avg);
  state.counters["upload_ms"] = benchmark::Counter(upload, avg);
  state.counters["frame_ms"] = benchmark::Counter(frame, avg);
  if (state.iterations() > 0)
    g_mean[std::string("LoadToFrame/") + p->label] = total / double(state.iterations());
}

void BM_RawDecode(benchmark::State& state, const Photo* p) {
  double total = 0;
  for (auto _ : state) {
    const auto start = Clock::now();
    if (!bench::RawDecode(PhotoPath(*p).c_str())) state.SkipWithError("no photo");
    total += std::chrono::duration<double>(Clock::now() - start).count();
  }
  if (state.iterations() > 0)
    g_mean[std::string("RawDecode/") + p->label] = total / double(state.iterations());
}

// ---------------------------------------------------------------------------------------------
// Idle CPU of the running program
// ---------------------------------------------------------------------------------------------

void SetKey(const std::string& ini, const char* key, const std::string& value) {
  QIni file(ini.c_str());
  file.SetString(key, value.c_str());
  file.Write(nullptr, false);
}

// Percentage of one core used by glimra while it shows `photo` and waits; -1 when it could not
// be run.
double IdleCpuPercent(const std::string& photo, double seconds) {
  // Lower case: the program lower-cases its own folder before making it current.
  const std::string dir = "/tmp/glimra-slideshow-bench-run-" + std::to_string(getpid());
  if (!bench::CopyRunnable(dir)) return -1;
  const std::string ini = dir + "/glimra.ini";
  SetKey(ini, "network.port", std::to_string(g_rig.port + 1));
  SetKey(ini, "resolution.width", std::to_string(kWindowW));
  SetKey(ini, "resolution.height", std::to_string(kWindowH));
  SetKey(ini, "dev.qdbg_to_qlog", "1");
  const double percent = bench::ShownCpuPercent(dir, photo, seconds);
  std::error_code ec;
  fs::remove_all(dir, ec);
  return percent;
}

void Quiet(const char*, const char*) {}

}  // namespace

int main(int argc, char** argv) {
  qSetDbgHandler(Quiet);
  benchmark::Initialize(&argc, argv);
  if (!SetUpRig()) {
    fprintf(stderr, "slideshow_bench needs a display: run it under xvfb-run\n");
    return 1;
  }
  for (const Photo& p : kPhotos) {
    if (!MakePhoto(p)) {
      fprintf(stderr, "can't write %s\n", PhotoPath(p).c_str());
      return 1;
    }
    benchmark::RegisterBenchmark((std::string("RawDecode/") + p.label).c_str(), BM_RawDecode, &p)
        ->Unit(benchmark::kMillisecond)
        ->Iterations(5);
    benchmark::RegisterBenchmark((std::string("LoadToFrame/") + p.label).c_str(), BM_LoadToFrame,
                                 &p)
        ->Unit(benchmark::kMillisecond)
        ->UseManualTime()
        ->Iterations(5);
  }
  benchmark::RunSpecifiedBenchmarks();
  for (const Photo& p : kPhotos) {
    const auto load = g_mean.find(std::string("LoadToFrame/") + p.label);
    const auto raw = g_mean.find(std::string("RawDecode/") + p.label);
    if (load != g_mean.end() && raw != g_mean.end() && raw->second > 0)
      printf("%s load to frame / raw decode = %.2f\n", p.label, load->second / raw->second);
  }
  const double idle = IdleCpuPercent(PhotoPath(kPhotos[0]), 10.0);
  if (idle >= 0)
    printf("idle CPU of glimra showing the %s photo (100 ms idle sleep): %.1f %% of one core\n",
           kPhotos[0].label, idle);
  else
    printf("idle CPU: glimra could not be run from %s\n", g_rig.dir.c_str());
  for (const Photo& p : kPhotos) remove(PhotoPath(p).c_str());
  std::error_code ec;
  fs::remove_all(g_rig.dir, ec);
  benchmark::Shutdown();
  return 0;
}
