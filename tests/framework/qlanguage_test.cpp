// QLanguage: the three file types, the overflow rule and the lookup fallbacks.
#include "framework/qlanguage.h"

#include <gtest/gtest.h>

#include <string>

#include "support/logcapture.h"
#include "support/tempdir.h"

namespace {

std::u16string Wide(const uint16_t* w) {
  std::u16string s;
  while (w && *w) s += static_cast<char16_t>(*w++);
  return s;
}

class QLanguageTest : public TempDirTest {
 protected:
  QLanguageTest() : TempDirTest("qlanguage_test") {}
  LogCapture log_;
};

TEST_F(QLanguageTest, TaggedLinesSkipCommentsAndLinesWithoutEquals) {
  std::string path = MakeFile("de.txt",
                              "misc.ok=Gut\r\n"
                              "#misc.no=Nein\n"
                              "\n"
                              "  misc.cancel = Lass es  \n"
                              "no equals here\n"
                              "misc.sum=a=b");
  QLanguage lang(path.c_str(), QLanguage::TAGGED);
  EXPECT_EQ(lang.GetCount(), 3);
  EXPECT_STREQ(lang.GetString("misc.ok"), "Gut");
  EXPECT_STREQ(lang.GetString("misc.cancel"), " Lass es");  // blanks after "=" stay
  EXPECT_STREQ(lang.GetString("misc.sum"), "a=b");
  EXPECT_STREQ(lang.GetString("misc.no", "No"), "No");
  EXPECT_STREQ(lang.GetString("#misc.no"), "?#misc.no?");
  EXPECT_STREQ(lang.GetString("misc.OK"), "?misc.OK?");  // keys compare exactly
  EXPECT_EQ(Wide(lang.GetStringUC("misc.ok")), u"Gut");
  EXPECT_EQ(Wide(lang.GetStringUC("misc.yes")), u"QLang:GetStrUC[misc.yes]");
  EXPECT_TRUE(log_.Lines().empty());
}

TEST_F(QLanguageTest, ByteOrderMarkSelectsSixteenBitText) {
  std::u16string text = u"# comment\r\nmisc.yes = J\u00e4\u0416\r\nmisc.no=N\r\n";
  std::string bytes = "\xff\xfe";
  for (char16_t c : text) {
    bytes += static_cast<char>(c & 0xFF);
    bytes += static_cast<char>(c >> 8);
  }
  QLanguage lang(MakeFile("uc.txt", bytes).c_str(), QLanguage::TAGGED);
  EXPECT_EQ(lang.GetCount(), 2);
  EXPECT_EQ(Wide(lang.GetStringUC("misc.yes")), u" J\u00e4\u0416");
  EXPECT_STREQ(lang.GetString("misc.yes"), " J\xe4?");
  EXPECT_STREQ(lang.GetString("misc.no"), "N");
}

TEST_F(QLanguageTest, SimpleFileKeepsFirst999AndTheLatestExtraLine) {
  std::string text;
  for (int i = 0; i <= 1000; ++i) text += "line" + std::to_string(i) + "\n";
  std::string path = MakeFile("simple.txt", text);
  QLanguage lang(path.c_str(), QLanguage::SIMPLE);
  EXPECT_EQ(lang.GetCount(), 1000);
  EXPECT_STREQ(lang.GetString(998), "line998");
  EXPECT_STREQ(lang.GetString(999), "line1000");
  ASSERT_EQ(log_.Lines().size(), 1u);
  EXPECT_EQ(log_.Lines()[0], "QLanguage:Open(); too many strings in '" + path + "'");
  log_.Clear();
  EXPECT_STREQ(lang.GetString(1000), "???");
  EXPECT_STREQ(lang.GetString(-1), "???");
  ASSERT_EQ(log_.Lines().size(), 2u);
  EXPECT_EQ(log_.Lines()[0], "QLanguage::GetString(1000) out of range");

  // Empty lines count; an unterminated last line is kept.
  ASSERT_TRUE(lang.Open(MakeFile("s.txt", "one\r\n\nthree").c_str(), QLanguage::SIMPLE));
  ASSERT_EQ(lang.GetCount(), 3);
  EXPECT_STREQ(lang.GetString(1), "");
  EXPECT_STREQ(lang.GetString(2), "three");
}

TEST_F(QLanguageTest, ParentIsAskedBeforeTheDefault) {
  QLanguage parent(MakeFile("en.txt", "misc.yes=Yes\nmisc.no=No\n").c_str(), QLanguage::TAGGED);
  QLanguage child(MakeFile("fr.txt", "misc.yes=Oui\n").c_str(), QLanguage::TAGGED);
  child.SetParent(&parent);
  EXPECT_STREQ(child.GetString("misc.yes", "Y"), "Oui");
  EXPECT_STREQ(child.GetString("misc.no", "N"), "No");
  EXPECT_STREQ(child.GetString("misc.ok", "OK"), "OK");
  EXPECT_STREQ(child.GetString("misc.ok"), "?misc.ok?");
  EXPECT_EQ(Wide(child.GetStringUC("misc.no")), u"No");
  parent.SetParent(&child);  // a loop ends instead of recursing forever
  EXPECT_STREQ(child.GetString("absent", "d"), "d");
}

TEST_F(QLanguageTest, TreeFileByDottedPaths) {
  std::string path = MakeFile("tree.ini",
                              "misc\n{\n  ok=Fine\n  ; note\n  sub\n  {\n    x=1\n  }\n}\n"
                              "top=T\n");
  QLanguage lang(path.c_str(), QLanguage::TREE);
  EXPECT_STREQ(lang.GetString("misc.ok"), "Fine");
  EXPECT_STREQ(lang.GetString("misc.sub.x"), "1");
  EXPECT_STREQ(lang.GetString("top"), "T");
  EXPECT_EQ(lang.GetCount(), 3);
}

TEST_F(QLanguageTest, MissingFileAndBadTypeLeaveAnEmptyTable) {
  QLanguage missing((dir_ + "/absent").c_str(), QLanguage::TAGGED);
  EXPECT_EQ(missing.GetCount(), 0);
  EXPECT_STREQ(missing.GetString("misc.ok", "OK"), "OK");
  EXPECT_TRUE(log_.Lines().empty());

  QLanguage lang(MakeFile("t.txt", "a=b\n").c_str(), QLanguage::TAGGED);
  EXPECT_EQ(lang.GetCount(), 1);
  EXPECT_FALSE(lang.Open(MakeFile("u.txt", "a=b\n").c_str(), 7));
  EXPECT_EQ(lang.GetCount(), 0);
  ASSERT_EQ(log_.Lines().size(), 1u);
  EXPECT_EQ(log_.Lines()[0], "QLanguage:Open(); bad type (7)");
}

}  // namespace
