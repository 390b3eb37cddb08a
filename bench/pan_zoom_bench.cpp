// What pan and zoom costs at 1920x1080.
//
// Frames: a 16:9 photo loaded as the program loads it with pan and zoom on (decoded to cover
// its quad 1.15 times over), on the full-screen quad, drawn frame after frame with the canvas,
// swapped and finished: once standing still (the yardstick: a plain redraw of the same textured
// quad) and once moving through its framings, a new one each frame; beside them a frame that
// is only cleared and swapped, what presenting alone costs. The ratio of the moving to the
// still frame rate is printed after the table; the counters give frames a second and the
// processor time of this process (the renderer's threads included) per frame.
//
// Program: the real glimra of this build (../glimra) shows the photo at 1920x1080 with
// "effects.pan_zoom" and a 30-second advance; its processor time over 5 s while the picture
// moves is printed as a percentage of one core, beside the same with pan and zoom off.
//
// Needs a display of at least 1920x1080: xvfb-run -a -s "-screen 0 1920x1080x24".
#include <GL/gl.h>
#include <time.h>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

#include "app/pan_zoom.h"
#include "app/picture_loader.h"
#include "bench/bench_photo.h"
#include "bench/bench_program.h"
#include "d3/dglobal.h"
#include "d3/dmesh.h"
#include "d3/dtexture.h"
#include "framework/qapp.h"
#include "framework/qcanvas.h"
#include "framework/qini.h"
#include "framework/qmessage.h"
#include "framework/qshell.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kWindowW = 1920, kWindowH = 1080;
const char* const kPhoto = "/tmp/glimra_pan_zoom_bench.jpg";

struct Rig {
  QShell* window = nullptr;
  std::unique_ptr<QCanvas> canvas;
  std::unique_ptr<DBitMapTexture> texture;
  std::unique_ptr<DMesh> quad;
};
Rig g_rig;
std::map<std::string, double> g_fps;

double CpuSeconds() {
  timespec t;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return double(t.tv_sec) + t.tv_nsec * 1e-9;
}

bool SetUpRig() {
  const char* display = getenv("DISPLAY");
  if (!display || !*display) return false;
  QApp* app = new QApp("glimra", "Glimra");
  app->SetNoStateManager();
  app->SetWindowRect(0, 0, kWindowW, kWindowH);
  if (!app->Create()) return false;
  g_rig.window = app->GetMainWindow();
  if (!g_rig.window || !g_rig.window->MakeCurrent()) return false;
  DGlobal::SetLinearColour(true);  // as the program draws
  g_rig.canvas.reset(new QCanvas(g_rig.window, "bench"));

  ScreenFit fit;
  fit.windowWidth = kWindowW, fit.windowHeight = kWindowH;
  fit.desktopAspect = double(kWindowW) / kWindowH;
  fit.maxTexture = DGlobal::MaxTextureSize();
  fit.zoom = PanZoom::MAX_ZOOM;
  LoadedPicture picture;
  LoadPicture(kPhoto, fit, false, &picture);
  if (!picture.ok) return false;
  printf("texture %dx%d for a %dx%d quad\n", picture.pixels->GetWidth(),
         picture.pixels->GetHeight(), kWindowW, kWindowH);
  g_rig.texture.reset(new DBitMapTexture());
  g_rig.texture->UsePictureFiltering();
  g_rig.texture->FromBitMap(picture.pixels.get());
  g_rig.quad.reset(new DMesh("bench"));
  g_rig.quad->DefineFlat2D(float(kWindowW), float(kWindowH));
  g_rig.quad->SetPolygonTexture(
      0, g_rig.texture.get(), QRect{0, 0, g_rig.texture->GetWidth(), g_rig.texture->GetHeight()});
  return true;
}

enum Kind { CLEAR, STILL, MOVING };
const char* const kKindName[] = {"clear", "still", "pan_zoom"};

// Frames as the program paints them; MOVING each a step further through a motion of 600 frames
// (ten seconds at the program's pace), CLEAR without the picture.
void BM_Frame(benchmark::State& state, Kind kind) {
  if (!g_rig.quad) {
    state.SkipWithError("no display");
    return;
  }
  const PanZoom motion("IMG_0001.jpg");
  int frame = 0;
  const double cpu0 = CpuSeconds();
  const auto wall0 = Clock::now();
  for (auto _ : state) {
    if (kind == MOVING) {
      const PanZoom::Framing f = motion.At((frame++ % 600) / 600.0);
      g_rig.quad->SetTextureWindow(float(f.u0), float(f.v0), float(f.size), float(f.size));
    }
    g_rig.canvas->SetClearColor(0, 0, 0, 0);
    g_rig.canvas->Clear(QCanvas::CLEAR_COLOR | QCanvas::CLEAR_DEPTH);
    g_rig.canvas->Set3D(QCanvas::DEFAULT_DISTANCE);
    if (kind != CLEAR) g_rig.quad->Paint();
    g_rig.window->Swap();
    glFinish();
  }
  const double wall = std::chrono::duration<double>(Clock::now() - wall0).count();
  const double n = double(state.iterations());
  if (n <= 0 || wall <= 0) return;
  state.counters["fps"] = n / wall;
  state.counters["cpu_ms_per_frame"] = 1000.0 * (CpuSeconds() - cpu0) / n;
  g_fps[kKindName[kind]] = n / wall;
  g_rig.quad->SetTextureWindow(0, 0, 1, 1);
}

void SetKey(const std::string& ini, const char* key, const std::string& value) {
  QIni file(ini.c_str());
  file.SetString(key, value.c_str());
  file.Write(nullptr, false);
}

// Percentage of one core glimra uses over 5 s while it shows the photo at 1920x1080 (pan and
// zoom on or off); -1 when it could not be run.
double ProgramCpuPercent(bool panZoom) {
  const std::string dir = "/tmp/glimra-pan-zoom-bench-" + std::to_string(getpid());
  if (!bench::CopyRunnable(dir)) return -1;
  const std::string ini = dir + "/glimra.ini";
  SetKey(ini, "network.port", std::to_string(20000 + getpid() % 20000));
  SetKey(ini, "resolution.width", std::to_string(kWindowW));
  SetKey(ini, "resolution.height", std::to_string(kWindowH));
  SetKey(ini, "effects.advance_seconds", "30");
  SetKey(ini, "effects.pan_zoom", panZoom ? "1" : "0");
  SetKey(ini, "dev.qdbg_to_qlog", "1");
  const double percent = bench::ShownCpuPercent(dir, kPhoto, 5.0);
  std::error_code ec;
  std::filesystem::remove_all(dir, ec);
  return percent;
}

void Quiet(const char*, const char*) {}

}  // namespace

int main(int argc, char** argv) {
  qSetDbgHandler(Quiet);
  benchmark::Initialize(&argc, argv);
  if (!bench::WritePhoto(kPhoto, 3840, 2160, 0)) {
    fprintf(stderr, "can't write %s\n", kPhoto);
    return 1;
  }
  if (!SetUpRig()) {
    fprintf(stderr, "pan_zoom_bench needs a display: run it under xvfb-run\n");
    return 1;
  }
  for (const Kind kind : {CLEAR, STILL, MOVING})
    benchmark::RegisterBenchmark((std::string("Frame/") + kKindName[kind]).c_str(), BM_Frame, kind)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->MinTime(3);
  benchmark::RunSpecifiedBenchmarks();
  if (g_fps["still"] > 0)
    printf("pan and zoom %.1f frames a second (goal: at least 30), still redraw %.1f: ratio %.2f; "
           "clear and swap alone %.1f\n",
           g_fps["pan_zoom"], g_fps["still"], g_fps["pan_zoom"] / g_fps["still"], g_fps["clear"]);
  const double on = ProgramCpuPercent(true), off = ProgramCpuPercent(false);
  printf("glimra at %dx%d over 5 s: %.1f %% of one core with pan and zoom, %.1f %% without\n",
         kWindowW, kWindowH, on, off);
  remove(kPhoto);
  benchmark::Shutdown();
  return 0;
}
