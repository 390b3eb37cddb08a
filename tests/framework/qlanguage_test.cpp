// QLanguage: tagged files and the lookup fallbacks of an empty table.
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

struct QLanguageTest : TempDirTest { LogCapture log_; };

TEST_F(QLanguageTest, TaggedLinesSkipCommentsAndLinesWithoutEqualsAndFaultsLeaveAnEmptyTable) {
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

  // A missing file and a bad type leave an empty table.
  QLanguage missing((dir_ + "/absent").c_str(), QLanguage::TAGGED);
  EXPECT_EQ(missing.GetCount(), 0);
  EXPECT_STREQ(missing.GetString("misc.ok", "OK"), "OK");
  EXPECT_TRUE(log_.Lines().empty());

  EXPECT_FALSE(lang.Open(MakeFile("u.txt", "a=b\n").c_str(), 7));
  EXPECT_EQ(lang.GetCount(), 0);
  ASSERT_EQ(log_.Lines().size(), 1u);
  EXPECT_EQ(log_.Lines()[0], "QLanguage:Open(); bad type (7)");
}

}  // namespace
