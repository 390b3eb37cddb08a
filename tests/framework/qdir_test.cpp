// QDirectory: listing order, entry information, the path-length check; working directory.
#include "framework/qdir.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "framework/qstring.h"
#include "support/logcapture.h"
#include "support/tempdir.h"

namespace {

class QDirTest : public TempDirTest {
 protected:
  // The prefix's length matters: the overlong-path case counts from it.
  QDirTest() : TempDirTest("qdir_test") {}
  std::vector<std::string> List(const char* directory) {
    QDirectory d(directory);
    EXPECT_TRUE(d.IsOpen());
    std::vector<std::string> names;
    char name[QDirectory::NAME_SIZE];
    while (d.ReadNext(name)) names.emplace_back(name);
    EXPECT_STREQ(name, "");
    return names;
  }
  LogCapture log_;
};

TEST_F(QDirTest, NamesSortByUpperCaseBytesWithNothingFiltered) {
  EXPECT_EQ(List(dir_.c_str()), (std::vector<std::string>{".", ".."}));
  for (const char* n : {"b.jpg", "_x", "Zeta", "a2", "A.txt", ".hidden", "!bang"}) MakeFile(n, "");
  ASSERT_EQ(mkdir((dir_ + "/sub").c_str(), 0755), 0);
  // Upper-cased, "_" (0x5F) sorts after "Z", "." after "!" and before "2".
  EXPECT_EQ(List(dir_.c_str()), (std::vector<std::string>{".", "..", "!bang", ".hidden", "A.txt",
                                                          "a2", "b.jpg", "sub", "Zeta", "_x"}));
}

TEST_F(QDirTest, EntryInformationFromTheFileSystem) {
  MakeFile("five", "12345");
  ASSERT_EQ(mkdir((dir_ + "/sub").c_str(), 0755), 0);
  QDirectory d(dir_.c_str());
  char name[QDirectory::NAME_SIZE];
  QDirEntryInfo info;
  int seen = 0;
  while (d.ReadNext(name, &info)) {
    const std::string n = name;
    if (n != "five" && n != "sub" && n != ".") continue;
    ++seen;
    EXPECT_EQ(info.isDirectory, n != "five") << n;
    EXPECT_TRUE(n != "five" || (info.size == 5 && info.modifyTime > 0 && info.createTime > 0));
  }
  EXPECT_EQ(seen, 3);
}

TEST_F(QDirTest, OverlongPathRefusesInformationButNamesTheEntry) {
  std::string longDir = dir_;
  while (longDir.size() < 1019) longDir += "/.";
  if (longDir.size() == 1019) longDir += "/";  // 1020: ".." just fits, longer names do not
  MakeFile("abcdefgh", "");
  QDirectory d(longDir.c_str());
  ASSERT_TRUE(d.IsOpen());
  char name[QDirectory::NAME_SIZE];
  QDirEntryInfo info;
  EXPECT_TRUE(d.ReadNext(name, &info) && d.ReadNext(name, &info));  // "." and ".." still fit
  log_.Clear();
  EXPECT_FALSE(d.ReadNext(name, &info));
  EXPECT_STREQ(name, "abcdefgh");
  ASSERT_EQ(log_.Lines().size(), 1u);
  std::string expected = "Buffer overflow; dirName (" + std::to_string(longDir.size()) +
                         ") or name (8) too large.";
  EXPECT_NE(log_.Lines()[0].find(expected), std::string::npos) << log_.Lines()[0];
}

TEST_F(QDirTest, MissingDirectoryIsNotOpen) {
  QDirectory d((dir_ + "/absent").c_str());
  EXPECT_FALSE(d.IsOpen());
  char name[QDirectory::NAME_SIZE] = "x";
  EXPECT_FALSE(d.ReadNext(name));
  EXPECT_STREQ(name, "");
  EXPECT_TRUE(d.Open(dir_.c_str()));
}

TEST_F(QDirTest, CurrentDirectoryChangesAndFailsWithAWarning) {
  qstring before;
  ASSERT_TRUE(QGetCurrentDirectory(&before));
  char* real = realpath(dir_.c_str(), nullptr);
  ASSERT_TRUE(QSetCurrentDirectory(dir_.c_str()));
  qstring now;
  ASSERT_TRUE(QGetCurrentDirectory(&now));
  EXPECT_STREQ(now.cstr(), real);
  free(real);
  EXPECT_FALSE(QSetCurrentDirectory("absent-directory"));
  ASSERT_EQ(log_.Lines().size(), 1u);
  EXPECT_NE(log_.Lines()[0].find("'absent-directory'"), std::string::npos);
  ASSERT_TRUE(QSetCurrentDirectory(before.cstr()));
}

}  // namespace
