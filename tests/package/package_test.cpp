// The Debian package built by CPack: contents, control, lintian, units, manual, unpacked program.
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "framework/qini.h"
#include "support/e2e.h"

namespace fs = std::filesystem;

namespace {

using namespace e2e;

// Runs a shell command; its exit status, with standard output and error in `out`.
int Shell(const std::string& cmd, std::string* out) {
  *out = Capture("(" + cmd + ") 2>&1; echo \"#status $?\"");
  const size_t at = out->rfind("#status ");
  if (at == std::string::npos) return -1;
  const int status = atoi(out->c_str() + at + 8);
  out->resize(at);
  return status;
}

std::string Quote(const std::string& s) { return "'" + s + "'"; }

class Package : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    for (const char* tool : {"dpkg-deb", "dpkg-shlibdeps"})
      if (!Have(tool)) {
        missing_ = std::string(tool) + " is missing";
        return;
      }
    tmp_ = new TempDir("glimra_package");
    const std::string out = tmp_->File("out");
    std::string log;
    built_ = Shell(std::string(GLIMRA_CPACK) + " -G DEB --config " GLIMRA_BUILD_DIR
                   "/CPackConfig.cmake -B " + Quote(out), &log) == 0;
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(out, ec))
      if (e.path().extension() == ".deb") debs_.push_back(e.path().string());
    built_ = built_ && debs_.size() == 1 &&
             Shell("dpkg-deb -x " + Quote(debs_[0]) + " " + Quote(tmp_->File("root")) +
                       " && dpkg-deb -e " + Quote(debs_[0]) + " " + Quote(tmp_->File("control")),
                   &log) == 0;
    if (!built_) cpackLog_ = log;
    if (HaveTools()) xvfb_ = StartXvfb(800, 600);
  }
  static void TearDownTestSuite() {
    StopX();
    delete tmp_;
    tmp_ = nullptr;
    debs_.clear();
  }
  void SetUp() override {
    if (!missing_.empty()) GTEST_SKIP() << missing_;
    ASSERT_TRUE(built_) << "packages made: " << debs_.size() << "\n" << cpackLog_;
  }

  static std::string Deb() { return debs_[0]; }
  static std::string Root(const std::string& path) { return tmp_->File("root" + path); }
  static std::string Control(const std::string& name) { return tmp_->File("control/" + name); }
  // The value of a field of the control file.
  static std::string Field(const std::string& name) {
    const std::string control = "\n" + ReadFile(Control("control")), key = "\n" + name + ": ";
    const size_t at = control.find(key), from = at + key.size();
    return at == std::string::npos ? "" : control.substr(from, control.find('\n', from) - from);
  }

  static inline std::string missing_, cpackLog_;
  static inline TempDir* tmp_ = nullptr;
  static inline bool built_ = false, xvfb_ = false;
  static inline std::vector<std::string> debs_;
};

TEST_F(Package, HoldsTheRunnableFolderTheLinkAndTheSystemFilesWithTheIniAsConffile) {
  // Every entry, owned by root, against what the install rules promise.
  std::string list;
  ASSERT_EQ(Shell("dpkg-deb -c " + Quote(Deb()), &list), 0) << list;
  std::set<std::string> files, dirs;
  std::istringstream in(list);
  std::string mode, owner, size, date, time, name, arrow, target;
  while (in >> mode >> owner >> size >> date >> time >> name) {
    EXPECT_EQ(owner, "root/root") << name;
    if (mode[0] == 'l') {
      in >> arrow >> target;
      name += " -> " + target;
    }
    (mode[0] == 'd' ? dirs : files).insert(name.substr(1));  // without the leading '.'
  }
  std::set<std::string> want = {
      "/opt/glimra/glimra", "/etc/glimra/glimra.ini",
      "/opt/glimra/glimra.ini -> /etc/glimra/glimra.ini", "/usr/bin/glimra -> /opt/glimra/glimra",
      "/usr/share/man/man1/glimra.1.gz", "/lib/systemd/system/glimra.service",
      "/usr/lib/systemd/user/glimra-desktop.service", "/usr/share/doc/glimra/copyright",
      "/usr/share/doc/glimra/changelog.gz", "/usr/share/lintian/overrides/glimra"};
  const fs::path data = GLIMRA_SOURCE_DIR "/data";
  for (const auto& e : fs::recursive_directory_iterator(data))
    if (e.is_regular_file() && e.path().filename() != "glimra.ini")
      want.insert("/opt/glimra/" + fs::relative(e.path(), data).string());
  EXPECT_EQ(files, want);
  EXPECT_TRUE(dirs.count("/opt/glimra/"));

  // The source's settings with the index under /var/lib and commands from this machine only.
  std::string ini = ReadFile(data / "glimra.ini");
  for (const auto& change :
       {std::make_pair("  index_file=\n", "  index_file=/var/lib/glimra/glimra.index\n"),
        std::make_pair("  listen=\n", "  listen=127.0.0.1\n")}) {
    const std::string from = change.first;
    ASSERT_NE(ini.find(from), std::string::npos) << from;
    ini.replace(ini.find(from), from.size(), change.second);
  }
  EXPECT_EQ(ReadFile(Root("/etc/glimra/glimra.ini")), ini);
  EXPECT_EQ(ReadFile(Control("conffiles")), "/etc/glimra/glimra.ini\n");

  EXPECT_EQ(Field("Package"), "glimra");
  EXPECT_EQ(Field("Version"), GLIMRA_VERSION);
  // Dependencies come from the program's shared libraries, plus adduser for postinst.
  const std::string depends = Field("Depends");
  for (const char* lib : {"adduser", "libsdl2-2.0-0", "libjpeg62-turbo", "libpng16-16", "libenet7",
                          "libgl1", "libglu1-mesa", "libfreetype6", "libfontconfig1", "libsqlite3-0",
                          "libmosquitto1", "libc6"})
    EXPECT_NE(depends.find(lib), std::string::npos) << lib << " in " << depends;
  std::string out;
  for (const char* script : {"postinst", "prerm", "postrm"}) {
    EXPECT_EQ(fs::status(Control(script)).permissions(), fs::perms(0755)) << script;
    EXPECT_EQ(Shell("sh -n " + Quote(Control(script)), &out), 0) << script << ": " << out;
  }
}

TEST_F(Package, LintianFindsNoError) {
  if (!Have("lintian")) GTEST_SKIP() << "lintian is missing";
  std::string out;
  Shell("lintian --allow-root --no-tag-display-limit " + Quote(Deb()), &out);
  EXPECT_EQ(("\n" + out).find("\nE: "), std::string::npos) << out;
  // lintian answers with its own complaints when it could not read the package at all.
  EXPECT_EQ(out.find("not a valid"), std::string::npos) << out;
}

TEST_F(Package, SystemdAcceptsTheUnits) {
  if (!Have("systemd-analyze")) GTEST_SKIP() << "systemd-analyze is missing";
  // Both as system units (the user manager takes no other root) beside the machine's own.
  const std::string root = Root("");
  std::string out;
  ASSERT_EQ(Shell("cp -rn /lib/systemd/system " + Quote(Root("/lib/systemd/")) + " && cp " +
                      Quote(Root("/usr/lib/systemd/user/glimra-desktop.service")) + " " +
                      Quote(Root("/lib/systemd/system/")), &out), 0) << out;
  for (const char* unit : {"glimra.service", "glimra-desktop.service"}) {
    EXPECT_EQ(Shell("systemd-analyze verify --man=no --root=" + Quote(root) +
                        " /lib/systemd/system/" + unit,
                    &out),
              0)
        << unit << ": " << out;
    EXPECT_EQ(out, "") << unit;
  }
}

TEST_F(Package, ManualPageRendersWithoutWarningsAndNamesEveryIniKeyWithItsDefault) {
  if (!Have("man")) GTEST_SKIP() << "man is missing";
  std::string errors;
  const std::string page = Quote(Root("/usr/share/man/man1/glimra.1.gz"));
  EXPECT_EQ(Shell("MANWIDTH=80 man --warnings=w -l " + page + " >/dev/null", &errors), 0);
  EXPECT_EQ(errors, "");
  const std::string text = Capture("MANWIDTH=200 man -l " + page + " 2>/dev/null");
  for (const char* section : {"SYNOPSIS", "KEYS", "COMMAND CHANNEL", "CONFIGURATION", "FILES",
                              "SIGNALS", "EXIT STATUS", "EXAMPLES"})
    EXPECT_NE(text.find("\n" + std::string(section) + "\n"), std::string::npos) << section;
  // Every key of the shipped settings, with its value, as "group.key=value".
  QIni shipped(GLIMRA_SOURCE_DIR "/data/glimra.ini");
  QIniIterator it(&shipped);
  int keys = 0;
  while (const QIniNode* n = it.GetNextAny()) {
    if (n->GetType() != QIniNode::SYMBOL || !n->GetValue()) continue;
    qstring key;
    n->GetFullPath(&key);
    ++keys;
    EXPECT_NE(text.find(std::string(key.cstr()) + "=" + n->GetValue()), std::string::npos)
        << key.cstr() << "=" << n->GetValue();
  }
  EXPECT_GT(keys, 20);
}

TEST_F(Package, UnpackedProgramShowsAPictureAnswersVersionAndHelpBesideItAndEndsWithEscape) {
  if (!xvfb_) GTEST_SKIP() << "needs Xvfb, xdotool and xwd";
  if (RunningCopies() > 0) GTEST_SKIP() << "another glimra is running";
  // The package unpacked into the program's own folder, so that it runs from /opt/glimra there.
  Program p;
  ASSERT_TRUE(p.MakeDir());
  std::string out;
  ASSERT_EQ(Shell("dpkg-deb -x " + Quote(Deb()) + " " + Quote(p.Dir()), &out), 0) << out;
  const std::string exe = p.Path("opt/glimra/glimra");
  // Its configuration link, as installed at the root.
  const std::string ini = p.Path("opt/glimra/glimra.ini");
  ASSERT_TRUE(fs::remove(ini));
  fs::create_symlink("../../etc/glimra/glimra.ini", ini);
  const int port = FreePort();
  {
    QIni config(ini.c_str());
    ASSERT_TRUE(config.SetString("network.port", std::to_string(port).c_str()) &&
                config.SetString("resolution.width", "800") &&
                config.SetString("resolution.height", "600") &&
                config.SetString("app.startup_directory", p.Path("pictures").c_str()) &&
                config.SetString("dev.qdbg_to_qlog", "1") && config.Write(nullptr, false));
  }
  ASSERT_TRUE(fs::create_directory(p.Path("pictures")) && Uniform(p.Path("pictures/a.tga"), kBlue));
  ASSERT_TRUE(Uniform(p.Path("pictures/b.jpg"), kRed));

  ASSERT_TRUE(p.Run(exe, {p.Path("pictures/b.jpg")}, "/"));
  const std::string qlog = p.Path("opt/glimra/QLOG.txt");
  Screen screen;
  const auto shows = [&screen](uint32_t c, int ms) {
    return WaitForScreen([c](const Screen& s) { return Is(s.At(400, 300), c); }, ms, &screen);
  };
  EXPECT_TRUE(shows(kRed, kStartMs)) << ReadFile(qlog);

  // Beside the running copy, --version and --help answer and end without handing anything over.
  for (const char* option : {"--version", "--help"}) {
    Program second;
    ASSERT_TRUE(second.MakeDir() && second.Run(exe, {option}, "/"));
    EXPECT_EQ(second.WaitExit(kStepMs), 0) << option;
    const std::string said = second.ReadFile("out.txt");
    if (std::string(option) == "--version")
      EXPECT_EQ(said, "glimra " GLIMRA_VERSION "\n");
    else
      EXPECT_EQ(said.compare(0, 23, "Usage: glimra [PICTURE]"), 0) << said;
  }
  // A command sent after them is logged; nothing of theirs came before it.
  ASSERT_TRUE(SendUdp(port, "load " + p.Path("pictures/a.tga")));
  EXPECT_TRUE(shows(kBlue, kStepMs));
  const std::string log = ReadFile(qlog);
  EXPECT_NE(log.find("bytes (load "), std::string::npos) << log;
  EXPECT_EQ(log.find("load --"), std::string::npos) << log;

  EXPECT_EQ(p.Escape(), 0) << ReadFile(qlog);
}

}  // namespace
