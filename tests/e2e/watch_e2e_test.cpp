// glimra with app.watch_directory=1, on its own 800 x 600 X server: pictures copied into the
// folder join at their listing place and the information line's count follows, removed ones are
// stepped over without an error, a rewritten neighbour shows its new content, and a picture
// written slowly is neither listed nor loaded before its writer closes it; into an empty folder,
// the first picture that arrives is shown by itself.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/e2e.h"
#include "support/tempdir.h"

namespace fs = std::filesystem;

namespace {

using e2e::Program;
using e2e::Screen;

constexpr int kStartMs = 30000;  // software GL under the sanitizers is slow to come up
constexpr int kStepMs = 10000;

const uint32_t kRed = 0xDC1414, kGreen = 0x14DC14, kBlue = 0x1414DC, kWhite = 0xE6E6E6;

bool Is(uint32_t c, uint32_t want) {
  return e2e::Near(c, e2e::R(want), e2e::G(want), e2e::B(want), 24);
}

bool Uniform(const std::string& path, uint32_t c) {
  return e2e::WritePicture(path, 40, 30, [c](int, int) { return c; });
}

// The information line's first row ("File n of m").
std::vector<uint32_t> InfoLine(const Screen& s) {
  std::vector<uint32_t> px;
  for (int y = 8; y < 30; ++y)
    for (int x = 8; x < 160; ++x) px.push_back(s.At(x, y));
  return px;
}

// What the program logs once it has followed a change: the catalogue's size, nothing pending.
std::string Listed(int pictures) {
  return ": " + std::to_string(pictures) + " pictures, 0 being written";
}

class WatchE2E : public e2e::ScreenTest<800, 600> {
 protected:
  void Prepare(Program* p) {
    ASSERT_TRUE(p->Prepare(e2e::FreeUdpPort()));
    ASSERT_TRUE(p->SetKey("app.watch_directory", "1"));
  }
  bool Centre(uint32_t want) {
    return e2e::WaitForScreen([&](const Screen& s) { return Is(s.At(400, 300), want); }, kStepMs,
                              &screen_);
  }
  // The pictures to copy in wait outside the folder.
  std::string Spare(const std::string& name) const { return spare_.File(name); }

  TempDir spare_{"watch_e2e"};
  Screen screen_;
};

TEST_F(WatchE2E, CopiedPicturesJoinRemovedOnesAreSkippedAndARewrittenOneShowsNew) {
  Program p;
  Prepare(&p);
  for (const auto& [name, colour] :
       std::vector<std::pair<const char*, uint32_t>>{{"a.tga", kRed}, {"c.tga", kBlue},
                                                     {"d.tga", kWhite}})
    ASSERT_TRUE(Uniform(p.Path(name), colour));
  ASSERT_TRUE(Uniform(Spare("b.tga"), kGreen));
  ASSERT_TRUE(p.Start());
  ASSERT_TRUE(e2e::WaitForScreen([](const Screen& s) { return Is(s.At(400, 300), kRed); },
                                 kStartMs, &screen_))
      << p.Log();
  const std::vector<uint32_t> threeListed = InfoLine(screen_);

  // Copied in: listed between a and c, and the count on the screen changes with a staying.
  fs::copy_file(Spare("b.tga"), p.Path("b.tga"));
  ASSERT_TRUE(p.WaitForLog(Listed(4), kStepMs)) << p.Log();
  EXPECT_TRUE(e2e::WaitForScreen(
      [&](const Screen& s) { return Is(s.At(400, 300), kRed) && InfoLine(s) != threeListed; },
      kStepMs, &screen_));
  ASSERT_TRUE(p.Keys("Right"));
  EXPECT_TRUE(Centre(kGreen));

  // The shown picture and the next one go: b stays on the screen, and Right goes on to d.
  ASSERT_EQ(unlink(p.Path("b.tga").c_str()), 0);
  ASSERT_EQ(unlink(p.Path("c.tga").c_str()), 0);
  ASSERT_TRUE(p.WaitForLog(Listed(2), kStepMs)) << p.Log();
  EXPECT_TRUE(Centre(kGreen));
  ASSERT_TRUE(p.Keys("Right"));
  EXPECT_TRUE(Centre(kWhite));

  // a, d's neighbour, was prefetched red; rewritten green in place, the step shows green.
  std::this_thread::sleep_for(std::chrono::seconds(1));
  ASSERT_TRUE(Uniform(p.Path("a.tga"), kGreen));
  ASSERT_TRUE(p.WaitForLog(Listed(2), kStepMs, 2)) << p.Log();
  ASSERT_TRUE(p.Keys("Right"));
  EXPECT_TRUE(Centre(kGreen));

  const std::string log = p.Log();
  EXPECT_EQ(log.find("Can't load image"), std::string::npos) << log;
  ASSERT_TRUE(p.Keys("Escape"));
  EXPECT_EQ(p.WaitExit(kStartMs), 0);
}

TEST_F(WatchE2E, APictureBeingWrittenWaitsForItsCloseAndTheFirstArrivalIsShown) {
  Program p;
  Prepare(&p);
  ASSERT_TRUE(Uniform(Spare("b.tga"), kGreen));
  ASSERT_TRUE(Uniform(Spare("z.tga"), kBlue));
  const std::string bytes = ReadFile(Spare("b.tga"));
  ASSERT_GT(bytes.size(), 100u);
  ASSERT_TRUE(p.Start());
  ASSERT_FALSE(p.WindowId(kStartMs).empty()) << p.Log();
  ASSERT_TRUE(Centre(0x000000));

  // Half of b, then a pause: not shown, not loaded, and Right on an empty list does nothing.
  FILE* f = fopen(p.Path("b.tga").c_str(), "wb");
  ASSERT_NE(f, nullptr);
  ASSERT_EQ(fwrite(bytes.data(), 1, bytes.size() / 2, f), bytes.size() / 2);
  fflush(f);
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  ASSERT_TRUE(p.Keys("Right"));
  // z arrives complete meanwhile: the first picture of the folder shows by itself, and the
  // listing it causes still leaves b out, so Right stays on z.
  fs::copy_file(Spare("z.tga"), p.Path("z.tga"));
  EXPECT_TRUE(Centre(kBlue)) << p.Log();
  ASSERT_TRUE(p.WaitForLog(": 1 pictures, 1 being written", kStepMs)) << p.Log();
  ASSERT_TRUE(p.Keys("Right"));
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  EXPECT_TRUE(Centre(kBlue));
  EXPECT_EQ(p.Log().find("(b.tga"), std::string::npos) << p.Log();

  // Complete: the next Right shows it (b is listed before z, and Right wraps to it).
  ASSERT_EQ(fwrite(bytes.data() + bytes.size() / 2, 1, bytes.size() - bytes.size() / 2, f),
            bytes.size() - bytes.size() / 2);
  ASSERT_EQ(fclose(f), 0);
  ASSERT_TRUE(p.WaitForLog(Listed(2), kStepMs)) << p.Log();
  ASSERT_TRUE(p.Keys("Right"));
  EXPECT_TRUE(Centre(kGreen));

  const std::string log = p.Log();
  EXPECT_EQ(log.find("Can't load image"), std::string::npos) << log;
  ASSERT_TRUE(p.Keys("Escape"));
  EXPECT_EQ(p.WaitExit(kStartMs), 0);
}

}  // namespace
