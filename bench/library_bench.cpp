// A photo library of 100,000 pictures as the running program meets it, read from the screen and
// from its log: first start (no index) -> first picture, restart (index present) -> first
// picture, start -> index complete ("Library listed" in QLOG.txt) and the peak memory then;
// beside them the same program on a flat folder of 10 pictures, and `find` listing the sizes and
// times of the same tree. The ratios against the goals are printed after the table.
//
// The tree is 1,000 folders of 100 hard links to 10 small JPEGs, each of its own colour and with
// a date taken, made once per run under /tmp and removed at the end. A picture counts as shown
// when the centre of the screen (read with XGetImage about every half millisecond) has a clear
// colour; the log file's size is watched just as finely, since its time stamps are whole
// seconds. Each start runs 3 times; the table gives the median and every run.
//
// Needs a display of 1920 x 1080 and no other glimra of the same user: run it in a PID
// namespace of its own with an X server of that size. An argument N sets dev.idle_sleep_ms=N in
// both program folders, which bounds how long a lost wake-up can hold the main loop asleep; the
// figures of such a run are not those of the default program.
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

// After <cstdio>: the library's header needs FILE.
#include <jpeglib.h>

#include "bench/bench_program.h"
#include "framework/qini.h"

namespace fs = std::filesystem;

namespace {

using bench::Median;
using bench::PeakMb;
using bench::Seconds;
using bench::StartProgram;
using bench::StopProgram;

using Clock = std::chrono::steady_clock;
constexpr int kW = 1920, kH = 1080;
constexpr int kPort = 5183;
constexpr int kFolders = 1000, kPerFolder = 100, kDistinct = 10;
constexpr int kRuns = 3;

std::string g_base;     // everything of this run
std::string g_libRun;   // runnable folder showing the library
std::string g_flatRun;  // runnable folder showing the flat folder
std::string g_tree;     // the library
int g_idleSleepMs = 0;  // dev.idle_sleep_ms of the program folders
// Longest waits for the "Library listed" note of a first start and of a restart.
constexpr int kListedWait = 120, kRelistedWait = 30;
Display* g_display = nullptr;

// Every run's figure, seconds or MB; -1 where it was not reached.
struct Figures {
  std::vector<double> first, restart, listed, peak, restartListed, flat, flatPeak, find;
} g_fig;

// A 640x480 picture of one colour with a little noise, quality 90, whose APP1 carries the
// DateTimeOriginal `taken` ("YYYY:MM:DD hh:mm:ss").
bool WriteDatedPhoto(const std::string& path, const uint8_t rgb[3], const char* taken) {
  FILE* f = fopen(path.c_str(), "wb");
  if (!f) return false;
  jpeg_compress_struct c;
  jpeg_error_mgr err;
  c.err = jpeg_std_error(&err);
  jpeg_create_compress(&c);
  jpeg_stdio_dest(&c, f);
  constexpr int w = 640, h = 480;
  c.image_width = w, c.image_height = h;
  c.input_components = 3, c.in_color_space = JCS_RGB;
  jpeg_set_defaults(&c);
  jpeg_set_quality(&c, 90, TRUE);
  jpeg_start_compress(&c, TRUE);
  // Little-endian TIFF: IFD0 holds only the pointer to the Exif IFD, which holds only the date.
  uint8_t exif[6 + 64] = {'E', 'x', 'i', 'f', 0, 0};
  const uint8_t tiff[44] = {'I', 'I', 42, 0, 8, 0, 0, 0,
                            1, 0, 0x69, 0x87, 4, 0, 1, 0, 0, 0, 26, 0, 0, 0, 0, 0, 0, 0,
                            1, 0, 0x03, 0x90, 2, 0, 20, 0, 0, 0, 44, 0, 0, 0, 0, 0, 0, 0};
  memcpy(exif + 6, tiff, sizeof(tiff));
  memcpy(exif + 6 + 44, taken, 20);
  jpeg_write_marker(&c, JPEG_APP0 + 1, exif, sizeof(exif));
  std::vector<uint8_t> row(size_t(w) * 3);
  uint32_t seed = 777;
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w * 3; ++x) {
      seed = seed * 1664525u + 1013904223u;
      const int v = rgb[x % 3] + int(seed >> 28) - 8;
      row[size_t(x)] = uint8_t(v < 0 ? 0 : v > 255 ? 255 : v);
    }
    JSAMPROW r = row.data();
    jpeg_write_scanlines(&c, &r, 1);
  }
  jpeg_finish_compress(&c);
  jpeg_destroy_compress(&c);
  return fclose(f) == 0;
}

// The centre of the screen shows a picture: a clear colour, not the black window nor the grey
// of the bare root.
bool CentreColoured() {
  const unsigned long c =
      bench::PatchColour(g_display, DefaultRootWindow(g_display), kW / 2, kH / 2);
  const long r = (c >> 16) & 255, g = (c >> 8) & 255, b = c & 255;
  return std::max({r, g, b}) - std::min({r, g, b}) > 60;
}

// Size of the file, 0 when it is not there.
off_t FileSize(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? st.st_size : 0;
}

// The log holds `text`: read from `*offset` on, which moves past what was read.
bool LogHas(const std::string& log, const char* text, off_t* offset, std::string* seen) {
  if (FileSize(log) <= *offset) return false;
  std::ifstream f(log, std::ios::binary);
  f.seekg(*offset);
  std::string more((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  *offset += off_t(more.size());
  *seen += more;
  return seen->find(text) != std::string::npos;
}

// One start in `dir`: seconds to the first picture and, when `listedWait` (seconds) is not 0, to
// the log's "Library listed" with the peak memory at that moment (else 2 s after the picture,
// once the neighbours are decoded; or at the time-out). -1 for what did not come in time.
struct Start {
  double picture = -1, listed = -1, peakMb = -1;
};
Start RunOnce(const std::string& dir, int listedWait) {
  const bool waitListed = listedWait > 0;
  const std::string log = dir + "/QLOG.txt";
  std::error_code ec;
  fs::remove(log, ec);
  Start s;
  off_t offset = 0;
  std::string seen;
  const Clock::time_point t0 = Clock::now();
  const pid_t pid = StartProgram(dir);
  const auto end = t0 + std::chrono::seconds(waitListed ? listedWait : 30);
  while (Clock::now() < end && (s.picture < 0 || (waitListed && s.listed < 0))) {
    if (s.picture < 0 && CentreColoured()) s.picture = Seconds(t0, Clock::now());
    if (waitListed && s.listed < 0 && LogHas(log, "Library listed", &offset, &seen)) {
      s.listed = Seconds(t0, Clock::now());
      s.peakMb = PeakMb(pid);
    }
    std::this_thread::sleep_for(std::chrono::microseconds(500));
    if (s.picture < 0 && Seconds(t0, Clock::now()) > 30) break;
  }
  if (waitListed && s.listed < 0 && s.picture >= 0) s.peakMb = PeakMb(pid);
  if (!waitListed && s.picture >= 0) {
    std::this_thread::sleep_for(std::chrono::seconds(2));
    s.peakMb = PeakMb(pid);
  }
  StopProgram(pid);
  return s;
}

void RemoveIndex() {
  std::error_code ec;
  for (const auto& e : fs::directory_iterator(g_libRun, ec))
    if (e.path().filename().string().rfind("glimra.index", 0) == 0) fs::remove(e.path(), ec);
}

// Per iteration a first start on no index, which leaves the index for the restart after it.
void BM_Library(benchmark::State& state) {
  for (auto _ : state) {
    RemoveIndex();
    const Start first = RunOnce(g_libRun, kListedWait);
    if (first.picture < 0) {
      state.SkipWithError("the library's first picture never came");
      return;
    }
    if (first.listed < 0)
      printf("first start: no \"Library listed\" within %d s; peak memory read then\n",
             kListedWait);
    const Start again = RunOnce(g_libRun, kRelistedWait);
    if (again.picture < 0) {
      state.SkipWithError("the restart showed no picture");
      return;
    }
    g_fig.first.push_back(first.picture);
    g_fig.listed.push_back(first.listed);
    g_fig.peak.push_back(first.peakMb);
    g_fig.restart.push_back(again.picture);
    g_fig.restartListed.push_back(again.listed);
    state.SetIterationTime(first.picture);
  }
  state.counters["first_ms"] = Median(g_fig.first) * 1000;
  state.counters["restart_ms"] = Median(g_fig.restart) * 1000;
  state.counters["listed_s"] = Median(g_fig.listed);
  state.counters["peak_MB"] = Median(g_fig.peak);
}

void BM_Flat(benchmark::State& state) {
  for (auto _ : state) {
    const Start s = RunOnce(g_flatRun, 0);
    if (s.picture < 0) {
      state.SkipWithError("the flat folder showed no picture");
      return;
    }
    g_fig.flat.push_back(s.picture);
    g_fig.flatPeak.push_back(s.peakMb);
    state.SetIterationTime(s.picture);
  }
  state.counters["start_ms"] = Median(g_fig.flat) * 1000;
  state.counters["peak_MB"] = Median(g_fig.flatPeak);
}

void BM_Find(benchmark::State& state) {
  const std::string command = "find '" + g_tree + "' -printf '%s %T@ %p\\n' > /dev/null";
  // Warm: the first walk brings the tree's metadata into the cache.
  if (system(command.c_str()) != 0) {
    state.SkipWithError("find failed");
    return;
  }
  for (auto _ : state) {
    const Clock::time_point t0 = Clock::now();
    if (system(command.c_str()) != 0) state.SkipWithError("find failed");
    const double s = Seconds(t0, Clock::now());
    g_fig.find.push_back(s);
    state.SetIterationTime(s);
  }
}

bool MakeTree() {
  static const uint8_t colours[kDistinct][3] = {
      {230, 40, 40},  {40, 200, 40},  {40, 40, 230},  {220, 200, 30}, {200, 40, 200},
      {30, 200, 200}, {240, 120, 20}, {120, 40, 220}, {40, 160, 90},  {200, 90, 120}};
  const std::string distinct = g_base + "/distinct", flat = g_base + "/flat";
  std::error_code ec;
  fs::create_directories(distinct, ec);
  fs::create_directories(flat, ec);
  std::vector<std::string> files;
  for (int i = 0; i < kDistinct; ++i) {
    char name[64], taken[32];
    snprintf(name, sizeof(name), "/%02d.jpg", i);
    snprintf(taken, sizeof(taken), "2021:06:%02d 10:20:30", i + 1);
    files.push_back(distinct + name);
    if (!WriteDatedPhoto(files.back(), colours[i], taken)) return false;
    fs::copy_file(files.back(), flat + name, ec);
    if (ec) return false;
  }
  for (int d = 0; d < kFolders; ++d) {
    char folder[64];
    snprintf(folder, sizeof(folder), "/%04d", d);
    const std::string dir = g_tree + folder;
    if (mkdir(dir.c_str(), 0755) != 0) return false;
    for (int p = 0; p < kPerFolder; ++p) {
      char name[64];
      snprintf(name, sizeof(name), "/IMG_%04d.jpg", p);
      if (link(files[size_t((d + p) % kDistinct)].c_str(), (dir + name).c_str()) != 0)
        return false;
    }
  }
  return true;
}

bool MakeRunFolder(const std::string& dir, const std::string& pictures, bool library) {
  if (!bench::CopyRunnable(dir)) return false;
  QIni ini((dir + "/glimra.ini").c_str());
  ini.SetString("app.startup_directory", pictures.c_str());
  ini.SetInt("app.recursive", library ? 1 : 0);
  ini.SetInt("app.max_pictures", library ? 0 : 2000);
  ini.SetInt("network.port", kPort);
  ini.SetInt("resolution.width", kW);
  ini.SetInt("resolution.height", kH);
  ini.SetInt("resolution.fullscreen", 1);
  ini.SetBool("effects.show_info", false);
  if (g_idleSleepMs > 0) ini.SetInt("dev.idle_sleep_ms", g_idleSleepMs);
  return ini.Write(nullptr, false);
}

bool Prepare() {
  // Not by process number: in a PID namespace of its own every run would be number 1.
  char base[] = "/tmp/glimra-library-bench-XXXXXX";
  if (!mkdtemp(base)) return false;
  g_base = base;
  g_tree = g_base + "/library";
  g_libRun = g_base + "/run-library";
  g_flatRun = g_base + "/run-flat";
  std::error_code ec;
  fs::create_directories(g_tree, ec);
  const Clock::time_point t0 = Clock::now();
  if (ec || !MakeTree()) return false;
  printf("tree of %d pictures in %d folders made in %.1f s\n", kFolders * kPerFolder, kFolders,
         Seconds(t0, Clock::now()));
  return MakeRunFolder(g_libRun, g_tree, true) && MakeRunFolder(g_flatRun, g_base + "/flat", false);
}

std::string Runs(const std::vector<double>& v, double scale, const char* format) {
  std::string s;
  for (double x : v) {
    char one[32];
    if (x < 0)
      snprintf(one, sizeof(one), " -");
    else
      snprintf(one, sizeof(one), format, x * scale);
    s += one;
  }
  return s;
}

void PrintRatio(const char* what, double value, double goal, const char* unit) {
  if (value < 0) {
    printf("%-44s not measured\n", what);
    return;
  }
  printf("%-44s %8.2f%s  goal <= %g%s  %s\n", what, value, unit, goal, unit,
         value <= goal ? "met" : "MISSED");
}

void PrintTable() {
  const Figures& f = g_fig;
  if (g_idleSleepMs > 0) printf("\nwith dev.idle_sleep_ms=%d", g_idleSleepMs);
  printf("\n%-44s %10s   %s\n", "", "median", "runs");
  printf("%-44s %7.0f ms  %s\n", "first start (no index) -> picture", Median(f.first) * 1000,
         Runs(f.first, 1000, " %.0f").c_str());
  printf("%-44s %7.0f ms  %s\n", "restart (index) -> picture", Median(f.restart) * 1000,
         Runs(f.restart, 1000, " %.0f").c_str());
  printf("%-44s %7.2f s   %s\n", "first start -> index complete", Median(f.listed),
         Runs(f.listed, 1, " %.2f").c_str());
  printf("%-44s %7.2f s   %s\n", "restart -> library listed again", Median(f.restartListed),
         Runs(f.restartListed, 1, " %.2f").c_str());
  printf("%-44s %7.0f MB  %s\n", "peak memory, index complete", Median(f.peak),
         Runs(f.peak, 1, " %.0f").c_str());
  printf("%-44s %7.0f ms  %s\n", "10-picture folder: start -> picture", Median(f.flat) * 1000,
         Runs(f.flat, 1000, " %.0f").c_str());
  printf("%-44s %7.0f MB  %s\n", "10-picture folder: peak memory", Median(f.flatPeak),
         Runs(f.flatPeak, 1, " %.0f").c_str());
  printf("%-44s %7.2f s   %s\n", "find -printf over the tree (warm)", Median(f.find),
         Runs(f.find, 1, " %.2f").c_str());
  const double flat = Median(f.flat), flatPeak = Median(f.flatPeak), find = Median(f.find);
  const double first = Median(f.first), restart = Median(f.restart), listed = Median(f.listed),
               peak = Median(f.peak);
  printf("\nratios of the medians:\n");
  PrintRatio("start -> picture, no index / 10-picture", first > 0 && flat > 0 ? first / flat : -1,
             1.2, "");
  PrintRatio("start -> picture, index / 10-picture",
             restart > 0 && flat > 0 ? restart / flat : -1, 1.2, "");
  PrintRatio("peak memory - 10-picture peak memory",
             peak > 0 && flatPeak > 0 ? peak - flatPeak : -1, 30, " MB");
  PrintRatio("index complete / find", listed > 0 && find > 0 ? listed / find : -1, 5, "");
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (argc > 1) g_idleSleepMs = atoi(argv[1]);
  g_display = XOpenDisplay(nullptr);
  if (!g_display || DisplayWidth(g_display, 0) != kW || DisplayHeight(g_display, 0) != kH) {
    fprintf(stderr,
            "library_bench needs a 1920x1080 display, for example Xvfb :N -screen 0 "
            "1920x1080x24\n");
    return 1;
  }
  const bool ready = Prepare();
  if (!ready) {
    fprintf(stderr, "library_bench: can't make the library, the flat folder or the program's "
                    "folders under '%s'\n", g_base.c_str());
  } else {
    benchmark::RegisterBenchmark("Library/100000", BM_Library)
        ->Unit(benchmark::kMillisecond)
        ->UseManualTime()
        ->Iterations(kRuns);
    benchmark::RegisterBenchmark("Flat/10", BM_Flat)
        ->Unit(benchmark::kMillisecond)
        ->UseManualTime()
        ->Iterations(kRuns);
    benchmark::RegisterBenchmark("Find/100000", BM_Find)
        ->Unit(benchmark::kMillisecond)
        ->UseManualTime()
        ->Iterations(kRuns);
    benchmark::RunSpecifiedBenchmarks();
    PrintTable();
  }
  XCloseDisplay(g_display);
  std::error_code ec;
  fs::remove_all(g_base, ec);
  benchmark::Shutdown();
  return ready ? 0 : 1;
}
