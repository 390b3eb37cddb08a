// qstring: the helpers other modules lean on, aimed at the cases that are easy to get wrong.
#include "framework/qstring.h"

#include <gtest/gtest.h>

#include <cstring>
#include <utility>

namespace {

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
  };
  for (const Case& c : cases) {
    qstring s(c.in);
    EXPECT_EQ((s.*c.cut)(), strcmp(c.in, c.out) != 0) << c.in;
    EXPECT_STREQ(s, c.out);
  }
}

TEST(QStringUtf8, Latin1KeepsInvalidBytesAndMarksOtherCodePoints) {
  // Latin-1 code points stay, others are one '?', and a byte starting no valid sequence (stray,
  // cut short, overlong, surrogate, past U+10FFFF) is itself.
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

TEST(QStringEdit, ReplaceSearchAndLines) {
  qstring s("aaa");
  EXPECT_EQ(s.ReplaceAll("a", "aa"), 3);
  EXPECT_STREQ(s, "aaaaaa");
  EXPECT_EQ(s.ReplaceAll("aa", nullptr), 3);
  EXPECT_STREQ(s, "");
  s = "x/y/z";
  EXPECT_EQ(s.FindLast('/'), 3);
  EXPECT_EQ(s.Find("/", 2), 3);

  s = "first\r\nsecond\n";
  qstring line;
  EXPECT_TRUE(s.GetLine(0, &line));
  EXPECT_STREQ(line, "first");
  EXPECT_TRUE(s.GetLine(1, &line));
  EXPECT_STREQ(line, "second");
  EXPECT_FALSE(s.GetLine(2, &line));
}

}  // namespace
