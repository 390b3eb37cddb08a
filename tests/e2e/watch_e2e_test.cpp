// glimra watching a folder: pictures join once complete, at their place, and leave without an
// error; a rewritten neighbour, links, and the folder replaced or made again are followed.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <thread>

#include "support/e2e.h"

namespace fs = std::filesystem;

namespace {

using namespace e2e;

// The information line's first row ("File n of m").
std::vector<uint32_t> InfoLine(const Screen& s) {
  std::vector<uint32_t> px;
  for (int y = 8; y < 30; ++y)
    for (int x = 8; x < 160; ++x) px.push_back(s.At(x, y));
  return px;
}

// Waits until the program has followed the folder to `pictures` listed, none being written.
bool Listed(const Program& p, int pictures, int times = 1) {
  return p.WaitForLog(": " + std::to_string(pictures) + " pictures, 0 being written", kStepMs,
                      times);
}

using WatchE2E = ScreenTest<800, 600>;

TEST_F(WatchE2E, PicturesJoinWhenCompleteAndLeaveWithoutAnError) {
  Program p;
  ASSERT_TRUE(p.Prepare() && p.SetKey("app.watch_directory", "1"));
  // The pictures' folder apart from the program's, so that it can be replaced.
  const std::string dir = p.Path("S");
  ASSERT_TRUE(p.SetKey("app.startup_directory", dir.c_str()) && fs::create_directory(dir));
  const auto in = [&dir](const char* name) { return dir + "/" + name; };
  const auto right = [&](uint32_t shown) { return p.Keys("Right") && Shows(shown); };
  // The pictures to copy in wait outside the folder.
  TempDir spare("watch_e2e");
  ASSERT_TRUE(Uniform(spare.File("a.tga"), kRed) && Uniform(spare.File("b.tga"), kGreen) &&
              Uniform(spare.File("z.tga"), kBlue));
  const std::string b = ReadFile(spare.File("b.tga"));
  const size_t half = b.size() / 2;
  ASSERT_TRUE(p.Start());
  // A file whose writing began before the watch is not known to be unfinished.
  ASSERT_TRUE(p.WaitForLog("for changes", kStartMs)) << p.Log();

  // Half of b, a pause and a Right on the empty list: nothing shown, nothing loaded.
  FILE* f = fopen(in("b.tga").c_str(), "wb");
  ASSERT_NE(f, nullptr);
  ASSERT_EQ(fwrite(b.data(), 1, half, f), half);
  fflush(f);
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  ASSERT_TRUE(p.Keys("Right"));
  // z arrives complete: the folder's first picture shows by itself, and its listing leaves b out.
  fs::copy_file(spare.File("z.tga"), in("z.tga"));
  EXPECT_TRUE(Shows(kBlue)) << p.Log();
  ASSERT_TRUE(p.WaitForLog(": 1 pictures, 1 being written", kStepMs)) << p.Log();
  const std::vector<uint32_t> oneListed = InfoLine(screen_);

  // a copied in: the count changes under z, and Right goes to a (listed before z, wrapping).
  fs::copy_file(spare.File("a.tga"), in("a.tga"));
  EXPECT_TRUE(Sees([&](const Screen& s) {
    return Is(s.At(400, 300), kBlue) && InfoLine(s) != oneListed;
  })) << "the information line's count";
  EXPECT_TRUE(right(kRed));
  EXPECT_EQ(p.Log().find("(b.tga"), std::string::npos) << p.Log();

  // b complete: the next Right shows it.
  ASSERT_EQ(fwrite(b.data() + half, 1, b.size() - half, f), b.size() - half);
  ASSERT_EQ(fclose(f), 0);
  ASSERT_TRUE(Listed(p, 3)) << p.Log();
  EXPECT_TRUE(right(kGreen));

  // z, prefetched blue, replaced by a white one of the same size and time: the step shows white.
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  ASSERT_TRUE(Uniform(in("z.white"), kWhite));
  fs::last_write_time(in("z.white"), fs::last_write_time(in("z.tga")));
  fs::rename(in("z.white"), in("z.tga"));
  ASSERT_TRUE(Listed(p, 3, 2)) << p.Log();
  EXPECT_TRUE(right(kWhite));

  // The shown z and the next one, a, go: z stays on the screen, and Right goes on to b.
  ASSERT_TRUE(fs::remove(in("z.tga")) && fs::remove(in("a.tga")));
  ASSERT_TRUE(Listed(p, 1)) << p.Log();
  EXPECT_TRUE(Shows(kWhite));
  EXPECT_TRUE(right(kGreen));

  std::string log = p.Log();
  EXPECT_EQ(log.find("Can't load image"), std::string::npos) << log;

  // Links are complete when they come (a symbolic one to blue z, a hard one to red whose first
  // name went); a dangling one and one to a folder are no pictures.
  const int threes = Count(p.Log(), ": 3 pictures, 0 being written");
  ASSERT_EQ(symlink(spare.File("z.tga").c_str(), in("c.tga").c_str()), 0);
  fs::copy_file(spare.File("a.tga"), spare.File("h.tga"));
  ASSERT_EQ(link(spare.File("h.tga").c_str(), in("d.tga").c_str()), 0);
  ASSERT_TRUE(fs::remove(spare.File("h.tga")));
  ASSERT_EQ(symlink("/nowhere.tga", in("e.tga").c_str()), 0);
  ASSERT_EQ(symlink(spare.Path().c_str(), in("f.tga").c_str()), 0);
  ASSERT_TRUE(Listed(p, 3, threes + 1)) << p.Log();
  EXPECT_TRUE(right(kBlue));
  EXPECT_TRUE(right(kRed));
  // After d the list wraps round to b: the dead-end links are not in it.
  EXPECT_TRUE(right(kGreen)) << p.Log();

  // Replaced the way signs are updated: said, entered, its first picture shown.
  const std::string cwd = "/proc/" + std::to_string(p.Pid()) + "/cwd";
  ASSERT_TRUE(fs::create_directory(p.Path("S.new")) && Uniform(p.Path("S.new/m.tga"), kWhite));
  fs::rename(dir, p.Path("S.old"));
  fs::rename(p.Path("S.new"), dir);
  fs::remove_all(p.Path("S.old"));
  EXPECT_TRUE(Shows(kWhite)) << p.Log();
  EXPECT_EQ(fs::read_symlink(cwd).string(), dir);
  // Deleted, made again a moment later and filled: the same.
  fs::remove_all(dir);
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  ASSERT_TRUE(fs::create_directory(dir));
  fs::copy_file(spare.File("b.tga"), in("k.tga"));
  EXPECT_TRUE(Shows(kGreen)) << p.Log();
  EXPECT_EQ(fs::read_symlink(cwd).string(), dir);
  log = p.Log();
  EXPECT_EQ(Count(log, "the folder was deleted or moved away"), 2) << log;
  // The watcher ends with the program (and under the sanitizers leaves nothing behind).
  EXPECT_EQ(p.Escape(), 0);
}

}  // namespace
