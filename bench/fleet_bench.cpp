// A fleet of displays steered through the broker, read from the screens: 8 copies of the program
// on one X server (a screen each), every copy in a PID namespace of its own (only one copy runs
// per user otherwise) with its own command port, all in one group. One `next` published to the
// group's topic -> every screen changed; beside it the same `next` published to one copy's own
// topic, and one copy's UDP path (a `next` datagram), in the same run.
//
// The bench starts its own X server (Xvfb, one 640x480 screen) and its own broker (mosquitto on a
// free loopback port, anonymous, loopback only). The copies' windows lie on one another at the
// top left, each 64x48 pixels smaller than the one below it and started after it, so that a strip
// of every window stays in view. The pictures are red, green and blue, so each `next` turns a
// window from one colour to the next; a window counts as changed when a patch of its strip has
// the new colour. Each path runs 20 rounds; the table gives median and worst.
//
// Needs root (for the PID namespaces), Xvfb and mosquitto.
#include <X11/Xlib.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <mosquitto.h>
#include <poll.h>
#include <sys/stat.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_program.h"
#include "framework/qbitmap.h"
#include "framework/qini.h"

namespace fs = std::filesystem;

namespace {

using bench::Clock;
using bench::Seconds;
constexpr int kCopies = 8;
constexpr int kW = 640, kH = 480;
constexpr int kRounds = 20;
constexpr int kFirstUdpPort = 5191;
constexpr const char* kGroup = "fleet";

std::string g_base;  // everything of this run, under /tmp
pid_t g_xvfb = -1, g_broker = -1;
int g_brokerPort = 0;
Display* g_display = nullptr;
std::array<pid_t, kCopies> g_copies{};
mosquitto* g_client = nullptr;
std::atomic<int> g_online{0};  // copies whose status said "online"
// Seconds per round: one group `next` until the last screen changed; one copy by MQTT; by UDP.
std::vector<double> g_group, g_one, g_udp;

std::string Topic(int copy) { return "glimra/fleet-" + std::to_string(copy); }

// Copy `copy`'s window: (0, 0) to its size, under every later (smaller) one.
int WindowW(int copy) { return kW - 64 * copy; }
int WindowH(int copy) { return kH - 48 * copy; }

// Which colour copy `copy`'s window shows in its strip: 1 red, 2 green, 3 blue, 0 none.
int Tint(int copy) {
  const int x = copy + 1 < kCopies ? WindowW(copy + 1) + 32 : 32;
  const unsigned long c = bench::PatchColour(g_display, DefaultRootWindow(g_display), x, 24);
  const long r = (c >> 16) & 255, g = (c >> 8) & 255, b = c & 255;
  if (r > g + 80 && r > b + 80) return 1;
  if (g > r + 80 && g > b + 80) return 2;
  if (b > r + 80 && b > g + 80) return 3;
  return 0;
}

// A loopback TCP port that was free a moment ago.
int FreeTcpPort() {
  const int s = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(a);
  int port = 0;
  if (bind(s, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0 &&
      getsockname(s, reinterpret_cast<sockaddr*>(&a), &len) == 0)
    port = ntohs(a.sin_port);
  close(s);
  return port;
}

// Xvfb of one kW x kH screen on a display it picks; DISPLAY points at it.
bool StartX() {
  int fds[2];
  if (pipe(fds) != 0) return false;
  std::vector<std::string> args{"Xvfb", "-displayfd", std::to_string(fds[1]), "-nolisten", "tcp",
                                "-screen", "0", std::to_string(kW) + "x" + std::to_string(kH) + "x24"};
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  g_xvfb = fork();
  if (g_xvfb == 0) {
    close(fds[0]);
    const int null = open("/dev/null", O_WRONLY);
    if (null >= 0) dup2(null, 1), dup2(null, 2);
    execvp("Xvfb", argv.data());
    _exit(127);
  }
  close(fds[1]);
  char buf[32] = {};
  size_t n = 0;
  pollfd p{fds[0], POLLIN, 0};
  while (n < sizeof(buf) - 1 && !memchr(buf, '\n', n) && poll(&p, 1, 15000) > 0) {
    const ssize_t got = read(fds[0], buf + n, sizeof(buf) - 1 - n);
    if (got <= 0) break;
    n += size_t(got);
  }
  close(fds[0]);
  if (g_xvfb < 0 || !memchr(buf, '\n', n)) return false;
  setenv("DISPLAY", (":" + std::to_string(atoi(buf))).c_str(), 1);
  g_display = XOpenDisplay(nullptr);
  return g_display != nullptr;
}

// mosquitto on a free loopback port, anonymous: the bench measures the path, not the accounts.
bool StartBroker() {
  g_brokerPort = FreeTcpPort();
  const std::string conf = g_base + "/mosquitto.conf";
  std::ofstream(conf) << "listener " << g_brokerPort << " 127.0.0.1\nallow_anonymous true\n"
                      << "persistence false\nuser root\n";
  g_broker = fork();
  if (g_broker == 0) {
    const int null = open("/dev/null", O_WRONLY);
    if (null >= 0) dup2(null, 1), dup2(null, 2);
    execlp("mosquitto", "mosquitto", "-c", conf.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  if (g_broker < 0) return false;
  // Ready once it takes a connection.
  for (int i = 0; i < 100; ++i) {
    const int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(uint16_t(g_brokerPort));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool up = connect(s, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0;
    close(s);
    if (up) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return false;
}

void OnMessage(mosquitto*, void*, const mosquitto_message* m) {
  if (m->payloadlen == 6 && memcmp(m->payload, "online", 6) == 0) ++g_online;
}

// The bench's own client: publishes the commands and counts the copies that came online.
bool ConnectClient() {
  mosquitto_lib_init();
  g_client = mosquitto_new("fleet-bench", true, nullptr);
  if (!g_client) return false;
  mosquitto_message_callback_set(g_client, OnMessage);
  if (mosquitto_connect(g_client, "127.0.0.1", g_brokerPort, 30) != MOSQ_ERR_SUCCESS ||
      mosquitto_loop_start(g_client) != MOSQ_ERR_SUCCESS)
    return false;
  return mosquitto_subscribe(g_client, nullptr, "glimra/+/status", 0) == MOSQ_ERR_SUCCESS;
}

bool Publish(const std::string& topic, const char* text) {
  return mosquitto_publish(g_client, nullptr, topic.c_str(), int(strlen(text)), text, 0, false) ==
         MOSQ_ERR_SUCCESS;
}

bool PrepareCopies() {
  const std::string pictures = g_base + "/pictures";
  std::error_code ec;
  fs::create_directories(pictures, ec);
  // Red, green, blue: rows of RGBA.
  const uint32_t colours[3] = {0xFF2020DC, 0xFF20DC20, 0xFFDC2020};
  for (int t = 0; t < 3; ++t) {
    QBitMap b;
    if (!b.Alloc(32, kW, kH)) return false;
    uint32_t* px = reinterpret_cast<uint32_t*>(b.GetBuffer());
    std::fill(px, px + size_t(kW) * kH, colours[t]);
    if (!b.WriteJPG((pictures + "/" + char('a' + t) + ".jpg").c_str(), 90)) return false;
  }
  for (int i = 0; i < kCopies; ++i) {
    const std::string dir = g_base + "/copy" + std::to_string(i);
    if (!bench::CopyRunnable(dir)) return false;
    QIni ini((dir + "/glimra.ini").c_str());
    ini.SetString("app.startup_directory", pictures.c_str());
    ini.SetInt("network.port", kFirstUdpPort + i);
    ini.SetInt("resolution.width", WindowW(i));
    ini.SetInt("resolution.height", WindowH(i));
    ini.SetBool("effects.show_info", false);
    ini.SetString("mqtt.host", "127.0.0.1");
    ini.SetInt("mqtt.port", g_brokerPort);
    ini.SetString("mqtt.topic", Topic(i).c_str());
    ini.SetString("mqtt.group", kGroup);
    if (!ini.Write(nullptr, false)) return false;
    // One after another, so that each window comes to lie on the one before.
    g_copies[size_t(i)] = bench::StartProgram(dir, nullptr, true);
    const auto end = Clock::now() + std::chrono::seconds(30);
    while (Clock::now() < end && Tint(i) == 0)
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    if (Tint(i) == 0) {
      fprintf(stderr, "fleet_bench: copy %d shows no picture\n", i);
      return false;
    }
  }
  // Every copy is on the broker.
  const auto end = Clock::now() + std::chrono::seconds(30);
  while (Clock::now() < end && g_online < kCopies)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  if (g_online >= kCopies) return true;
  fprintf(stderr, "fleet_bench: %d of %d copies came online\n", g_online.load(), kCopies);
  return false;
}

// Sends `send`, then polls copies [0, count) until each has left its colour for the next one;
// seconds until the last did, -1 on a time-out.
template <typename Send>
double Round(int count, Send send) {
  // The neighbours of the picture just shown are decoded meanwhile, as between two real commands.
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  std::vector<int> want(static_cast<size_t>(count), 0);
  for (int i = 0; i < count; ++i) want[size_t(i)] = Tint(i) % 3 + 1;
  const auto t0 = Clock::now();
  if (!send()) return -1;
  std::vector<bool> done(static_cast<size_t>(count), false);
  int left = count;
  const auto end = t0 + std::chrono::seconds(10);
  while (left > 0 && Clock::now() < end) {
    for (int i = 0; i < count; ++i)
      if (!done[size_t(i)] && Tint(i) == want[size_t(i)]) done[size_t(i)] = true, --left;
    if (left > 0) std::this_thread::sleep_for(std::chrono::microseconds(500));
  }
  return left == 0 ? Seconds(t0, Clock::now()) : -1;
}

void Measure(benchmark::State& state, std::vector<double>* into, int count,
             const std::function<bool()>& send) {
  for (auto _ : state) {
    const double s = Round(count, send);
    if (s < 0) {
      state.SkipWithError("a window did not change within 10 s");
      return;
    }
    into->push_back(s);
    state.SetIterationTime(s);
  }
}

void BM_GroupNext(benchmark::State& state) {
  Measure(state, &g_group, kCopies,
          [] { return Publish(std::string("glimra/group/") + kGroup + "/cmd", "next"); });
}
void BM_OneNextMqtt(benchmark::State& state) {
  Measure(state, &g_one, 1, [] { return Publish(Topic(0) + "/cmd", "next"); });
}
void BM_OneNextUdp(benchmark::State& state) {
  Measure(state, &g_udp, 1, [] { return bench::SendUdp(kFirstUdpPort, "next"); });
}

void Print(const char* what, const std::vector<double>& v) {
  if (v.empty()) return;
  printf("%-44s median %6.1f ms   worst %6.1f ms   (%zu rounds)\n", what,
         bench::Median(v) * 1000, *std::max_element(v.begin(), v.end()) * 1000, v.size());
}

void Stop() {
  for (pid_t p : g_copies)
    if (p > 0) bench::StopProgram(p, true);
  if (g_client) {
    mosquitto_loop_stop(g_client, true);
    mosquitto_destroy(g_client);
    mosquitto_lib_cleanup();
  }
  if (g_display) XCloseDisplay(g_display);
  for (pid_t p : {g_broker, g_xvfb})
    if (p > 0) kill(p, SIGTERM), waitpid(p, nullptr, 0);
  std::error_code ec;
  if (!g_base.empty()) fs::remove_all(g_base, ec);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  char base[] = "/tmp/glimra-fleet-bench-XXXXXX";
  if (!mkdtemp(base)) return 1;
  g_base = base;
  if (!StartX() || !StartBroker() || !ConnectClient() || !PrepareCopies()) {
    fprintf(stderr, "fleet_bench: needs root, Xvfb and mosquitto; could not start the fleet\n");
    Stop();
    return 1;
  }
  for (auto* b : {benchmark::RegisterBenchmark("Fleet/8_copies/group_next_mqtt", BM_GroupNext),
                  benchmark::RegisterBenchmark("Fleet/1_copy/next_mqtt", BM_OneNextMqtt),
                  benchmark::RegisterBenchmark("Fleet/1_copy/next_udp", BM_OneNextUdp)})
    b->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(kRounds);
  benchmark::RunSpecifiedBenchmarks();
  printf("\ncommand -> screen changed, %d copies on one X server:\n", kCopies);
  Print("group `next` (MQTT) -> all 8 windows", g_group);
  Print("`next` to one copy's topic (MQTT)", g_one);
  Print("`next` datagram to one copy (UDP)", g_udp);
  if (!g_group.empty() && !g_one.empty())
    printf("group of 8 / one copy (medians): %.2f; MQTT / UDP for one copy: %.2f\n",
           bench::Median(g_group) / bench::Median(g_one),
           g_udp.empty() ? 0.0 : bench::Median(g_one) / bench::Median(g_udp));
  Stop();
  benchmark::Shutdown();
  return 0;
}
