// qstring: the helpers other modules lean on, aimed at the cases that are easy to get wrong.
#include "framework/qstring.h"

#include <gtest/gtest.h>

#include <cstring>
#include <utility>
#include <vector>

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

TEST(QStringUtf8, DecodesCodePointsAndMarksEachInvalidByte) {
  // A byte starting no valid sequence (stray, cut short, overlong, surrogate, past U+10FFFF) is
  // -1 and uses up itself only; nothing at or past the end is read.
  const struct {
    const char* in;
    size_t len;
    std::vector<int> want;
  } cases[] = {
      {"\xC3\xA9t", 3, {0xE9, 't'}},
      {"\xE2\x82\xAC \xF0\x9F\x98\x80", 8, {0x20AC, ' ', 0x1F600}},
      {"caf\xE9", 4, {'c', 'a', 'f', -1}},
      {"\xE2\x82x", 3, {-1, -1, 'x'}},
      {"\xC0\xAF", 2, {-1, -1}},
      {"\xE0\x80\xAF", 3, {-1, -1, -1}},
      {"\xED\xA0\x80", 3, {-1, -1, -1}},
      {"\xF4\x90\x80\x80", 4, {-1, -1, -1, -1}},
      {"\xCE\xBB", 1, {-1}},  // the end cuts a whole sequence short
  };
  for (const auto& c : cases) {
    std::vector<int> got;
    const auto* p = reinterpret_cast<const unsigned char*>(c.in);
    for (const unsigned char* end = p + c.len; p < end;) got.push_back(qutf8decode(&p, end));
    EXPECT_EQ(got, c.want) << c.in;
  }
  // Zero-terminated, an invalid byte answers itself.
  const auto* s = reinterpret_cast<const unsigned char*>("\xC3x");
  EXPECT_EQ(qutf8next(&s), 0xC3u);
  EXPECT_EQ(qutf8next(&s), uint32_t('x'));
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
