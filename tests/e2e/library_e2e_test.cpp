// glimra on a photo library: nested folders shown whole in name order, in date order and
// shuffled, the show resumed where it stood after a restart, and an index that is garbage, was
// being written when the program was killed, or lies where nothing can be written.
#include <sys/time.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <set>

#include "support/e2e.h"

namespace fs = std::filesystem;

namespace {

using namespace e2e;

using LibraryE2E = ScreenTest<640, 480>;

// The library: three levels deep, a hidden folder and a link back to its top. In name order
// 2019/b, 2019/Holidays/Norway/c, a, z; by date taken a (2015), z (no EXIF, file time 2016),
// c (2017), b (2019). `more` adds pictures m0.. at the top.
const char* const kByName[] = {"2019/b.jpg", "2019/Holidays/Norway/c.jpg", "a.jpg", "z.jpg"};
const char* const kByDate[] = {"a.jpg", "z.jpg", "2019/Holidays/Norway/c.jpg", "2019/b.jpg"};

bool MakeLibrary(const std::string& root, int more = 0) {
  fs::create_directories(root + "/2019/Holidays/Norway");
  fs::create_directories(root + "/.hidden");
  const std::pair<const char*, const char*> dated[] = {
      {"2019/b.jpg", "2019:06:01 12:00:00"},
      {"2019/Holidays/Norway/c.jpg", "2017:03:04 05:06:07"},
      {"a.jpg", "2015:01:02 03:04:05"}};
  for (const auto& d : dated) {
    const std::string file = root + "/" + d.first;
    if (!Uniform(file, kRed)) return false;
    Capture("exiftool -q -overwrite_original '-DateTimeOriginal=" + std::string(d.second) + "' '" +
            file + "'");
  }
  if (!Uniform(root + "/z.jpg", kGreen) || !Uniform(root + "/.hidden/h.jpg", kBlue)) return false;
  const timeval june2016[2] = {{1464739200, 0}, {1464739200, 0}};
  if (utimes((root + "/z.jpg").c_str(), june2016) != 0) return false;
  for (int i = 0; i < more; ++i)
    if (!Uniform(root + "/m" + std::to_string(i) + ".jpg", kWhite)) return false;
  return symlink("../..", (root + "/2019/Holidays/back").c_str()) == 0 &&
         Capture("exiftool -s3 -DateTimeOriginal '" + root + "/a.jpg'").find("2015") == 0;
}

// The pictures the log says were put on the screen, in order.
std::vector<std::string> Shown(const std::string& log) {
  std::vector<std::string> out;
  const std::string key = "Load times (";
  for (size_t at = log.find(key); at != std::string::npos; at = log.find(key, at + 1)) {
    const size_t from = at + key.size();
    out.push_back(log.substr(from, log.find(')', from) - from));
  }
  return out;
}

// Warnings about the index in the log.
int IndexWarnings(const std::string& log) {
  int n = 0;
  for (size_t at = log.find("(WARN"); at != std::string::npos; at = log.find("(WARN", at + 1))
    n += log.substr(at, log.find('\n', at) - at).find("ndex '") != std::string::npos;
  return n;
}

// A program on the library in its folder's "L" with these keys.
bool Prepare(Program* p, const std::vector<std::pair<const char*, const char*>>& keys,
             int more = 0) {
  if (!p->Prepare() || !MakeLibrary(p->Path("L"), more)) return false;
  bool ok =
      p->SetKey("app.startup_directory", p->Path("L").c_str()) && p->SetKey("app.recursive", "1");
  for (const auto& k : keys) ok = ok && p->SetKey(k.first, k.second);
  return ok;
}

// Starts `p`, waits for the whole library to be listed (`pictures`), then steps Right `steps`
// times, each once the last picture is shown; answers every picture shown by this start.
std::vector<std::string> Show(Program* p, int pictures, int steps) {
  // The log goes on from start to start.
  const size_t before = Shown(p->Log()).size();
  const std::string listed = "Library listed: " + std::to_string(pictures) + " pictures";
  if (!p->Start() || !p->WaitForLog(listed, kStartMs, Count(p->Log(), listed) + 1) ||
      !Poll(kStepMs, [&] { return Shown(p->Log()).size() > before; }))
    return {};
  for (int i = 0; i < steps; ++i) {
    const size_t n = Shown(p->Log()).size();
    if (!p->Keys("Right", 0) || !Poll(kStepMs, [&] { return Shown(p->Log()).size() > n; })) break;
  }
  const std::vector<std::string> all = Shown(p->Log());
  return std::vector<std::string>(all.begin() + long(before), all.end());
}

TEST_F(LibraryE2E, NestedLibraryShownWholeByNameAndByDateTakenResumedAfterARestartAndWatched) {
  if (!Have("exiftool")) GTEST_SKIP() << "needs exiftool";
  for (const char* order : {"name", "date"}) {
    Program p;
    ASSERT_TRUE(
        Prepare(&p, {{"app.order", order}, {"app.resume", "1"}, {"app.watch_directory", "1"}}));
    // The first found shows at once; after it the order goes round, each picture once.
    const std::vector<std::string> shown = Show(&p, 4, 4);
    const char* const* want = std::string(order) == "name" ? kByName : kByDate;
    ASSERT_EQ(shown.size(), 5u) << p.Log();
    EXPECT_EQ(shown[0], "2019/b.jpg");
    const size_t at = std::string(order) == "name" ? 0 : 3;  // b's place in the order
    for (size_t i = 1; i < shown.size(); ++i) EXPECT_EQ(shown[i], want[(at + i) % 4]) << order;
    EXPECT_EQ(p.Log().find(".hidden"), std::string::npos);
    ASSERT_EQ(p.Escape(), 0);
    const std::vector<std::string> after = Show(&p, 4, 1);
    ASSERT_EQ(after.size(), 2u) << p.Log();
    EXPECT_EQ(after[0], shown.back()) << "resumed at the picture shown last";
    // Watched: a picture in a folder made now joins.
    fs::create_directories(p.Path("L/2020/new"));
    ASSERT_TRUE(Uniform(p.Path("L/2020/new/n.jpg"), kBlue));
    EXPECT_TRUE(p.WaitForLog("Library listed: 5 pictures", kStepMs)) << p.Log();
    EXPECT_EQ(p.Escape(), 0);
  }
}

TEST_F(LibraryE2E, ShuffleShowsEveryPictureOnceARoundAndResumesItsRound) {
  Program p;
  ASSERT_TRUE(Prepare(&p, {{"app.order", "shuffle"}, {"app.resume", "1"}}, 2));
  // Three of the round, a restart, and the rest of it: six different pictures.
  std::vector<std::string> round = Show(&p, 6, 2);
  ASSERT_EQ(round.size(), 3u) << p.Log();
  ASSERT_EQ(p.Escape(), 0);
  const std::vector<std::string> after = Show(&p, 6, 3);
  ASSERT_EQ(after.size(), 4u) << p.Log();
  EXPECT_EQ(after[0], round.back()) << "resumed at the picture shown last";
  round.insert(round.end(), after.begin() + 1, after.end());
  EXPECT_EQ(std::set<std::string>(round.begin(), round.end()).size(), 6u) << p.Log();
  // The next round: again each once, and not starting with the picture just shown.
  const size_t n = Shown(p.Log()).size();
  for (int i = 0; i < 6; ++i) {
    ASSERT_TRUE(p.Keys("Right", 0));
    ASSERT_TRUE(Poll(kStepMs, [&] { return Shown(p.Log()).size() > n + size_t(i); }));
  }
  const std::vector<std::string> all = Shown(p.Log());
  const std::vector<std::string> next(all.end() - 6, all.end());
  EXPECT_NE(next[0], round.back());
  EXPECT_EQ(std::set<std::string>(next.begin(), next.end()).size(), 6u) << p.Log();
  EXPECT_EQ(p.Escape(), 0);
}

TEST_F(LibraryE2E, GarbageKilledOrUnwritableIndexLeavesAWorkingShow) {
  // Garbage where the index should be: set aside with a warning and made anew. Then killed
  // while a library of 3,000 was being written into the new one: the next start has a sound
  // index and lists everything, without another warning.
  Program p;
  ASSERT_TRUE(Prepare(&p, {{"app.max_pictures", "0"}}));
  for (int i = 0; i < 3000; ++i)
    fs::create_hard_link(p.Path("L/a.jpg"), p.Path("L/2019/k" + std::to_string(i) + ".jpg"));
  std::string garbage(4096, '\0');
  for (size_t i = 0; i < garbage.size(); ++i) garbage[i] = char(i * 131 + 7);
  ASSERT_TRUE(WriteFile(p.Path("glimra.index"), garbage));
  ASSERT_TRUE(p.Start());
  const std::string wal = p.Path("glimra.index-wal");
  ASSERT_TRUE(Poll(kStartMs, [&] { return fs::exists(wal) && fs::file_size(wal) > 65536; }));
  kill(p.Pid(), SIGKILL);
  EXPECT_EQ(p.WaitExit(kStepMs), -2);
  ASSERT_EQ(Show(&p, 3004, 0).size(), 1u) << p.Log();
  EXPECT_EQ(IndexWarnings(p.Log()), 1) << p.Log();
  EXPECT_EQ(p.ReadFile("glimra.index").compare(0, 15, "SQLite format 3"), 0);
  ASSERT_EQ(p.Escape(), 0);

  // An index where nothing can be written, not even by root: one warning, and the show goes on
  // without it.
  ASSERT_TRUE(p.SetKey("app.index_file", "/proc/glimra.index"));
  ASSERT_EQ(Show(&p, 3004, 1).size(), 2u) << p.Log();
  EXPECT_EQ(IndexWarnings(p.Log()), 2) << p.Log();
  EXPECT_EQ(p.Escape(), 0);
}

}  // namespace
