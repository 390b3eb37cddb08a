// QVirtualFileSystem: real files first, archives only for paths in their own directory.
#include "framework/virtualfilesystem.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "framework/qarchive.h"
#include "framework/qfile.h"
#include "support/logcapture.h"
#include "support/tempdir.h"

namespace {

// Each test runs inside a fresh directory holding images/real.txt, images/pack.ar and top.ar.
class VfsTest : public TempDirTest {
 protected:
  VfsTest() : TempDirTest("vfs_test") {
    old_ = std::filesystem::current_path();
    std::filesystem::current_path(dir_);
    std::filesystem::create_directory("images");
    std::ofstream("images/real.txt") << "real";
    Make("images/pack.ar", "pic.tga", "from images", "sub/deep.tga");
    Make("top.ar", "pic.tga", "from top", "other.tga");
    images_.reset(new QArchive("images/pack.ar", QArchive::READ));
    top_.reset(new QArchive("top.ar", QArchive::READ));
  }
  ~VfsTest() override { std::filesystem::current_path(old_); }
  // An archive with `first` holding `text` and `second` holding "x".
  static void Make(const char* path, const char* first, const char* text, const char* second) {
    QArchive ar(path, QArchive::CREATE);
    std::ofstream("a.tmp") << text;
    std::ofstream("b.tmp") << "x";
    ASSERT_TRUE(ar.AddFile("a.tmp", first) && ar.AddFile("b.tmp", second));
  }
  static std::string Contents(QFile* f) {
    if (!f) return "(none)";
    std::string s(static_cast<size_t>(f->Size()), 0);
    f->Read(&s[0], static_cast<int>(s.size()));
    delete f;
    return s;
  }
  std::filesystem::path old_;
  std::unique_ptr<QArchive> images_, top_;
  LogCapture log_;
};

TEST_F(VfsTest, ArchiveServesOnlyItsOwnDirectoryWithinCapacityUntilDetachedOrDestroyed) {
  QVirtualFileSystem vfs;
  ASSERT_TRUE(vfs.AddArchive(top_.get()) && vfs.AddArchive(images_.get()));
  EXPECT_TRUE(vfs.FileExists("images/pic.tga"));
  EXPECT_EQ(Contents(vfs.OpenFile("images/pic.tga", QFile::READ)), "from images");
  EXPECT_TRUE(log_.Logged("NOTE", "Directory does not match"));
  EXPECT_EQ(Contents(vfs.OpenFile("pic.tga", QFile::READ)), "from top");
  // Directories compare upper-cased, either separator; names are found exactly, opened case-blind.
  EXPECT_EQ(Contents(vfs.OpenFile("IMAGES\\PIC.TGA", QFile::READ)), "from images");
  EXPECT_TRUE(vfs.FileExists("Images/pic.tga"));
  EXPECT_FALSE(vfs.FileExists("images/PIC.TGA"));
  // top.ar lies in the current directory, so it does not serve images/.
  EXPECT_FALSE(vfs.FileExists("images/other.tga"));
  EXPECT_EQ(vfs.OpenFile("images/other.tga", QFile::READ), nullptr);
  // A member name with a directory is reached only through the archive's own directory.
  EXPECT_FALSE(vfs.FileExists("images/sub/deep.tga"));
  // Real files come first.
  QFile* real = vfs.OpenFile("images/real.txt", QFile::READ);
  ASSERT_NE(real, nullptr);
  EXPECT_FALSE(real->IsMemoryFile());
  EXPECT_EQ(Contents(real), "real");

  EXPECT_TRUE(vfs.RemoveArchive(images_.get()));
  EXPECT_FALSE(vfs.FileExists("images/pic.tga"));
  EXPECT_TRUE(vfs.RemoveArchive(top_.get()));
  EXPECT_FALSE(vfs.RemoveArchive(top_.get()));

  {
    QVirtualFileSystem vfs;
    for (int i = 0; i < QVirtualFileSystem::MAX_ARCHIVES; ++i) ASSERT_TRUE(vfs.AddArchive(top_.get()));
    EXPECT_FALSE(vfs.AddArchive(images_.get()));
    EXPECT_TRUE(log_.Seen("Out of space to add archive"));
    // Detaching moves the later ones up, so the last slot is free again.
    ASSERT_TRUE(vfs.RemoveArchive(top_.get()));
    EXPECT_TRUE(vfs.AddArchive(images_.get()));
    EXPECT_TRUE(vfs.FileExists("images/pic.tga"));
    log_.Clear();
  }
  EXPECT_TRUE(log_.Seen("QVirtualFileSystem: still 100 archives attached upon destruction"));
  EXPECT_TRUE(top_->FindFile("other.tga"));  // not deleted by the file system
}

}  // namespace
