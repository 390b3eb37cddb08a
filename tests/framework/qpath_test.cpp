// QPath: the search order.
#include "framework/qpath.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "support/logcapture.h"
#include "support/tempdir.h"

namespace {

struct QPathTest : TempDirTest { LogCapture log_; };

TEST_F(QPathTest, FindsInTheOrderAdded) {
  const std::string first = Tmp("v1.2"), second = Tmp("second");
  ASSERT_EQ(mkdir(first.c_str(), 0755) | mkdir(second.c_str(), 0755), 0);
  for (const char* f : {"second/pic.jpg", "second/both.txt", "v1.2/both.txt"}) MakeFile(f, "");
  QPath p;
  p.Add(first.c_str());
  p.Add(second.c_str());
  EXPECT_EQ(std::string(p.FindFile("pic.jpg")), second + "/pic.jpg");
  EXPECT_EQ(std::string(p.FindFile("both.txt")), first + "/both.txt");
  const char* absent = "absent.png";
  EXPECT_EQ(p.FindFile(absent), absent);

  qstring full, directory;
  EXPECT_TRUE(p.FindFile("pic.jpg", &full, &directory));
  EXPECT_EQ(std::string(full.cstr()), second + "/pic.jpg");
  EXPECT_EQ(std::string(directory.cstr()), second);
  EXPECT_FALSE(p.FindFile(absent, &full, &directory));
  EXPECT_STREQ(full.cstr(), absent);
  EXPECT_STREQ(directory.cstr(), "");
  // A directory of the wanted name is no file.
  ASSERT_EQ(mkdir(Tmp("second/sub").c_str(), 0755), 0);
  EXPECT_FALSE(p.FindFile("sub", &full, &directory));
}

}  // namespace
