// glimra from outside: stepping, "load" commands, the hand-off of a second start, an over-long
// command, turned pictures, the effect keys written back to glimra.ini, portrait pairs, and
// Escape.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <utility>
#include <vector>

#include "support/e2e.h"

namespace {

using namespace e2e;

// Something near white in the rectangle: overlay text (white over a black shadow).
bool Ink(const Screen& s, int x0, int y0, int x1, int y1) {
  for (int y = y0; y < y1; ++y)
    for (int x = x0; x < x1; ++x)
      if (Is(s.At(x, y), 0xFFFFFF, 30)) return true;
  return false;
}

// Per column of x0 .. x0 + w - 1, how much brighter than `ground` rows y0 .. y0 + 17 are.
std::vector<double> InkColumns(const Screen& s, int x0, int y0, int w, int ground) {
  std::vector<double> ink(size_t(std::max(w, 0)), 0.0);
  for (int x = 0; x < w; ++x)
    for (int y = y0; y < y0 + 18; ++y) ink[size_t(x)] += std::max(0, G(s.At(x0 + x, y)) - ground);
  return ink;
}

// `text` as ImageMagick renders it from DejaVu Sans at 14 pixels, white ink per column; empty
// when it cannot.
std::vector<double> ReferenceInk(const std::string& text) {
  std::istringstream in(Capture("convert -background black -fill white -font DejaVu-Sans "
                                "-pointsize 14 label:'" + text + "' -depth 8 pgm:-"));
  std::string magic;
  int w = 0, h = 0, max = 0;
  if (!(in >> magic >> w >> h >> max) || magic != "P5" || max != 255 || w <= 0) return {};
  in.get();
  std::string px(size_t(w) * size_t(h), '\0');
  if (!in.read(&px[0], std::streamsize(px.size()))) return {};
  std::vector<double> ink(size_t(w), 0.0);
  for (size_t i = 0; i < px.size(); ++i) ink[i % size_t(w)] += static_cast<unsigned char>(px[i]);
  return ink;
}

// The best correlation of `ref` with `screen` (taken from 4 columns earlier) over shifts of up
// to 4 columns either way.
double Match(const std::vector<double>& screen, const std::vector<double>& ref) {
  double best = -1.0;
  for (int shift = 0; shift <= 8; ++shift) {
    double sa = 0, sb = 0, saa = 0, sbb = 0, sab = 0;
    const double n = double(ref.size());
    for (size_t i = 0; i < ref.size(); ++i) {
      const double a = ref[i], b = i + size_t(shift) < screen.size() ? screen[i + shift] : 0.0;
      sa += a, sb += b, saa += a * a, sbb += b * b, sab += a * b;
    }
    const double den = std::sqrt((saa - sa * sa / n) * (sbb - sb * sb / n));
    if (den > 0) best = std::max(best, (sab - sa * sb / n) / den);
  }
  return best;
}

// A file or key and the colour it shows.
using Shown = std::pair<const char*, uint32_t>;

class SlideshowE2E : public ScreenTest<800, 600> {
 protected:
  // Starts `p` and waits until the screen satisfies `ok`.
  void StartShowing(Program* p, const char* arg, const std::function<bool(const Screen&)>& ok) {
    ASSERT_TRUE(p->Start(arg) && Sees(ok, kStartMs)) << p->Log();
  }
  // Presses each key and expects its colour.
  void Steps(Program* p, std::initializer_list<Shown> steps) {
    for (const Shown& step : steps) {
      ASSERT_TRUE(p->Keys(step.first));
      EXPECT_TRUE(Shows(step.second)) << step.first;
    }
  }
};

TEST_F(SlideshowE2E, StepsWrapCommandsLoadIgnoreOrFailASecondStartHandsOverAnOverLongOneEnds) {
  Program p;
  ASSERT_TRUE(p.Prepare());
  std::filesystem::create_directory(p.Path("extra"));
  const Shown files[] = {{"a.tga", kRed}, {"b.tga", kGreen}, {"c.tga", kBlue},
                         {"extra/p.tga", kWhite}};
  for (const Shown& f : files) ASSERT_TRUE(Uniform(p.Path(f.first), f.second));
  // Broken files, outside the catalogue: junk named .jpg, empty.
  ASSERT_TRUE(WriteFile(p.Path("extra/bad.jpg"), "this is not a picture") &&
              WriteFile(p.Path("extra/empty.tga"), ""));

  StartShowing(&p, nullptr, [](const Screen& s) { return Is(s.At(400, 300), kRed); });
  // Right after the last picture wraps to the first, Left from the first to the last.
  Steps(&p, {{"Right", kGreen}, {"Right", kBlue}, {"Right", kRed}, {"Left", kBlue}});

  // A path outside the catalogue is shown and appended, so Right then wraps to the first.
  ASSERT_TRUE(p.Send("load extra/p.tga"));
  EXPECT_TRUE(Shows(kWhite));
  EXPECT_TRUE(p.WaitForLog("Adding 'extra/p.tga' to dir contents", kStepMs));
  ASSERT_TRUE(p.Keys("Right"));
  EXPECT_TRUE(Shows(kRed));

  // Files that do not load leave the picture as it was; a line end belongs to the path.
  for (const char* path : {"extra/bad.jpg", "extra/empty.tga", "gone.tga", "", "c.tga\n"}) {
    ASSERT_TRUE(p.Send(std::string("load ") + path));
    EXPECT_TRUE(p.WaitForLog("Can't load image (" + std::string(path) + ")", kStepMs)) << path;
  }
  usleep(300 * 1000);
  ASSERT_TRUE(GrabScreen(&screen_));
  EXPECT_TRUE(Is(screen_.At(400, 300), kRed));
  EXPECT_TRUE(Is(screen_.At(5, 595), kRed)) << "the picture still fills the window";
  EXPECT_EQ(p.Log().find("Adding 'c.tga'"), std::string::npos);

  // A second start hands its argument over and ends: to the port its own glimra.ini names (port
  // plus offset), and from another folder with a relative path made absolute.
  Program second;
  ASSERT_TRUE(second.Prepare(p.Port() - 3) && second.SetKey("dev.port_offset", "3"));
  ASSERT_TRUE(second.Start("C:\\Pictures\\a.jpg"));
  EXPECT_EQ(second.WaitExit(kStartMs), 0);
  // Exactly these bytes: no terminating zero on the wire.
  EXPECT_TRUE(p.WaitForLog("in 22 bytes (load C:\\Pictures\\a.jpg)", kStepMs)) << p.Log();
  EXPECT_NE(second.ReadFile("out.txt").find("Already running; pass arg to existing app"),
            std::string::npos);
  // No application object, hence no window: no log line tagged with its name.
  EXPECT_EQ(second.Log().find("[glimra]"), std::string::npos) << second.Log();

  TempDir elsewhere("glimra_elsewhere");
  ASSERT_TRUE(Uniform(elsewhere.Path() + "/pic.jpg", kBlue));
  Program third;
  ASSERT_TRUE(third.MakeDir() && third.Run(p.Path("glimra"), {"pic.jpg"}, elsewhere.Path()));
  EXPECT_EQ(third.WaitExit(kStartMs), 0);
  EXPECT_TRUE(Shows(kBlue)) << p.Log();
  const std::string cmd = "load " + elsewhere.Path() + "/pic.jpg";
  EXPECT_TRUE(p.WaitForLog("in " + std::to_string(cmd.size()) + " bytes (" + cmd + ")", kStepMs))
      << p.Log();

  // An over-long command ends the program with 1 through the exit path.
  const auto sent = std::chrono::steady_clock::now();
  ASSERT_TRUE(p.Send(std::string(1024, 'x')));
  p.ExpectOrderlyExit(1);
  EXPECT_LT(std::chrono::steady_clock::now() - sent, kStopWithin);
  EXPECT_NE(p.Log().find("Command of 1024 bytes from 127.0.0.1:"), std::string::npos) << p.Log();
}

// Camera and UTF-8 names load by their own bytes, in listing order; an absolute start path is
// its entry; the keypad steps; a long path loads; damaged JPEGs show what decoded; the caption
// writes the date taken in the system's locale.
TEST_F(SlideshowE2E, RealFolderNamesLoadAsWrittenEffectKeysShowAndTurnedPicturesStandUp) {
  Program p;
  ASSERT_TRUE(p.Prepare() && p.SetKey("effects.caption", "{date} \xC2\xB7 {folder}"));
  // Listing order: upper-cased bytes, so the UTF-8 name (0xC3...) comes last.
  const Shown files[] = {{"DSC 0002.Jpg", kRed}, {"IMG_0001.JPG", kGreen}, {"z.jpeg", kBlue},
                         {"\xC3\xA9t\xC3\xA9.tga", kWhite}};
  for (const Shown& f : files) ASSERT_TRUE(Uniform(p.Path(f.first), f.second));

  StartShowing(&p, p.Path("IMG_0001.JPG").c_str(),
               [](const Screen& s) { return Is(s.At(400, 300), kGreen); });
  Steps(&p, {{"Right", kBlue}, {"Right", kWhite}, {"KP_Right", kRed}, {"KP_Right", kGreen},
             {"KP_Left", kRed}, {"Left", kWhite}});
  const std::string log = p.Log();
  EXPECT_EQ(log.find("Can't load image"), std::string::npos) << log;
  EXPECT_EQ(log.find("to dir contents"), std::string::npos) << "a listed picture was added again";

  // A path of more than 300 characters.
  std::string deep = p.Path("");
  while (deep.size() < 300) deep += std::string(40, 'd') + "/";
  std::filesystem::create_directories(deep);
  ASSERT_TRUE(Uniform(deep + "far.tga", kRed) && p.Send("load " + deep + "far.tga"));
  EXPECT_TRUE(Shows(kRed));

  // Yellow over magenta with some grain, so that the bytes spread over the rows.
  const auto halves = [](int x, int y) {
    const uint32_t grain = uint32_t((x * 7 + y * 13) % 16);
    return (y < 240 ? 0xE6E614u : 0xE614E6u) - grain;
  };
  ASSERT_TRUE(WritePicture(p.Path("whole.jpg"), 320, 480, halves));
  const std::string bytes = p.ReadFile("whole.jpg");
  ASSERT_TRUE(WriteFile(p.Path("cut.jpg"), bytes.substr(0, bytes.size() * 6 / 10)));
  ASSERT_TRUE(p.Send("load cut.jpg"));
  EXPECT_TRUE(Sees([](const Screen& s) { return Is(s.At(400, 100), 0xE6E614, 40); }));
  EXPECT_EQ(p.Log().find("Can't load image"), std::string::npos);

  // Left half (100, 200, 50), right half (250, 10, 90); lossless, so the grey is exact.
  ASSERT_TRUE(WritePicture(p.Path("g.tga"), 40, 30,
                           [](int x, int) { return x < 20 ? 0x64C832u : 0xFA0A5Au; }));
  ASSERT_TRUE(WriteQuadrants(p.Path("o3.jpg"), 3));
  ASSERT_TRUE(p.Send("load g.tga") &&
              Sees([](const Screen& s) { return Is(s.At(200, 300), 0x64C832, 2); }));
  EXPECT_TRUE(Ink(screen_, 10, 30, 150, 48)) << "file name and size";

  // Grey is 0.21 r + 0.71 g + 0.08 b, truncated: 167 and 66 (video weights would give 153, 90).
  const struct {
    const char* key;
    bool (*shows)(const Screen&);
    const char *setting, *value;
  } steps[] = {
      {"b",
       [](const Screen& s) {
         return Is(s.At(200, 300), 0xA7A7A7, 1) && Is(s.At(600, 300), 0x424242, 1);
       },
       "effects.black_and_white", "1"},
      {"c", [](const Screen& s) { return Is(s.At(600, 300), 0xFA0A5A, 2); },
       "effects.black_and_white", "0"},
      {"i", [](const Screen& s) { return !Ink(s, 10, 10, 150, 48); }, "effects.show_info", "0"},
      {"i", [](const Screen& s) { return Ink(s, 10, 10, 90, 28); }, "effects.show_info", "1"}};
  for (const auto& step : steps) {
    ASSERT_TRUE(p.Keys(step.key));
    EXPECT_TRUE(Sees(step.shows)) << step.key;
    EXPECT_EQ(p.Key(step.setting), step.value) << step.key;
  }

  // Cyrillic and Greek names in the information line: the glyphs ImageMagick draws from the
  // same face at the same size, not each other's and not boxes.
  const std::string names[] = {"\xD0\x96\xD0\xB8\xD0\xB7\xD0\xBD\xD1\x8C",   // Жизнь
                               "\xCE\x9B\xCF\x8C\xCE\xB3\xCE\xBF\xCF\x82"};  // Λόγος
  std::vector<double> shown[2], ref[2];
  for (int i = 0; i < 2; ++i) {
    ref[i] = ReferenceInk(names[i]);
    ASSERT_GT(ref[i].size(), 20u) << "ImageMagick's rendering of " << names[i];
    // Green 0x20 on both, told apart by red and blue.
    const uint32_t ground = i ? 0x302030 : 0x202020;
    ASSERT_TRUE(Uniform(p.Path(names[i] + ".tga"), ground));
    ASSERT_TRUE(p.Send("load " + names[i] + ".tga") &&
                Sees([&](const Screen& s) { return Is(s.At(400, 300), ground, 4); }));
    shown[i] = InkColumns(screen_, 6, 30, int(ref[i].size()) + 8, 0x20);
  }
  for (int i = 0; i < 2; ++i) {
    EXPECT_GT(Match(shown[i], ref[i]), 0.9) << names[i];
    EXPECT_LT(Match(shown[i], ref[1 - i]), Match(shown[i], ref[i]) - 0.2) << names[i];
  }
  EXPECT_EQ(p.Log().find("show as boxes"), std::string::npos);

  // A half turn (orientation 3) fills the window.
  ASSERT_TRUE(p.Send("load o3.jpg"));
  EXPECT_TRUE(Sees([](const Screen& s) {
    return Is(s.At(200, 150), kWhite) && Is(s.At(600, 150), kBlue) &&
           Is(s.At(200, 450), kGreen) && Is(s.At(600, 450), kRed) && s.At(2, 300) &&
           s.At(797, 300);
  })) << p.Log();

  // Captions: without a date the folder alone; with one, both, centred at the bottom.
  const std::string folder = p.Dir().substr(p.Dir().rfind('/') + 1), dated = p.Path("dated.jpg");
  EXPECT_NE(p.Log().find("Caption (g.tga): " + folder + "\n"), std::string::npos) << p.Log();
  const auto caption = [&](const char* date) {
    return "Caption (" + dated + "): " + date + " \xC2\xB7 " + folder + "\n";
  };
  ASSERT_TRUE(WriteFile(dated, ReadBytes(GLIMRA_SOURCE_DIR "/tests/data/exif/titled.jpg")));
  ASSERT_TRUE(p.Send("load " + dated) && p.WaitForLog(caption("7 March 2021"), kStepMs));
  // Its bottom is blue.
  EXPECT_TRUE(Sees([](const Screen& s) {
    return B(s.At(5, 595)) > 180 && R(s.At(5, 595)) < 60 && Ink(s, 150, 530, 650, 600) &&
           !Ink(s, 0, 530, 150, 600) && !Ink(s, 650, 530, 800, 600);
  }));
  // The bottom 70 rows, where the caption is.
  const std::vector<uint32_t> inC(screen_.rgb.end() - 56000, screen_.rgb.end());
  ASSERT_TRUE(p.Keys("Escape"));
  p.ExpectOrderlyExit();

  // The same picture in German: another month's name, so other ink.
  if (!Have("localedef")) {
    std::printf("localedef is missing: the caption in de_DE.UTF-8 is not checked\n");
    return;
  }
  TempDir locales("glimra_locale");
  const std::string localedef = "localedef -i de_DE -f UTF-8 " + locales.Path() + "/de_DE.UTF-8";
  ASSERT_EQ(system(localedef.c_str()), 0);
  setenv("LOCPATH", locales.Path().c_str(), 1);
  setenv("LC_ALL", "de_DE.UTF-8", 1);
  const bool started = p.Start(dated.c_str());
  unsetenv("LOCPATH"), unsetenv("LC_ALL");
  ASSERT_TRUE(started && p.WaitForLog(caption("7 M\xC3\xA4rz 2021"), kStartMs)) << p.Log();
  EXPECT_TRUE(Sees([&](const Screen& s) {
    return Ink(s, 150, 530, 650, 600) && !std::equal(inC.begin(), inC.end(), s.rgb.end() - 56000);
  })) << p.Log();
  ASSERT_TRUE(p.Keys("Escape"));
  p.ExpectOrderlyExit();
}

// Two portrait pictures share the window, each on its half (the second one portrait only once
// turned by its EXIF orientation); Right steps past both; a landscape neighbour and the last
// portrait picture show alone; Left comes back to the pair.
TEST_F(SlideshowE2E, PortraitPairsShareTheWindowAndStepTogether) {
  Program p;
  ASSERT_TRUE(p.Prepare() && p.SetKey("effects.portrait_pairs", "1"));
  const auto portrait = [&p](const char* name, uint32_t c) {
    return WritePicture(p.Path(name), 30, 40, [c](int, int) { return c; });
  };
  ASSERT_TRUE(portrait("a.tga", kRed) && WriteQuadrants(p.Path("b.jpg"), 6) &&
              Uniform(p.Path("c.tga"), kBlue) && portrait("d.tga", kWhite));
  // Each 400 x 533 (half the width), together centred; b turned: blue, red over white, green.
  const auto pair = [](const Screen& s) {
    return Is(s.At(200, 300), kRed) && Is(s.At(700, 170), kRed) && Is(s.At(500, 430), kWhite) &&
           Is(s.At(700, 430), kGreen) && s.At(700, 15) == 0 && s.At(200, 585) == 0;
  };
  const auto alone = [](const Screen& s) {
    return Is(s.At(400, 300), kWhite) && s.At(100, 300) == 0 && s.At(700, 300) == 0;
  };
  const auto blue = [](const Screen& s) { return Is(s.At(400, 300), kBlue); };
  StartShowing(&p, nullptr, pair);
  const std::pair<const char*, bool (*)(const Screen&)> steps[] = {
      {"Right", blue}, {"Right", alone}, {"Right", pair},
      {"Left", alone}, {"Left", blue},   {"Left", pair}};
  for (const auto& step : steps) {
    ASSERT_TRUE(p.Keys(step.first));
    EXPECT_TRUE(Sees(step.second)) << step.first << " " << std::hex << screen_.At(400, 300);
  }
  // b.jpg never stood on its own, and the information line names both.
  const std::string log = p.Log();
  EXPECT_EQ(Count(log, "Pair a.tga + b.jpg"), 3) << log;
  EXPECT_EQ(log.find("Load times (b.jpg"), std::string::npos) << log;
  EXPECT_TRUE(Ink(screen_, 10, 10, 150, 28) && Ink(screen_, 200, 30, 300, 48));
  ASSERT_TRUE(p.Keys("Escape"));
  p.ExpectOrderlyExit();
}

}  // namespace
