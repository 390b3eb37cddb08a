// What the benchmarks that run the real program share: starting it from a runnable folder (in a
// PID namespace of its own when asked, so that several copies run for one user), stopping it,
// the processor time it uses showing a picture, its peak memory, a datagram to its command port, and the colour at a point of an X screen.
#pragma once

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace bench {

using Clock = std::chrono::steady_clock;

inline double Seconds(Clock::time_point a, Clock::time_point b) {
  return std::chrono::duration<double>(b - a).count();
}

// The median of the figures that were reached (>= 0); -1 when none was.
inline double Median(std::vector<double> v) {
  v.erase(std::remove_if(v.begin(), v.end(), [](double x) { return x < 0; }), v.end());
  if (v.empty()) return -1;
  std::sort(v.begin(), v.end());
  return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

// Copies the build's runnable folder (the program, glimra.ini, fonts) into `dir`; false on failure.
inline bool CopyRunnable(const std::string& dir) {
  namespace fs = std::filesystem;
  char self[4096];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
  if (n <= 0) return false;
  self[n] = 0;
  const fs::path build = fs::path(self).parent_path().parent_path();
  std::error_code ec;
  fs::create_directories(dir, ec);
  fs::copy_file(build / "glimra", dir + "/glimra", fs::copy_options::overwrite_existing, ec);
  if (!ec)
    fs::copy_file(build / "glimra.ini", dir + "/glimra.ini", fs::copy_options::overwrite_existing,
                  ec);
  if (!ec)
    fs::copy(build / "fonts", dir + "/fonts",
             fs::copy_options::recursive | fs::copy_options::overwrite_existing, ec);
  return !ec;
}

// Runs `dir`/glimra in `dir` with the optional argument, its output thrown away. With
// `ownPidNamespace` it runs under unshare in a PID namespace of its own (needs root); the pid
// answered is then unshare's, which passes a stop on with --kill-child.
inline pid_t StartProgram(const std::string& dir, const char* arg = nullptr,
                          bool ownPidNamespace = false) {
  const pid_t pid = fork();
  if (pid == 0) {
    const int null = open("/dev/null", O_WRONLY);
    if (null >= 0) dup2(null, 1), dup2(null, 2);
    if (chdir(dir.c_str()) != 0) _exit(126);
    const std::string exe = dir + "/glimra";
    if (ownPidNamespace)
      execlp("unshare", "unshare", "--pid", "--fork", "--mount-proc", "--kill-child", exe.c_str(),
             arg, static_cast<char*>(nullptr));
    else
      execl(exe.c_str(), "glimra", arg, static_cast<char*>(nullptr));
    _exit(127);
  }
  return pid;
}

// Ends a program StartProgram started (under unshare, SIGKILL reaches the namespace as a stop
// the program never sees, which a benchmark does not mind).
inline void StopProgram(pid_t pid, bool ownPidNamespace = false) {
  kill(pid, ownPidNamespace ? SIGKILL : SIGTERM);
  waitpid(pid, nullptr, 0);
}

// The process's peak resident memory (VmHWM) in MB; -1 when unknown.
inline double PeakMb(pid_t pid) {
  std::ifstream f("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(f, line))
    if (line.rfind("VmHWM:", 0) == 0) return atof(line.c_str() + 6) / 1024.0;
  return -1;
}

// Percentage of one core `dir`/glimra uses showing `photo`: started, once it logs the picture's
// load times (it needs "dev.qdbg_to_qlog=1") and a second for the first frames to settle,
// `seconds` of its processor time (utime + stime) over the wall time; then stopped. -1 when it
// could not be run or showed nothing within a minute.
inline double ShownCpuPercent(const std::string& dir, const std::string& photo, double seconds) {
  const auto readAll = [](const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  };
  const pid_t pid = StartProgram(dir, photo.c_str());
  if (pid <= 0) return -1;
  // The command name in parentheses may hold blanks; the fields after it are fixed.
  const auto ticks = [&] {
    const std::string stat = readAll("/proc/" + std::to_string(pid) + "/stat");
    const size_t close = stat.rfind(')');
    if (close == std::string::npos) return -1L;
    std::istringstream in(stat.substr(close + 2));
    std::string field;
    long used = 0;
    for (int i = 3; i <= 15 && in >> field; ++i)
      if (i == 14 || i == 15) used += atol(field.c_str());
    return used;
  };
  double percent = -1;
  const auto deadline = Clock::now() + std::chrono::seconds(60);
  while (readAll(dir + "/QLOG.txt").find("Load times (") == std::string::npos &&
         Clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  if (Clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const long t0 = ticks();
    const auto w0 = Clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const long t1 = ticks();
    if (t0 >= 0 && t1 >= 0)
      percent = 100.0 * double(t1 - t0) / double(sysconf(_SC_CLK_TCK)) / Seconds(w0, Clock::now());
  }
  StopProgram(pid);
  return percent;
}

// One datagram of `text` to 127.0.0.1:`port`.
inline bool SendUdp(int port, const std::string& text) {
  const int s = socket(AF_INET, SOCK_DGRAM, 0);
  if (s < 0) return false;
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(uint16_t(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const bool ok = sendto(s, text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&a),
                         sizeof(a)) == ssize_t(text.size());
  close(s);
  return ok;
}

// The mean colour (0xRRGGBB) of the 8x8 patch centred on (x, y) of `window`; 0 when it can't be
// read.
inline unsigned long PatchColour(Display* d, Window window, int x, int y) {
  XImage* img = XGetImage(d, window, x - 4, y - 4, 8, 8, AllPlanes, ZPixmap);
  if (!img) return 0;
  unsigned long r = 0, g = 0, b = 0;
  for (int j = 0; j < 8; ++j)
    for (int i = 0; i < 8; ++i) {
      const unsigned long p = XGetPixel(img, i, j);
      r += (p >> 16) & 255, g += (p >> 8) & 255, b += p & 255;
    }
  XDestroyImage(img);
  return (r / 64) << 16 | (g / 64) << 8 | b / 64;
}

}  // namespace bench
