// QVirtualFileSystem: real files first, archives only for paths in their own directory.
#include "framework/virtualfilesystem.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "framework/qarchive.h"
#include "framework/qfile.h"
#include "framework/qmessage.h"

namespace {

std::string g_log;
void Collect(const char*, const char* text) { g_log += text; }

// Runs each test inside a fresh directory holding images/pack.ar and top.ar.
class VfsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/vfs_test_XXXXXX";
    root_ = mkdtemp(tmpl);
    ASSERT_TRUE(getcwd(oldCwd_, sizeof(oldCwd_)));
    ASSERT_EQ(chdir(root_.c_str()), 0);
    std::filesystem::create_directory("images");
    Write("images/real.txt", "real");
    Make("images/pack.ar", {{"pic.tga", "from images"}, {"sub/deep.tga", "deep"}});
    Make("top.ar", {{"pic.tga", "from top"}, {"other.tga", "other"}});
    images_ = new QArchive("images/pack.ar", QArchive::READ);
    top_ = new QArchive("top.ar", QArchive::READ);
    ASSERT_TRUE(images_->IsOpen() && top_->IsOpen());
    g_log.clear();
    oldDbg_ = qSetDbgHandler(Collect);
    oldWarn_ = qSetWarnHandler(Collect);
    oldErr_ = qSetErrHandler(Collect);
  }
  void TearDown() override {
    qSetDbgHandler(oldDbg_);
    qSetWarnHandler(oldWarn_);
    qSetErrHandler(oldErr_);
    delete images_;
    delete top_;
    EXPECT_EQ(chdir(oldCwd_), 0);
    std::filesystem::remove_all(root_);
  }
  static void Write(const char* path, const std::string& text) {
    FILE* fp = fopen(path, "wb");
    fwrite(text.data(), 1, text.size(), fp);
    fclose(fp);
  }
  static void Make(const char* path, std::initializer_list<std::pair<const char*, const char*>> m) {
    QArchive ar(path, QArchive::CREATE);
    for (const auto& [name, text] : m) {
      Write("src.tmp", text);
      ASSERT_TRUE(ar.AddFile("src.tmp", name));
    }
    remove("src.tmp");
  }
  static std::string Contents(QFile* f) {
    if (!f) return "(none)";
    std::string s(static_cast<size_t>(f->Size()), 0);
    f->Read(&s[0], static_cast<int>(s.size()));
    delete f;
    return s;
  }

  std::string root_;
  char oldCwd_[4096];
  QArchive* images_ = nullptr;
  QArchive* top_ = nullptr;
  QMessageHandler oldDbg_ = nullptr, oldWarn_ = nullptr, oldErr_ = nullptr;
};

TEST_F(VfsTest, ArchiveServesOnlyItsOwnDirectory) {
  QVirtualFileSystem vfs;
  ASSERT_TRUE(vfs.AddArchive(top_));
  ASSERT_TRUE(vfs.AddArchive(images_));

  EXPECT_TRUE(vfs.FileExists("images/pic.tga"));
  EXPECT_EQ(Contents(vfs.OpenFile("images/pic.tga", QFile::READ)), "from images");
  EXPECT_TRUE(g_log.find("Directory does not match") != std::string::npos);
  EXPECT_EQ(Contents(vfs.OpenFile("pic.tga", QFile::READ)), "from top");
  // Directories compare upper-cased; the separator may be either kind.
  EXPECT_EQ(Contents(vfs.OpenFile("IMAGES\\PIC.TGA", QFile::READ)), "from images");
  EXPECT_TRUE(vfs.FileExists("Images/pic.tga"));
  // top.ar lies in the current directory, so it does not serve images/.
  EXPECT_FALSE(vfs.FileExists("images/other.tga"));
  EXPECT_EQ(vfs.OpenFile("images/other.tga", QFile::READ), nullptr);
  // Member names are taken as they are: the path's file name part must equal them.
  EXPECT_FALSE(vfs.FileExists("images/sub/deep.tga"));
  EXPECT_FALSE(vfs.FileExists("nothing.tga"));
  // Find is exact, so existence is case-sensitive in the name while opening is not.
  EXPECT_FALSE(vfs.FileExists("images/PIC.TGA"));

  EXPECT_TRUE(vfs.RemoveArchive(images_));
  EXPECT_FALSE(vfs.FileExists("images/pic.tga"));
  EXPECT_TRUE(vfs.RemoveArchive(top_));
  EXPECT_FALSE(vfs.RemoveArchive(top_));
}

TEST_F(VfsTest, RealFilesComeFirst) {
  QVirtualFileSystem vfs;
  ASSERT_TRUE(vfs.AddArchive(images_));
  EXPECT_TRUE(vfs.FileExists("images/real.txt"));
  QFile* f = vfs.OpenFile("images/real.txt", QFile::READ);
  ASSERT_NE(f, nullptr);
  EXPECT_FALSE(f->IsMemoryFile());
  EXPECT_EQ(Contents(f), "real");
  vfs.RemoveArchive(images_);
}

TEST_F(VfsTest, CapacityDetachingAndDestruction) {
  {
    QVirtualFileSystem vfs;
    for (int i = 0; i < QVirtualFileSystem::MAX_ARCHIVES; ++i) ASSERT_TRUE(vfs.AddArchive(top_));
    EXPECT_FALSE(vfs.AddArchive(images_));
    EXPECT_TRUE(g_log.find("Out of space to add archive") != std::string::npos);
    // Detaching moves the later ones up: the last slot becomes free again.
    ASSERT_TRUE(vfs.RemoveArchive(top_));
    EXPECT_EQ(vfs.GetArchiveCount(), QVirtualFileSystem::MAX_ARCHIVES - 1);
    EXPECT_TRUE(vfs.AddArchive(images_));
    EXPECT_TRUE(vfs.FileExists("images/pic.tga"));
    g_log.clear();
  }
  EXPECT_TRUE(g_log.find("QVirtualFileSystem: still 100 archives attached upon destruction") !=
              std::string::npos);
  // The archives were not deleted by the file system.
  EXPECT_TRUE(top_->FindFile("other.tga"));

  QVirtualFileSystem own;
  QSetVirtualFileSystem(&own);
  EXPECT_EQ(QGetVirtualFileSystem(), &own);
  QSetVirtualFileSystem(nullptr);
}

}  // namespace
