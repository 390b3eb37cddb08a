// The slideshow in-process: shipped glimra.ini, catalogue, failed loads, batches, channel settings.
#include "app/slideshow.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "app/command_channel.h"
#include "app/commands.h"
#include "framework/qini.h"
#include "support/e2e.h"
#include "support/logcapture.h"

namespace fs = std::filesystem;

namespace {

// Runs a test in a fresh temporary working directory.
class InTempDir : public TempDirTest {
 protected:
  void SetUp() override {
    fs::current_path(dir_);
    rm_ = std::make_unique<RaceManager>();
  }
  void TearDown() override {
    rm_.reset();
    fs::current_path(old_);
  }
  static void Touch(const std::string& name) { WriteFile(name, "x"); }
  // Runs `texts` as one batch, as the channels hand them over.
  bool Run(const std::vector<std::string>& texts) {
    std::vector<Command> batch;
    for (const std::string& t : texts) batch.push_back(ParseCommand(t.c_str()));
    return RunCommands(batch, rm_.get());
  }

  const fs::path old_ = fs::current_path();
  std::unique_ptr<RaceManager> rm_;
};

TEST(ShippedIni, ReadsBackWithoutWarningsAndHoldsEveryKeyTheProgramReads) {
  LogCapture log;
  QIni ini(GLIMRA_SOURCE_DIR "/data/glimra.ini");
  ASSERT_TRUE(ini.IsFound());
  for (const char* key :
       {"dev.terminal", "network.port", "network.listen", "effects.show_info",
        "effects.black_and_white", "app.startup_directory", "window.manage", "resolution.width",
        "resolution.height", "resolution.fullscreen", "resolution.x", "resolution.y",
        "resolution.bits", "resolution.frequency", "resolution.stencil_bits",
        "resolution.alpha_bits", "resolution.z_bits", "resolution.gamma",
        "resolution.near_fullscreen", "resolution.no_border", "resolution.stereo.quad_buffered",
        "dev.debug_level", "dev.run_first", "dev.port_offset", "dev.fake_packet_drops",
        "dev.udp_out", "dev.log_last", "dev.strict", "dev.opengl_checks", "dev.argument_tracing",
        "dev.qdbg_to_qlog", "dev.idle_sleep_ms", "dev.screen_file", "dev.fatal_box_seconds",
        "effects.advance_seconds", "effects.fade_ms", "effects.background", "effects.blur_dim",
        "effects.portrait_pairs", "effects.caption", "effects.date_format",
        "effects.pan_zoom",
        "app.watch_directory", "app.recursive", "app.max_pictures", "app.order", "app.resume",
        "app.index_file", "app.rescan_minutes",
        "network.allow", "display.schedule", "mqtt.host", "mqtt.port", "mqtt.tls",
        "mqtt.ca_file", "mqtt.cert_file", "mqtt.key_file", "mqtt.username", "mqtt.password_file",
        "mqtt.topic", "mqtt.group", "mqtt.discovery"})
  {
    qstring v;
    EXPECT_TRUE(ini.GetString(key, &v, "")) << key;
  }
  EXPECT_FALSE(log.Seen("QIni")) << "a syntax warning";
  EXPECT_FALSE(log.Seen("not a valid"));
  // Every key in the file is one of those: nothing the program does not read.
  ini.DbgPrint("shipped", true);
  EXPECT_FALSE(log.Seen(" (=")) << "a key nobody reads";
}

TEST_F(InTempDir, ScanKeepsVisiblePictureNamesAsListedAndFindsThemAsciiCaseBlind) {
  for (const char* n : {"b.jpg", "a.tga", ".hidden.jpg", "PHOTO.JPG", "x.tgax", "a.jpg.bak",
                        "c.jpeg", "notes.txt", "\xC3\xA9t\xC3\xA9.jpg", "d.HEIC", "e.heif",
                        "f.Avif", "g.webp", "h.GIF", "i.tif", "j.TIFF", "k.gi", ".l.gif"})
    Touch(n);
  rm_->ScanDir();
  const std::vector<std::string> want = {
      "a.jpg.bak", "a.tga", "b.jpg", "c.jpeg", "d.HEIC",    "e.heif", "f.Avif",
      "g.webp",    "h.GIF", "i.tif", "j.TIFF", "PHOTO.JPG", "x.tgax", "\xC3\xA9t\xC3\xA9.jpg"};
  ASSERT_EQ(rm_->GetImageCount(), int(want.size()));
  for (int i = 0; i < rm_->GetImageCount(); ++i) EXPECT_EQ(rm_->GetImage(i), want[size_t(i)]);
  EXPECT_EQ(rm_->GetCurImage(), -1);

  EXPECT_EQ(rm_->FindImage("Photo.jpg"), 11);
  EXPECT_EQ(rm_->FindImage("photo"), -1);
  // UTF-8 bytes compare exactly: an upper-case E-acute (C3 89) is another name.
  EXPECT_EQ(rm_->FindImage("\xC3\xA9T\xC3\xA9.JPG"), 13);
  EXPECT_EQ(rm_->FindImage("\xC3\x89t\xC3\x89.jpg"), -1);
  LogCapture log;
  EXPECT_FALSE(rm_->AddToDir("B.JPG"));
  EXPECT_TRUE(log.Seen("Image 'B.JPG' already found - not inserting"));
  EXPECT_TRUE(rm_->AddToDir("Sub/New.TGA"));
  EXPECT_EQ(rm_->GetImage(14), std::string("Sub/New.TGA"));
  EXPECT_EQ(rm_->FindImage("sub/new.tga"), 14);
}

TEST_F(InTempDir, APathIntoTheScannedFolderIsItsEntryHoweverItIsWritten) {
  fs::create_directory("pics");
  fs::create_directory("other");
  fs::create_directory_symlink(fs::path(dir_) / "pics", "link");
  for (const char* n : {"pics/a.jpg", "pics/B.jpg", "pics/b.jpg", "other/a.jpg"}) Touch(n);
  fs::current_path("pics");
  rm_->ScanDir();
  const std::string abs = (fs::path(dir_) / "pics").string();
  const std::pair<std::string, int> paths[] = {
      {"a.jpg", 0},           {"./b.jpg", 2},           {abs + "/B.jpg", 1},
      {abs + "/b.jpg", 2},    {abs + "/A.JPG", 0},      {(fs::path(dir_) / "link/b.jpg").string(), 2},
      {"../pics/a.jpg", 0},   {"../other/a.jpg", -1},   {(fs::path(dir_) / "other/a.jpg").string(), -1},
      {abs + "/", -1},        {"", -1}};
  for (const auto& p : paths) EXPECT_EQ(rm_->CatalogueIndex(p.first.c_str()), p.second) << p.first;
}

TEST_F(InTempDir, CatalogueStopsAtTwoThousandWithAWarning) {
  for (int i = 0; i < RaceManager::MAX_IMAGES + 3; ++i)
    Touch("p" + std::to_string(10000 + i) + ".jpg");
  LogCapture log;
  rm_->ScanDir();
  EXPECT_EQ(rm_->GetImageCount(), RaceManager::MAX_IMAGES);
  EXPECT_EQ(rm_->GetImage(RaceManager::MAX_IMAGES - 1), std::string("p11999.jpg"));
  EXPECT_TRUE(log.Seen("No space for new image (p12000.jpg) anymore - not registering"));
  // Listed again while still too full: not said again, but again once it fitted in between.
  log.Clear();
  rm_->Rescan();
  EXPECT_FALSE(log.Seen("No space for new image"));
  fs::remove("p12000.jpg"), fs::remove("p12001.jpg"), fs::remove("p12002.jpg");
  rm_->Rescan();
  Touch("p12000.jpg");
  rm_->Rescan();
  EXPECT_EQ(log.Count("No space for new image"), 1);
  log.Clear();
  EXPECT_FALSE(rm_->AddToDir("late.jpg"));
  EXPECT_TRUE(log.Seen("No space for new image (late.jpg) anymore - not registering"));
}

TEST_F(InTempDir, LoadsThatFailNameTheFileNeverBlockAndLeftFromNothingIsTheSecondToLast) {
  // Unreadable pictures: each step still moves the index and names the file it tried.
  for (const char* n : {"a.jpg", "b.jpg", "c.jpg", "d.jpg"}) Touch(n);
  rm_->ScanDir();
  LogCapture log;
  rm_->PrevImage();
  EXPECT_EQ(rm_->GetCurImage(), 2);
  EXPECT_TRUE(log.Seen("Can't load image (c.jpg)"));
  // Only regular files are opened: a FIFO would wait for a writer for ever.
  ASSERT_EQ(mkfifo("blocked.jpg", 0600), 0);
  fs::create_directory("folder.tga");
  ASSERT_EQ(symlink("/dev/zero", "device.jpg"), 0);
  const auto start = std::chrono::steady_clock::now();
  for (const char* n : {"blocked.jpg", "folder.tga", "device.jpg"}) {
    rm_->LoadNewImage(n);
    EXPECT_TRUE(log.Seen(std::string("Can't load image (") + n + ")")) << n;
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
  EXPECT_STREQ(rm_->GetCurFile(), "c.jpg") << "the last step's, not one of those";

  for (const auto& e : fs::directory_iterator(".")) fs::remove(e.path());
  rm_->ScanDir();
  rm_->NextImage();
  EXPECT_EQ(rm_->GetCurImage(), -1);
  rm_->PrevImage();
  EXPECT_EQ(rm_->GetCurImage(), -1);
}

TEST_F(InTempDir, TheDisplayOffDecodesNothingAndOnShowsWhereTheStepsLeftThePosition) {
  for (const char* n : {"a.tga", "b.tga", "c.tga"}) ASSERT_TRUE(e2e::Uniform(n, e2e::kRed));
  rm_->SetIni(new QIni("glimra.ini", QIni::NO_READ));
  rm_->ScanDir();
  rm_->LoadNewImage("a.tga");
  struct Case {
    bool offBefore;
    std::vector<std::string> commands;
    const char* shown;  // the current picture afterwards
    int loads;          // of it
    bool on;            // the display afterwards
  };
  const Case cases[] = {
      // In the dark, steps and loads only move the position; "on" shows where it stands.
      {true, {"next", "next"}, "c.tga", 0, false},
      {true, {"load b.tga"}, "b.tga", 0, false},
      {true, {"display on"}, "b.tga", 1, true},
      // Only the last of a batch counts; woken for a load, only that picture is decoded.
      {false, {"display off", "next", "display on"}, "c.tga", 1, true},
      {true, {"display on", "load a.tga"}, "a.tga", 1, true},
      {false, {"next", "display off"}, "b.tga", 0, false},
      // Woken for a picture that fails: the one the position stands on.
      {true, {"display on", "load missing.tga"}, "b.tga", 1, true},
      // Already on: nothing is loaded again.
      {false, {"display on\n"}, "b.tga", 0, true},
  };
  for (const Case& c : cases) {
    if (c.offBefore) rm_->SetDisplayOn(false);
    LogCapture log;
    ASSERT_TRUE(Run(c.commands));
    EXPECT_STREQ(rm_->GetCurFile(), c.shown) << c.commands.back();
    EXPECT_EQ(log.Count(std::string("Load times (") + c.shown), c.loads) << c.commands.back();
    EXPECT_EQ(log.Count("Load times ("), c.loads) << c.commands.back();
    EXPECT_EQ(rm_->IsDisplayOn(), c.on) << c.commands.back();
    EXPECT_EQ(rm_->GetTexture() != nullptr, c.on) << "a picture kept in the dark";
  }
  // Said once however often it is asked, and not the schedule's doing.
  LogCapture log;
  rm_->SetDisplayOn(false), rm_->SetDisplayOn(false);
  EXPECT_FALSE(rm_->DisplayOffBySchedule());
  rm_->SetDisplayOn(true);
  EXPECT_EQ(log.Count("Display off (command)"), 1);
  EXPECT_EQ(log.Count("Display on (command)"), 1);
}

TEST_F(InTempDir, CommandsTakenTogetherEndAsOneByOneWithOnlyTheLastPictureLoaded) {
  for (const char* n : {"a.tga", "b.tga", "c.tga", "d.tga", "e.tga"})
    ASSERT_TRUE(e2e::Uniform(n, e2e::kRed));
  const std::string outside = (fs::path(dir_) / "out" / "x.tga").string();
  fs::create_directory("out");
  ASSERT_TRUE(e2e::Uniform(outside, e2e::kBlue));
  rm_->SetIni(new QIni("glimra.ini", QIni::NO_READ));
  rm_->ScanDir();
  struct Case {
    std::vector<std::string> commands;
    const char* shown;
    int loads;
  };
  const Case cases[] = {
      // Steps add up, from nothing shown too; only where they end is loaded.
      {{"next", "next", "next"}, "c.tga", 1},
      {{"prev", "prev", "next", "prev"}, "a.tga", 1},
      // A step goes from a load it follows, which itself is not loaded.
      {{"load e.tga", "next"}, "a.tga", 1},
      {{"load d.tga", "bw 1", "prev", "load b.tga", "next", "next", "bw 0", "bw 1"}, "d.tga", 1},
      // A later load wins; a picture from elsewhere joins the list, and a step goes on from it.
      {{"load c.tga", "load " + outside}, outside.c_str(), 1},
      {{"load c.tga", "load " + outside, "prev"}, "e.tga", 1},
      // Only the last setting counts, and the shown picture takes it once.
      {{"info 0", "bw 0", "info 1", "bw 1", "bw 0", "info 0", "junk"}, "e.tga", 1},
      {{"rescan", "rescan", "next", "rescan", "prev"}, "e.tga", 1},
      {{"info 1", "rescan"}, "e.tga", 0},
  };
  for (const Case& c : cases) {
    LogCapture log;
    ASSERT_TRUE(Run(c.commands));
    EXPECT_STREQ(rm_->GetCurFile(), c.shown) << c.commands.front();
    EXPECT_EQ(rm_->GetImage(rm_->GetCurImage()), std::string(c.shown)) << c.commands.front();
    EXPECT_EQ(log.Count("Load times ("), c.loads) << c.commands.front();
    EXPECT_EQ(log.Count("Load times (" + std::string(c.shown)), c.loads) << c.commands.front();
  }
  EXPECT_EQ(rm_->GetImageCount(), 5) << "the rescans drop the picture from elsewhere";
  // The last of "pause" and "resume" holds, and neither loads anything.
  ASSERT_TRUE(Run({"pause", "resume", "pause\n"}));
  EXPECT_TRUE(rm_->IsPaused());
  ASSERT_TRUE(Run({"pause", "next", "resume"}));
  EXPECT_FALSE(rm_->IsPaused());
  EXPECT_STREQ(rm_->GetCurFile(), "a.tga");
  QIni saved("glimra.ini");
  EXPECT_FALSE(saved.GetBool("effects.black_and_white", true));
  EXPECT_TRUE(saved.GetBool("effects.show_info", false));
}

TEST(Commands, OnlyWholeWordsAreCommands) {
  for (const char* text :
       {"pause", "resume\n", "resume\r\n", "rescan", "next", "display on\n"})
    EXPECT_NE(ParseCommand(text).kind, Command::NONE) << text;
  EXPECT_FALSE(ParseCommand("display off").on);
  for (const char* text : {"Pause", "pause now", " resume", "resume\n\n", "bw 2", "LOAD x",
                           "loadx", "load\tx", "", "info", "display", "display 1", "display  on"})
    EXPECT_EQ(ParseCommand(text).kind, Command::NONE) << text;
  EXPECT_EQ(ParseCommand("load  a b\n").path, " a b\n");
}

TEST(CommandChannelSettings, PortIsANumberFromOneTo65535AndListenAnAddress) {
  const std::pair<const char*, int> ports[] = {
      {"6000", 6000}, {"2*3000", 6000}, {"65535", 65535}, {"abc", 5000},
      {"0", 5000},    {"65536", 5000},  {"-1", 5000},     {"", 5000},
  };
  for (const auto& p : ports) {
    QIni ini("mem.ini", QIni::NO_READ);
    ini.SetString("network.port", p.first);
    LogCapture log;
    EXPECT_EQ(CommandPort(&ini), p.second) << p.first;
    EXPECT_EQ(log.Seen("network.port '" + std::string(p.first) +
                       "' is not a port number from 1 to 65535; using 5000"),
              p.second == 5000)
        << p.first;
  }
  QIni none("mem.ini", QIni::NO_READ);
  EXPECT_EQ(CommandPort(&none), 5000);

  const std::pair<const char*, const char*> listens[] = {
      {"", ""}, {"127.0.0.1", "127.0.0.1"}, {"1.2.3.4.5", "127.0.0.1"}, {"localhost", "127.0.0.1"},
      {"256.0.0.1", "127.0.0.1"}};
  for (const auto& l : listens) {
    QIni ini("mem.ini", QIni::NO_READ);
    ini.SetString("network.listen", l.first);
    LogCapture log;
    qstring address;
    EXPECT_EQ(CommandListenAddress(&ini, &address), *l.second != 0) << l.first;
    EXPECT_STREQ(address.cstr(), l.second);
    EXPECT_EQ(log.Seen("is not an address; listening on 127.0.0.1"),
              strcmp(l.first, l.second) != 0)
        << l.first;
  }
}

}  // namespace
