// qstring: the helpers other modules lean on, aimed at the cases that are easy to get wrong.
#include "framework/qstring.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "framework/qmessage.h"

namespace {

std::vector<std::string> g_warnings;
std::vector<std::string> g_errors;

void CaptureWarn(const char*, const char* text) { g_warnings.emplace_back(text); }
void CaptureErr(const char*, const char* text) { g_errors.emplace_back(text); }

// Collects warnings and errors instead of writing the log.
class QStringLog : public ::testing::Test {
 protected:
  void SetUp() override {
    g_warnings.clear();
    g_errors.clear();
    oldWarn_ = qSetWarnHandler(CaptureWarn);
    oldErr_ = qSetErrHandler(CaptureErr);
  }
  void TearDown() override {
    qSetWarnHandler(oldWarn_);
    qSetErrHandler(oldErr_);
  }
  QMessageHandler oldWarn_ = nullptr;
  QMessageHandler oldErr_ = nullptr;
};

using QStringStorage = QStringLog;
using QStringPath = QStringLog;
using QStringEnv = QStringLog;
using QStringValidate = QStringLog;
using QStringUnicode = QStringLog;
using QStringEdit = QStringLog;
using QStringFile = QStringLog;

TEST_F(QStringStorage, NewStringReadsEmptyWithoutBufferAndEmptyAssignTakesOneChar) {
  qstring s;
  EXPECT_FALSE(s.HasBuffer());
  ASSERT_NE(s.cstr(), nullptr);
  EXPECT_STREQ(s.cstr(), "");
  EXPECT_EQ(s.Length(), 0);
  s = "";
  EXPECT_TRUE(s.HasBuffer());
  EXPECT_EQ(s.Capacity(), 1);
}

TEST_F(QStringPath, ExtensionCutAtLastDotEvenInsideADirectory) {
  qstring s("data/dir.v2/file");
  EXPECT_TRUE(s.CutExtension());
  EXPECT_STREQ(s, "data/dir");
  s = "pics\\v1.2/photo.jpg";
  EXPECT_TRUE(s.CutExtension());
  EXPECT_STREQ(s, "pics\\v1.2/photo");
  s = "noext";
  EXPECT_FALSE(s.CutExtension());
  EXPECT_STREQ(s, "noext");
}

TEST_F(QStringPath, SeparatorsOfBothKindsCount) {
  qstring s("a\\b.d/c\\file.tga");
  EXPECT_TRUE(s.CutPath());
  EXPECT_STREQ(s, "file.tga");
  s = "a/b\\c";
  EXPECT_TRUE(s.CutPath());
  EXPECT_STREQ(s, "c");
  s = "plain";
  EXPECT_FALSE(s.CutPath());
  EXPECT_STREQ(s, "plain");

  s = "a/b.d\\c.txt";
  EXPECT_TRUE(s.CutFile());
  EXPECT_STREQ(s, "a/b.d");
  s = "top\\mid/leaf";
  EXPECT_TRUE(s.CutFirstDirectory());
  EXPECT_STREQ(s, "mid/leaf");
  EXPECT_FALSE(qstring("leaf").CutFirstDirectory());
}

TEST_F(QStringPath, UnderscoredNumber) {
  qstring s("car_12");
  EXPECT_TRUE(s.CutUnderscoredNumber());
  EXPECT_STREQ(s, "car");
  s = "a_b_3";
  EXPECT_TRUE(s.CutUnderscoredNumber());
  EXPECT_STREQ(s, "a_b");
  for (const char* unchanged : {"car_1a", "_12", "car12", "", "_"}) {
    s = unchanged;
    EXPECT_FALSE(s.CutUnderscoredNumber()) << unchanged;
    EXPECT_STREQ(s, unchanged);
  }
}

TEST_F(QStringEnv, SetUnsetAndOverlongVariables) {
  setenv("GLIMRA_QS_SET", "value", 1);
  unsetenv("GLIMRA_QS_UNSET");
  qstring s("<%GLIMRA_QS_SET%|%GLIMRA_QS_UNSET%|50%>");
  s.ConvertEnv();
  EXPECT_STREQ(s, "<value||50%>");
  EXPECT_TRUE(g_warnings.empty());

  std::string big(20000, 'x');
  setenv("GLIMRA_QS_BIG", big.c_str(), 1);
  s = "head %GLIMRA_QS_BIG% tail";
  s.ConvertEnv();
  EXPECT_EQ(s.Length(), 10239);
  EXPECT_EQ(std::string(s.cstr(), 5), "head ");
  EXPECT_EQ(s.GetLastChar(), 'x');
  EXPECT_EQ(g_warnings.size(), 1u);
  unsetenv("GLIMRA_QS_BIG");
  unsetenv("GLIMRA_QS_SET");
}

TEST_F(QStringValidate, Reasons) {
  qstring reason("stale");
  EXPECT_TRUE(qstring("2 * 512 + -3%").ValidateInt(&reason));
  EXPECT_STREQ(reason, "");
  EXPECT_FALSE(qstring("1.5").ValidateInt(&reason));
  EXPECT_STREQ(reason, "a '.' is not allowed (floating point)");
  EXPECT_FALSE(qstring("12x.").ValidateInt(&reason));
  EXPECT_STREQ(reason, "character 'x' is not allowed");
  EXPECT_TRUE(qstring(" -1.5e+3").ValidateFloat(&reason));
  EXPECT_FALSE(qstring("1,5").ValidateFloat(&reason));
  EXPECT_STREQ(reason, "character ',' is not allowed");
  EXPECT_FALSE(qstring("?").ValidateInt(nullptr));
}

TEST_F(QStringUnicode, OperationsRefuseAndLeaveTheStringAlone) {
  qstring s("dir/file.ext");
  s.ASCII2UC();
  ASSERT_TRUE(s.IsUnicode());
  EXPECT_STREQ(s.cstr(), "<unicodestr-nyi>");
  EXPECT_FALSE(s.CutPath());
  EXPECT_FALSE(s.CutExtension());
  s.Capitalize();
  EXPECT_EQ(s.Count('/'), 0);
  EXPECT_EQ(g_warnings, (std::vector<std::string>{"qstring:CutPath() NYI for Unicode",
                                                  "qstring:CutExtension() NYI for Unicode",
                                                  "qstring:Capitalize() NYI for Unicode",
                                                  "qstring:Count(c) NYI for UC"}));
  ASSERT_EQ(s.Length(), 12);
  EXPECT_EQ(s.wstr()[3], '/');
  EXPECT_EQ(s.wstr()[11], 't');

  EXPECT_TRUE(s.ValidateInt(nullptr));
  EXPECT_EQ(g_errors, std::vector<std::string>{"Not supported for Unicode\n"});

  g_warnings.clear();
  s.ASCII2UC();
  s.QC2UC();
  s.UC2QC();
  EXPECT_EQ(g_warnings, (std::vector<std::string>{"qstring::ASCII2UC(); string is already unicode",
                                                  "qstring::Q2UC(); string is already unicode",
                                                  "UC2QC nyi"}));
  s = "back";
  EXPECT_FALSE(s.IsUnicode());
  EXPECT_STREQ(s, "back");
}

TEST_F(QStringUnicode, QC2UCDecodesUtf8AndKeepsStrayBytes) {
  qstring s("A\xC3\xA9\xE2\x82\xAC\xFF");
  s.QC2UC();
  ASSERT_EQ(s.Length(), 4);
  EXPECT_EQ(s.wstr()[1], 0xE9);
  EXPECT_EQ(s.wstr()[2], 0x20AC);
  EXPECT_EQ(s.wstr()[3], 0xFF);
}

TEST_F(QStringEdit, ReplaceSearchAndCase) {
  qstring s("aaa");
  EXPECT_EQ(s.ReplaceAll("a", "aa"), 3);
  EXPECT_STREQ(s, "aaaaaa");
  EXPECT_EQ(s.ReplaceAll("aa", nullptr), 3);
  EXPECT_STREQ(s, "");
  s = "x/y/z";
  EXPECT_EQ(s.FindLast('/'), 3);
  EXPECT_EQ(s.Find("/", 2), 3);
  EXPECT_TRUE(s.LeavePostfix('/'));
  EXPECT_STREQ(s, "z");

  s = "first\r\nsecond\n";
  qstring line;
  EXPECT_TRUE(s.GetLine(0, &line));
  EXPECT_STREQ(line, "first");
  EXPECT_TRUE(s.GetLine(1, &line));
  EXPECT_STREQ(line, "second");
  EXPECT_FALSE(s.GetLine(2, &line));

  s = "\xE9LAN vital o'clock";
  s.Capitalize();
  EXPECT_STREQ(s, "\xC9lan Vital O'clock");
  s = "3d-view.x";
  s.MakeID();
  EXPECT_STREQ(s, "_3d_view_x");
}

TEST_F(QStringEdit, NumberShapes) {
  for (const char* yes : {"0", "-12", "+7"}) EXPECT_TRUE(qstring(yes).IsNumber()) << yes;
  for (const char* no : {"", "-", "1.0", "1 "}) EXPECT_FALSE(qstring(no).IsNumber()) << no;
  for (const char* yes : {".5", "5.", "-1.5e-3", "2E8"}) EXPECT_TRUE(qstring(yes).IsFloat()) << yes;
  for (const char* no : {".", "1e", "1.2.3", "e5"}) EXPECT_FALSE(qstring(no).IsFloat()) << no;
}

TEST_F(QStringFile, RoundTripAndMissingFile) {
  char dir[] = "/tmp/qstring_testXXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  std::string name = std::string(dir) + "/text.txt";
  qstring out("line one\nline two\n");
  ASSERT_TRUE(out.ToFile(name.c_str()));
  qstring in("old");
  ASSERT_TRUE(in.FromFile(name.c_str()));
  EXPECT_STREQ(in, out);

  EXPECT_FALSE(in.FromFile((std::string(dir) + "/missing").c_str()));
  EXPECT_STREQ(in, out);
  EXPECT_EQ(g_warnings.size(), 1u);
  unlink(name.c_str());
  rmdir(dir);
}

}  // namespace
