// Captions: the pattern's fields and the text beside a missing one, EXIF dates, folder names.
#include "app/caption.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "framework/image/qexif.h"
#include "support/tempdir.h"

namespace {

TEST(Caption, AMissingFieldGoesWithTheTextOnOneSideAndOtherTextStaysAsWritten) {
  const std::string athens = "\xCE\x91\xCE\xB8\xCE\xAE\xCE\xBD\xCE\xB1";
  const Caption::Facts all{"7 March 2021", "Trips", "a.jpg", athens};
  Caption::Facts noDate = all, noFolder = all, noTitle = all, neither = all;
  noDate.date.clear(), noFolder.folder.clear(), noTitle.title.clear();
  neither.date.clear(), neither.folder.clear();
  const struct {
    const char* pattern;
    const Caption::Facts& facts;
    std::string caption;
  } cases[] = {
      {"{date} \xC2\xB7 {folder}", all, "7 March 2021 \xC2\xB7 Trips"},
      {"{date} \xC2\xB7 {folder}", noDate, "Trips"},
      {"{date} \xC2\xB7 {folder}", noFolder, "7 March 2021"},
      {"{date} \xC2\xB7 {folder}", neither, ""},
      {"{date}, {folder} / {name}", neither, "a.jpg"},
      {"{date}, {folder} / {name}", noFolder, "7 March 2021 / a.jpg"},
      {"{title}", noTitle, ""},
      {"Taken {date}", noDate, ""},
      {"\xC2\xAB{title}\xC2\xBB {name}", all, "\xC2\xAB" + athens + "\xC2\xBB a.jpg"},
      {"{{name}} {size} {nam", all, "{a.jpg} {size} {nam"},
      {"  no fields  ", neither, "no fields"},
      {"", all, ""},
  };
  for (const auto& c : cases) {
    const Caption caption(c.pattern, nullptr, "C");
    EXPECT_EQ(caption.Compose(c.facts), c.caption) << c.pattern;
  }
  EXPECT_TRUE(Caption("", nullptr, "C").Empty());
}

TEST(Caption, ExifDatesAreWrittenInTheFormatAndFolderAndTitleComeFromThePicture) {
  const Caption plain("{date}", nullptr, "C");
  const Caption full("{date}", "%A %j %H:%M", "C");
  // %e pads a day below 10 with a space, which goes; the weekday and the day of the year hold.
  EXPECT_EQ(plain.Date("2021:03:07 09:30:00"), "7 March 2021");
  EXPECT_EQ(full.Date("2021:03:07 09:30:00"), "Sunday 066 09:30");
  EXPECT_EQ(full.Date("2020:12:31"), "Thursday 366 00:00");
  EXPECT_EQ(plain.Date("2020:02:29 23:59:60"), "29 February 2020");
  for (const char* bad : {"0000:00:00 00:00:00", "2021:02:29 10:00:00", "2021:13:01", "2021:03",
                          "", "taken in spring", "2021:03:07 25:00:00"})
    EXPECT_EQ(full.Date(bad), "") << bad;

  TempDir dir;
  const std::string here = dir.Path().substr(dir.Path().rfind('/') + 1);
  char cwd[4096];
  ASSERT_TRUE(getcwd(cwd, sizeof(cwd)));
  ASSERT_EQ(chdir(dir.Path().c_str()), 0);
  EXPECT_EQ(Caption::FolderOf("a.jpg"), here);
  EXPECT_EQ(Caption::FolderOf("./a.jpg"), here);
  EXPECT_EQ(Caption::FolderOf("/x/Trips//a.jpg"), "Trips");
  EXPECT_EQ(Caption::FolderOf("/a.jpg"), "");
  const Caption both("{date} \xC2\xB7 {folder} ({name})", nullptr, "C");
  EXPECT_EQ(both.Make("a.jpg", "2021:03:07 09:30:00", ""),
            "7 March 2021 \xC2\xB7 " + here + " (a.jpg)");
  ASSERT_EQ(chdir(cwd), 0);

  // Spaces alone are no title.
  QExif exif;
  exif.description = "   ", exif.windowsTitle = " Harbour ", exif.comment = "Comment";
  EXPECT_EQ(Caption::TitleOf(exif), "Harbour");
  exif.windowsTitle = "";
  EXPECT_EQ(Caption::TitleOf(exif), "Comment");

  // A long title is cut after whole characters (two-byte ones here) and ends in an ellipsis.
  std::string greek;
  for (size_t i = 0; i < Caption::MAX_CHARS + 50; ++i) greek += "\xCE\xBB";
  const Caption title("{title}", nullptr, "C");
  EXPECT_EQ(title.Make("a.jpg", "", greek.c_str()),
            greek.substr(0, 2 * Caption::MAX_CHARS) + "\xE2\x80\xA6");
  EXPECT_EQ(title.Make("a.jpg", "", "short"), "short");
}

}  // namespace
