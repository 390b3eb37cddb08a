// qstring: the helpers other modules lean on, aimed at the cases that are easy to get wrong.
#include "framework/qstring.h"

#include <gtest/gtest.h>

#include <utility>
#include <stdlib.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/logcapture.h"

namespace {

using Lines = std::vector<std::string>;

TEST(QStringStorage, NewStringReadsEmptyWithoutBufferAndEmptyAssignTakesOneChar) {
  qstring s;
  EXPECT_FALSE(s.HasBuffer());
  ASSERT_NE(s.cstr(), nullptr);
  EXPECT_STREQ(s.cstr(), "");
  EXPECT_EQ(s.Length(), 0);
  s = "";
  EXPECT_TRUE(s.HasBuffer());
  EXPECT_EQ(s.Capacity(), 1);
}

// The extension is cut at the last dot even inside a directory; separators of both kinds count.
TEST(QStringPath, CutsAnswerWhetherTheyChangedTheString) {
  struct Case {
    bool (qstring::*cut)();
    const char *in, *out;
  };
  const Case cases[] = {
      {&qstring::CutExtension, "data/dir.v2/file", "data/dir"},
      {&qstring::CutExtension, "pics\\v1.2/photo.jpg", "pics\\v1.2/photo"},
      {&qstring::CutExtension, "noext", "noext"},
      {&qstring::CutPath, "a\\b.d/c\\file.tga", "file.tga"},
      {&qstring::CutPath, "a/b\\c", "c"},
      {&qstring::CutPath, "plain", "plain"},
      {&qstring::CutFile, "a/b.d\\c.txt", "a/b.d"},
      {&qstring::CutFirstDirectory, "top\\mid/leaf", "mid/leaf"},
      {&qstring::CutFirstDirectory, "leaf", "leaf"},
      {&qstring::CutUnderscoredNumber, "car_12", "car"},
      {&qstring::CutUnderscoredNumber, "a_b_3", "a_b"},
  };
  for (const Case& c : cases) {
    qstring s(c.in);
    EXPECT_EQ((s.*c.cut)(), strcmp(c.in, c.out) != 0) << c.in;
    EXPECT_STREQ(s, c.out);
  }
  for (const char* unchanged : {"car_1a", "_12", "car12", "", "_"}) {
    qstring s(unchanged);
    EXPECT_FALSE(s.CutUnderscoredNumber()) << unchanged;
    EXPECT_STREQ(s, unchanged);
  }
}

TEST(QStringEnv, SetUnsetAndOverlongVariables) {
  LogCapture log;
  setenv("GLIMRA_QS_SET", "value", 1);
  unsetenv("GLIMRA_QS_UNSET");
  qstring s("<%GLIMRA_QS_SET%|%GLIMRA_QS_UNSET%|50%>");
  s.ConvertEnv();
  EXPECT_STREQ(s, "<value||50%>");
  EXPECT_TRUE(log.Lines().empty());

  std::string big(20000, 'x');
  setenv("GLIMRA_QS_BIG", big.c_str(), 1);
  s = "head %GLIMRA_QS_BIG% tail";
  s.ConvertEnv();
  EXPECT_EQ(s.Length(), 10239);
  EXPECT_EQ(std::string(s.cstr(), 5), "head ");
  EXPECT_EQ(s.GetLastChar(), 'x');
  EXPECT_EQ(log.Lines().size(), 1u);
  unsetenv("GLIMRA_QS_BIG");
  unsetenv("GLIMRA_QS_SET");
}

TEST(QStringValidate, Reasons) {
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

TEST(QStringUnicode, OperationsRefuseAndLeaveTheStringAlone) {
  LogCapture log;
  qstring s("dir/file.ext");
  s.ASCII2UC();
  ASSERT_TRUE(s.IsUnicode());
  EXPECT_STREQ(s.cstr(), "<unicodestr-nyi>");
  EXPECT_FALSE(s.CutPath());
  EXPECT_FALSE(s.CutExtension());
  s.Capitalize();
  EXPECT_EQ(s.Count('/'), 0);
  EXPECT_TRUE(s.ValidateInt(nullptr));
  s.ASCII2UC();
  s.QC2UC();
  s.UC2QC();
  EXPECT_EQ(log.Lines(), (Lines{"qstring:CutPath() NYI for Unicode",
                                "qstring:CutExtension() NYI for Unicode",
                                "qstring:Capitalize() NYI for Unicode",
                                "qstring:Count(c) NYI for UC", "Not supported for Unicode\n",
                                "qstring::ASCII2UC(); string is already unicode",
                                "qstring::Q2UC(); string is already unicode", "UC2QC nyi"}));
  ASSERT_EQ(s.Length(), 12);
  EXPECT_EQ(s.wstr()[3], '/');
  EXPECT_EQ(s.wstr()[11], 't');
  s = "back";
  EXPECT_FALSE(s.IsUnicode());
  EXPECT_STREQ(s, "back");
}

TEST(QStringUnicode, Utf8DecodesAndKeepsInvalidBytesAsLatin1) {
  qstring s("A\xC3\xA9\xE2\x82\xAC\xFF");
  s.QC2UC();
  ASSERT_EQ(s.Length(), 4);
  EXPECT_EQ(s.wstr()[1], 0xE9);
  EXPECT_EQ(s.wstr()[2], 0x20AC);
  EXPECT_EQ(s.wstr()[3], 0xFF);

  // For 8-bit drawing: Latin-1 code points stay, every other one is one '?', and a byte that
  // starts no valid sequence (stray, cut short, overlong, surrogate, past U+10FFFF) is itself.
  const std::pair<const char*, const char*> latin[] = {
      {"\xC3\xA9t\xC3\xA9.jpg", "\xE9t\xE9.jpg"},
      {"\xE2\x82\xAC 5 \xF0\x9F\x98\x80", "? 5 ?"},
      {"\xE6\x97\xA5\xE6\x9C\xAC", "??"},
      {"caf\xE9", "caf\xE9"},
      {"\xC3", "\xC3"},
      {"\xE2\x82x", "\xE2\x82x"},
      {"\xC0\xAF", "\xC0\xAF"},
      {"\xE0\x80\xAF", "\xE0\x80\xAF"},
      {"\xED\xA0\x80", "\xED\xA0\x80"},
      {"\xF4\x90\x80\x80", "\xF4\x90\x80\x80"},
      {"\x80\xBF", "\x80\xBF"},
      {"", ""}};
  for (const auto& [in, want] : latin) {
    qstring out;
    qUtf8ToLatin1(in, &out);
    EXPECT_STREQ(out.cstr(), want) << in;
  }
}

TEST(QStringNames, CompareFoldsAsciiLettersOnly) {
  EXPECT_EQ(qnamecmp("IMG_0001.JPG", "img_0001.jpg"), 0);
  EXPECT_EQ(qnamecmp("DSC 0002.Jpg", "dsc 0002.jpG"), 0);
  // Latin-1 case pairs and UTF-8 capitals are different names.
  EXPECT_NE(qnamecmp("\xC9.jpg", "\xE9.jpg"), 0);
  EXPECT_NE(qnamecmp("\xC3\x89.jpg", "\xC3\xA9.jpg"), 0);
  EXPECT_NE(qnamecmp("a.jpg", "a.jpg2"), 0);
  EXPECT_LT(qnamecmp("A", "b"), 0);
  EXPECT_GT(qnamecmp("b", "A"), 0);
  // '@' and '[' sit just outside the letters and are not folded.
  EXPECT_NE(qnamecmp("@", "`"), 0);
  EXPECT_NE(qnamecmp("[", "{"), 0);
  EXPECT_EQ(qnamecmp(nullptr, ""), 0);
}

TEST(QStringEdit, ReplaceSearchAndCase) {
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

TEST(QStringEdit, NumberShapes) {
  for (const char* yes : {"0", "-12", "+7"}) EXPECT_TRUE(qstring(yes).IsNumber()) << yes;
  for (const char* no : {"", "-", "1.0", "1 "}) EXPECT_FALSE(qstring(no).IsNumber()) << no;
  for (const char* yes : {".5", "5.", "-1.5e-3", "2E8"}) EXPECT_TRUE(qstring(yes).IsFloat()) << yes;
  for (const char* no : {".", "1e", "1.2.3", "e5"}) EXPECT_FALSE(qstring(no).IsFloat()) << no;
}

TEST(QStringFile, RoundTripAndMissingFile) {
  LogCapture log;
  TempDir dir;
  const std::string name = dir.File("text.txt");
  qstring out("line one\nline two\n");
  ASSERT_TRUE(out.ToFile(name.c_str()));
  qstring in("old");
  ASSERT_TRUE(in.FromFile(name.c_str()));
  EXPECT_STREQ(in, out);

  EXPECT_FALSE(in.FromFile(dir.File("missing").c_str()));
  EXPECT_STREQ(in, out);
  EXPECT_EQ(log.Lines().size(), 1u);
}

}  // namespace
