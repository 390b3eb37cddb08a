#include "support/e2e.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <zlib.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <thread>
#include <vector>

#include "framework/image/qexif.h"
#include "framework/qbitmap.h"
#include "framework/qini.h"
// After the test framework, whose names X's macros (None) would spoil.
#include <X11/Xlib.h>
#include <X11/Xutil.h>

namespace fs = std::filesystem;

namespace e2e {

namespace {

pid_t g_xvfb = -1;
int g_displayFd = -1;

void Put32(std::string* s, uint32_t v) {
  for (int k = 3; k >= 0; --k) *s += char(v >> (8 * k));
}
void Chunk(std::string* png, const char* type, const std::string& data) {
  const std::string body = type + data;
  Put32(png, uint32_t(data.size()));
  *png += body;
  Put32(png, uint32_t(crc32(0, reinterpret_cast<const Bytef*>(body.data()), uInt(body.size()))));
}

// The channel's 8-bit value under `mask`.
int Channel(unsigned long pixel, unsigned long mask) {
  const int shift = mask ? __builtin_ctzl(mask) : 0;
  return mask ? int(((pixel & mask) >> shift) * 255 / (mask >> shift)) : 0;
}

// The leak reports in a sanitizer's output whose stack passes through the program's own code.
std::vector<std::string> OwnLeaks(const std::string& out) {
  std::vector<std::string> found;
  for (size_t at = out.find(" leak of "), next; at != std::string::npos; at = next) {
    next = out.find(" leak of ", at + 1);
    const std::string block = out.substr(at, next == std::string::npos ? next : next - at);
    for (const char* folder : {"app/", "framework/", "d3/", "net/"})
      if (block.find(std::string("../") + folder) != std::string::npos ||
          block.find(std::string(GLIMRA_SOURCE_DIR "/") + folder) != std::string::npos) {
        found.push_back(block);
        break;
      }
  }
  return found;
}

}  // namespace

bool Poll(int ms, const std::function<bool()>& done) {
  for (const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);;) {
    if (done()) return true;
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
}

bool HaveTools() { return Have("Xvfb") && Have("xdotool") && Have("xwd"); }

bool StartX(const char* exe, const std::vector<std::string>& args) {
  if (g_xvfb > 0) return true;
  if (!Have(exe)) return false;
  int fds[2];
  if (pipe(fds) != 0) return false;
  std::vector<std::string> argv{exe, "-displayfd", std::to_string(fds[1])};
  argv.insert(argv.end(), args.begin(), args.end());
  g_xvfb = Spawn(argv, "/dev/null");
  close(fds[1]);
  // The server writes the number and the newline apart and must not find the pipe closed.
  g_displayFd = fds[0];
  char buf[32] = {};
  size_t n = 0;
  pollfd p{fds[0], POLLIN, 0};
  while (n < sizeof(buf) - 1 && !memchr(buf, '\n', n) && poll(&p, 1, 15000) > 0) {
    ssize_t got = read(fds[0], buf + n, sizeof(buf) - 1 - n);
    if (got <= 0) break;
    n += size_t(got);
  }
  if (g_xvfb < 0 || !memchr(buf, '\n', n)) {
    StopX();
    return false;
  }
  setenv("DISPLAY", (":" + std::to_string(atoi(buf))).c_str(), 1);
  return true;
}

bool StartXvfb(int w, int h) {
  return StartX("Xvfb", {"-screen", "0", std::to_string(w) + "x" + std::to_string(h) + "x24",
                         "-nolisten", "tcp", "-noreset"});
}

void StopX() {
  if (g_displayFd >= 0) close(g_displayFd);
  g_displayFd = -1;
  if (g_xvfb > 0) {
    kill(g_xvfb, SIGTERM);
    waitpid(g_xvfb, nullptr, 0);
  }
  g_xvfb = -1;
}

bool Is(uint32_t c, uint32_t want, int tol) {
  return abs(R(c) - R(want)) <= tol && abs(G(c) - G(want)) <= tol && abs(B(c) - B(want)) <= tol;
}

bool GrabScreen(Screen* out) {
  // Straight from the server: no tool to run and no dump to parse.
  const std::unique_ptr<Display, int (*)(Display*)> d(XOpenDisplay(nullptr), XCloseDisplay);
  if (!d) return false;
  const Window root = DefaultRootWindow(d.get());
  XWindowAttributes a;
  XImage* image = XGetWindowAttributes(d.get(), root, &a)
                      ? XGetImage(d.get(), root, 0, 0, a.width, a.height, AllPlanes, ZPixmap)
                      : nullptr;
  if (!image) return false;
  out->width = a.width, out->height = a.height;
  out->rgb.assign(size_t(a.width) * a.height, 0);
  for (int y = 0; y < a.height; ++y)
    for (int x = 0; x < a.width; ++x) {
      const unsigned long v = XGetPixel(image, x, y);
      out->rgb[size_t(y) * a.width + x] = uint32_t(Channel(v, image->red_mask)) << 16 |
                                          uint32_t(Channel(v, image->green_mask)) << 8 |
                                          uint32_t(Channel(v, image->blue_mask));
    }
  XDestroyImage(image);
  return true;
}

bool WaitForScreen(const std::function<bool(const Screen&)>& ok, int ms, Screen* out) {
  return Poll(ms, [&] { return GrabScreen(out) && ok(*out); });
}

bool WritePicture(const std::string& path, int w, int h,
                  const std::function<uint32_t(int x, int y)>& color) {
  QBitMap bm(32, w, h);
  uint8_t* px = bm.GetBuffer();
  if (!px) return false;
  for (int y = 0; y < h; ++y) {
    // Memory rows are bottom-up.
    uint8_t* row = px + size_t(h - 1 - y) * w * 4;
    for (int x = 0; x < w; ++x) {
      const uint32_t c = color(x, y);
      row[x * 4 + 0] = uint8_t(c >> 16), row[x * 4 + 1] = uint8_t(c >> 8);
      row[x * 4 + 2] = uint8_t(c), row[x * 4 + 3] = 255;
    }
  }
  const std::string ext = fs::path(path).extension().string();
  const bool jpeg = strcasecmp(ext.c_str(), ".jpg") == 0 || strcasecmp(ext.c_str(), ".jpeg") == 0;
  return bm.Write(path.c_str(), jpeg ? 3 : 1, 95);
}

uint32_t Photo(int x, int y) {
  const double r = 128 + 70 * std::sin(x / 310.0) * std::cos(y / 190.0) + 20 * std::sin(x / 7.0);
  const double g = 120 + 60 * std::cos(x / 450.0 + y / 260.0) + 15 * std::cos(y / 5.0);
  const double b = 110 + 80 * std::sin((x + y) / 520.0);
  const uint32_t grain = (uint32_t(x) * 2654435761u ^ uint32_t(y) * 40503u) >> 28;  // 0..15
  const auto c = [grain](double v) {
    return uint32_t(std::min(255.0, std::max(0.0, v + grain - 8)));
  };
  return c(r) << 16 | c(g) << 8 | c(b);
}

bool Uniform(const std::string& path, uint32_t c) {
  return WritePicture(path, 40, 30, [c](int, int) { return c; });
}

std::string RepeatedRowsPng(int w, int h, int depth) {
  std::string png = "\x89PNG\r\n\x1a\n", ihdr;
  Put32(&ihdr, uint32_t(w)), Put32(&ihdr, uint32_t(h));
  ihdr += {char(depth), 6, 0, 0, 0};
  Chunk(&png, "IHDR", ihdr);
  const size_t rowBytes = size_t(w) * 4 * depth / 8;
  std::vector<Bytef> first(rowBytes + 1), up(rowBytes + 1, 0), out(1 << 20);
  for (size_t i = 1; i <= rowBytes; ++i) first[i] = Bytef(i * 7 / 4);
  up[0] = 2;
  z_stream z{};
  deflateInit2(&z, 9, Z_DEFLATED, 15, 9, Z_RLE);
  std::string idat;
  for (int y = 0; y < h; ++y) {
    std::vector<Bytef>& row = y ? up : first;
    z.next_in = row.data(), z.avail_in = uInt(row.size());
    const int flush = y == h - 1 ? Z_FINISH : Z_NO_FLUSH;
    int rc;
    do {
      z.next_out = out.data(), z.avail_out = uInt(out.size());
      rc = deflate(&z, flush);
      idat.append(reinterpret_cast<char*>(out.data()), out.size() - z.avail_out);
    } while (z.avail_in > 0 || (flush == Z_FINISH && rc != Z_STREAM_END));
  }
  deflateEnd(&z);
  Chunk(&png, "IDAT", idat);
  Chunk(&png, "IEND", "");
  return png;
}

bool SetJpegOrientation(const std::string& path, int orientation) {
  std::string data = ReadFile(path);
  if (data.size() < 4 || (unsigned char)data[0] != 0xFF || (unsigned char)data[1] != 0xD8)
    return false;
  uint8_t seg[QExif::ORIENTATION_SEGMENT_SIZE];
  QExif::WriteOrientationSegment(uint16_t(orientation), seg);
  data.insert(2, reinterpret_cast<const char*>(seg), sizeof(seg));
  return WriteFile(path, data);
}

bool WriteQuadrants(const std::string& path, int orientation) {
  return WritePicture(path, 400, 300,
                      [](int x, int y) {
                        return y < 150 ? (x < 200 ? kRed : kGreen) : (x < 200 ? kBlue : kWhite);
                      }) &&
         SetJpegOrientation(path, orientation);
}

int Count(const std::string& in, const std::string& text) {
  int n = 0;
  for (size_t at = in.find(text); at != std::string::npos; at = in.find(text, at + 1)) ++n;
  return n;
}

long long ProcValue(pid_t pid, const char* file, const char* key) {
  std::ifstream f("/proc/" + std::to_string(pid) + "/" + file);
  std::string word;
  long long value = -1;
  while (f >> word)
    if (word == key && f >> value) return value;
  return -1;
}

long CpuMs(pid_t pid) {
  const std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
  const size_t close = stat.rfind(')');
  long user = 0, system = 0;
  if (close == std::string::npos ||
      sscanf(stat.c_str() + close + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %ld %ld",
             &user, &system) != 2)
    return -1000000L;
  return (user + system) * 1000 / sysconf(_SC_CLK_TCK);
}

long Wakes(pid_t pid) {
  // Every thread: a helper that looks up on a timer keeps the machine awake as much as the loop.
  long sum = 0;
  std::error_code ec;
  for (const auto& t : fs::directory_iterator("/proc/" + std::to_string(pid) + "/task", ec)) {
    const std::string status = "task/" + t.path().filename().string() + "/status";
    const long long n = ProcValue(pid, status.c_str(), "voluntary_ctxt_switches:");
    if (n < 0) return -1;
    sum += long(n);
  }
  return ec ? -1 : sum;
}

int RunningCopies() {
  int count = 0;
  std::error_code ec;
  for (const auto& e : fs::directory_iterator("/proc", ec)) {
    const fs::path exe = fs::read_symlink(e.path() / "exe", ec);
    count += !ec && strcasecmp(exe.filename().c_str(), "glimra") == 0;
  }
  return count;
}

namespace {
sockaddr_in Loopback(int port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(uint16_t(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return a;
}
}  // namespace

int FreePort(bool stream) {
  const int fd = socket(AF_INET, stream ? SOCK_STREAM : SOCK_DGRAM, 0);
  sockaddr_in a = Loopback(0);
  socklen_t len = sizeof(a);
  const bool named = fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0 &&
                     getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0;
  if (fd >= 0) close(fd);
  return named ? ntohs(a.sin_port) : -1;
}

bool SendUdp(int port, const std::string& bytes, const char* from) {
  int fd = socket(AF_INET, SOCK_DGRAM, 0);
  if (fd < 0) return false;
  sockaddr_in a = Loopback(port), source = Loopback(0);
  const ssize_t n =
      inet_pton(AF_INET, from, &source.sin_addr) == 1 &&
              bind(fd, reinterpret_cast<sockaddr*>(&source), sizeof(source)) == 0
          ? sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&a), sizeof(a))
          : -1;
  close(fd);
  return n == ssize_t(bytes.size());
}

Program::~Program() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  if (!dir_.empty()) RemoveTree(dir_);
}

bool Program::MakeDir() {
  // Mixed case: the program must enter its own folder by its real name. mkdtemp, not the pid:
  // test runs in PID namespaces of their own share process numbers.
  char name[] = "/tmp/Glimra-E2E-XXXXXX";
  if (!mkdtemp(name)) return false;
  dir_ = name;
  return true;
}

bool Program::Prepare(int port) {
  if (!MakeDir()) return false;
  std::error_code ec;
  for (const char* name : {"glimra", "glimra.ini", "fonts"}) {
    fs::copy(fs::path(GLIMRA_BUILD_DIR) / name, Path(name), fs::copy_options::recursive, ec);
    if (ec) return false;
  }
  port_ = port;
  return SetKey("network.port", std::to_string(port).c_str()) &&
         SetKey("resolution.width", "800") && SetKey("resolution.height", "600") &&
         SetKey("dev.qdbg_to_qlog", "1");
}

bool Program::SetKey(const char* key, const char* value) {
  QIni ini(Path("glimra.ini").c_str());
  return ini.SetString(key, value) && ini.Write(nullptr, false);
}

bool Program::WaitForKey(const char* key, const std::string& value, int ms) const {
  return Poll(ms, [&] { return Key(key) == value; });
}

void Program::ExpectOrderlyExit(int status) {
  EXPECT_EQ(WaitExit(kStartMs), status);
  const std::string log = Log();
  const size_t exitAt = log.find("RaceManager: exit; releasing the slideshow");
  EXPECT_NE(exitAt, std::string::npos) << log;
  EXPECT_NE(log.find("RaceManager: released", exitAt == std::string::npos ? 0 : exitAt),
            std::string::npos)
      << log;
}

std::string Program::Key(const char* key) const {
  QIni ini(Path("glimra.ini").c_str(), QIni::SILENT);
  qstring v;
  ini.GetString(key, &v, "");
  return v.cstr();
}

bool Program::Start(const char* arg) {
  // Started from elsewhere, as a shell or a second program would: glimra finds its own folder.
  return Run(Path("glimra"), arg ? std::vector<std::string>{arg} : std::vector<std::string>{},
             "/");
}

bool Program::Run(const std::string& exe, const std::vector<std::string>& args,
                  const std::string& cwd) {
  std::vector<std::string> argv{exe};
  argv.insert(argv.end(), args.begin(), args.end());
  const char* asan = getenv("ASAN_OPTIONS");
  const char* lsan = getenv("LSAN_OPTIONS");
  // The leak report decides, not the exit status: the driver's own blocks are not leaks of ours.
  pid_ = Spawn(argv, Path("out.txt"), cwd.empty() ? dir_ : cwd,
               {"ASAN_OPTIONS=" + std::string(asan ? asan : "") + ":detect_leaks=1",
                "LSAN_OPTIONS=" + std::string(lsan ? lsan : "") + ":exitcode=0"});
  return pid_ > 0;
}

int Program::WaitExit(int ms) {
  int status = 0;
  if (pid_ <= 0 || !Poll(ms, [&] { return waitpid(pid_, &status, WNOHANG) == pid_; })) return -1;
  pid_ = -1;
  for (const std::string& leak : OwnLeaks(ReadFile("out.txt"))) ADD_FAILURE() << leak;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -2;
}

std::string Program::WindowId(int ms) {
  std::string id;
  Poll(ms, [&] {
    std::istringstream in(Capture("xdotool search --pid " + std::to_string(pid_) + " 2>/dev/null"));
    return bool(in >> id);
  });
  return id;
}

bool Program::Keys(const std::string& keys, int delayMs) {
  const std::string id = WindowId(5000);
  if (id.empty()) return false;
  // --sync waits for the focus; the time-out keeps a lost window from hanging the test.
  return system(("timeout 10 xdotool windowfocus --sync " + id + " key --delay " +
                 std::to_string(delayMs) + " " + keys +
                 " >/dev/null 2>&1").c_str()) == 0;
}

bool Program::Send(const std::string& bytes) const { return SendUdp(port_, bytes); }

std::string Program::ReadFile(const std::string& name) const { return ::ReadFile(Path(name)); }

bool Program::WaitForLog(const std::string& text, int ms, int count) const {
  return Poll(ms, [&] { return Count(Log(), text) >= count; });
}

}  // namespace e2e
