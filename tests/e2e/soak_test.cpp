// Months unattended in a minute: 2,000 loads of good and broken pictures, keys in between, a
// watched and shuffled library churning; then it still answers, memory and textures have not
// grown since the first hundred commands, and the log complains of the broken files only.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <random>
#include <thread>
#include <utility>

#include "support/e2e.h"

namespace {

using namespace e2e;

constexpr int kStepMs = 20000;
constexpr int kCommands = 2000;
constexpr int kBurst = 20;        // commands between two looks at the folder churn
constexpr int kKeyEvery = 100;    // commands between two key presses
constexpr int kBaseline = 100;    // memory and textures are compared with this point
const char* const kComplaints[] = {"(ERR", "(WARN", "(CRIT", "(FATAL"};

using SlideshowSoak = ScreenTest<800, 600>;

// The log read on from where the last look ended: a wait costs only what was added since.
class LogTail {
 public:
  explicit LogTail(std::string path) : path_(std::move(path)) {}
  // Waits until `n` more lines hold one of `texts` (kStepMs at most).
  bool WaitFor(const std::vector<std::string>& texts, int n) {
    int seen = 0;
    for (auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kStepMs);
         std::chrono::steady_clock::now() < end;
         std::this_thread::sleep_for(std::chrono::milliseconds(2))) {
      std::ifstream f(path_, std::ios::binary);
      f.seekg(std::streamoff(at_));
      const std::string chunk{std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
      const size_t last = chunk.rfind('\n');
      if (last == std::string::npos) continue;
      at_ += last + 1;
      std::istringstream lines(chunk.substr(0, last + 1));
      for (std::string line; std::getline(lines, line);)
        seen += std::any_of(texts.begin(), texts.end(),
                            [&](const std::string& t) { return line.find(t) != std::string::npos; });
      if (seen >= n) return true;
    }
    return false;
  }

 private:
  std::string path_;
  size_t at_ = 0;
};

TEST_F(SlideshowSoak, TwoThousandLoadsWithKeysLeaveItAnsweringWithoutGrowth) {
  Program p;
  // Commands keep restarting the count; the show steps by itself in the pauses and at the end,
  // through a library (folders below included, watched, shuffled, kept in an index).
  ASSERT_TRUE(p.Prepare() && p.SetKey("dev.idle_sleep_ms", "2") &&
              p.SetKey("app.watch_directory", "1") && p.SetKey("effects.advance_seconds", "1") &&
              p.SetKey("app.recursive", "1") && p.SetKey("app.order", "shuffle"));
  // The sanitizers hold 256 MB of freed blocks back, which would read as growth; a small hold
  // fills within the first hundred commands.
  const std::string asan = getenv("ASAN_OPTIONS") ? getenv("ASAN_OPTIONS") : "";
  ScopedEnv hold("ASAN_OPTIONS", (asan + ":quarantine_size_mb=16").c_str());

  // Good pictures: in the folder (catalogued) and beside it (appended by the first load).
  std::vector<std::string> good = {"g1.jpg", "g3.jpg", "g6.jpg", "g8.jpg", "g.tga",
                                   "more/m.jpg", "more/m.tga"};
  std::filesystem::create_directory(p.Path("more"));
  // The first four are stored turned: the digit in the name is the EXIF orientation.
  for (size_t i = 0; i < 4; ++i)
    ASSERT_TRUE(WritePicture(p.Path(good[i]), 320 - 40 * int(i), 240, Photo) &&
                SetJpegOrientation(p.Path(good[i]), good[i][1] - '0'));
  ASSERT_TRUE(WritePicture(p.Path("g.tga"), 200, 150, Photo) &&
              WritePicture(p.Path("more/m.jpg"), 64, 300, Photo) &&
              WritePicture(p.Path("more/m.tga"), 300, 64, Photo) &&
              WriteQuadrants(p.Path("more/final.jpg"), 8));

  // Broken ones: cut in its header, empty, noise, never there, deleted after the scan (so also
  // reached with the arrow keys).
  const std::vector<std::string> broken = {"cut.jpg", "empty.jpg", "noise.jpg", "gone.jpg",
                                           "deleted.tga"};
  ASSERT_TRUE(WritePicture(p.Path("cut.jpg"), 320, 240, Photo));
  std::filesystem::resize_file(p.Path("cut.jpg"), 160);
  std::mt19937 rng(7);
  std::string noise(5000, 0);
  for (char& c : noise) c = char(rng());
  ASSERT_TRUE(WriteFile(p.Path("noise.jpg"), noise) && WriteFile(p.Path("empty.jpg"), ""));
  ASSERT_TRUE(WritePicture(p.Path("deleted.tga"), 32, 32, Photo));

  ASSERT_TRUE(p.Start());
  const auto started = std::chrono::steady_clock::now();
  // The catalogue's first entry is the cut JPEG: the start shows nothing.
  ASSERT_FALSE(p.WindowId(kStartMs).empty()) << p.Log();
  ASSERT_TRUE(p.WaitForLog("Can't load image (cut.jpg)", kStartMs)) << p.Log();
  std::filesystem::remove(p.Path("deleted.tga"));

  const char* keys[] = {"Right", "b", "Left", "i", "c", "Right", "i", "Left"};
  long baselineKb = -1;
  size_t baselineAt = 0;  // the log's length then
  // Waiting loads are merged, so each is sent once the one before was loaded or refused.
  LogTail tail(p.Path("QLOG.txt"));
  for (int sent = 0; sent < kCommands;) {
    for (int k = 0; k < kBurst; ++k, ++sent) {
      const size_t n = size_t(sent / 2);
      const std::string& path = sent % 2 ? broken[n % broken.size()] : good[n % good.size()];
      ASSERT_TRUE(p.Send("load " + path));
      ASSERT_TRUE(tail.WaitFor({"Load times (", "Can't load image ("}, 1)) << sent;
    }
    // Every fourth burst a picture comes into the folder or goes, and the program follows.
    if ((sent / kBurst) % 4 == 0) {
      const int followed = Count(p.Log(), "Folder changed (");
      if ((sent / kBurst) % 8)
        ASSERT_TRUE(WritePicture(p.Path("churn.jpg"), 160, 120, Photo));
      else
        ASSERT_TRUE(std::filesystem::remove(p.Path("churn.jpg")));
      ASSERT_TRUE(p.WaitForLog("Folder changed (", kStepMs, followed + 1)) << "after " << sent;
    }
    if (sent == kBaseline) {
      baselineKb = ProcValue(p.Pid(), "status", "VmRSS:");
      baselineAt = p.Log().size();
    }
    if (sent % kKeyEvery == 0) {
      const std::string key = keys[(sent / kKeyEvery) % 8];
      ASSERT_TRUE(p.Keys(key));
      // Every key but I loads a picture; the next command waits for it, as for a command.
      if (key != "i") {
        ASSERT_TRUE(tail.WaitFor({"Load times (", "Can't load image ("}, 1)) << key << sent;
      }
    }
  }
  // Left alone, it steps through the folder by itself while pictures come and go.
  const int loadsBefore = Count(p.Log(), "Load times (");
  for (int i = 0; i < 4; ++i) {
    std::error_code absent;  // the loop above may have left it either way
    if (i % 2)
      std::filesystem::remove(p.Path("churn.jpg"), absent);
    else
      ASSERT_TRUE(WritePicture(p.Path("churn.jpg"), 160, 120, Photo));
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  }
  EXPECT_GE(Count(p.Log(), "Load times ("), loadsBefore + 2) << "no automatic steps";
  const long endKb = ProcValue(p.Pid(), "status", "VmRSS:");
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  // Textures each good load reports: the last before the baseline, the highest after it.
  const std::string text = p.Log();
  int loads = 0, baselineTextures = -1, maxTextures = -1, textures = 0;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const size_t semi = line.rfind("; ");
    if (line.find("Load times (") == std::string::npos || semi == std::string::npos) continue;
    ++loads;
    if (sscanf(line.c_str() + semi, "; %d textures", &textures) != 1) continue;
    if (size_t(lines.tellg()) <= baselineAt)
      baselineTextures = textures;
    else
      maxTextures = std::max({maxTextures, baselineTextures, textures});
  }
  const int commands = Count(text, " bytes (load ");
  printf("soak: %d commands, %d good loads in %.1f s; VmRSS %ld kB after %d, %ld kB at the end; "
         "textures %d after %d, at most %d later; %d folder changes followed\n",
         commands, loads, seconds, baselineKb, kBaseline, endKb, baselineTextures, kBaseline,
         maxTextures, Count(text, "Folder changed ("));

  EXPECT_EQ(commands, kCommands);
  // Half the commands were good; the key presses add loads of their own.
  EXPECT_GE(loads, kCommands / 2);
  ASSERT_GT(baselineKb, 0);
  EXPECT_LE(endKb, baselineKb * 11 / 10) << "resident memory grew";
  EXPECT_GE(endKb, baselineKb * 9 / 10);
  EXPECT_GT(baselineTextures, 0);
  EXPECT_EQ(maxTextures, baselineTextures) << "textures are not given back";

  // Still answering: the quadrants turned a quarter anticlockwise (orientation 8).
  ASSERT_TRUE(p.Send("load more/final.jpg"));
  EXPECT_TRUE(Sees([](const Screen& s) {
    return Is(s.At(287, 150), kGreen) && Is(s.At(512, 150), kWhite) && Is(s.At(287, 450), kRed) &&
           Is(s.At(512, 450), kBlue);
  }));

  // Complaints name a broken file, by the loader or its reader; else just a test run's two notes.
  int cantLoad = 0;
  std::istringstream all(p.Log());
  for (std::string line; std::getline(all, line);) {
    if (std::none_of(std::begin(kComplaints), std::end(kComplaints),
                     [&](const char* level) { return line.find(level) != std::string::npos; }) ||
        line.find("dev.qdbg_to_qlog is 1") != std::string::npos ||
        line.find("uses software rendering") != std::string::npos)
      continue;
    bool named = false;
    for (const std::string& b : broken)
      named = named || line.find("(" + b + ")") != std::string::npos;
    const bool loader = line.find("Can't load image (") != std::string::npos;
    cantLoad += loader && named;
    EXPECT_TRUE(named && (loader || line.find("QImage") != std::string::npos)) << line;
  }
  EXPECT_GE(cantLoad, kCommands / 2);

  // It ends cleanly, with nothing reported by the sanitizers on the way.
  EXPECT_EQ(p.Escape(), 0);
  const std::string out = p.ReadFile("out.txt");
  for (const char* report : {"ERROR: AddressSanitizer", "runtime error"}) {
    const size_t at = out.find(report);
    EXPECT_EQ(at, std::string::npos) << out.substr(at < 2000 ? 0 : at - 2000, 30000);
  }
}

}  // namespace
