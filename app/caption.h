// Caption: the line drawn under a picture, made from a pattern such as "{date} · {folder}" and
// the picture's facts. Fields: {date} the EXIF date taken written with a strftime format in the
// system's locale, {folder} the last component of the picture's folder, {name} its file name,
// {title} its EXIF description, else its Windows title, else its JPEG comment. Other text, a "{"
// that opens no known field included, is kept as written (UTF-8).
//
// A field without a value is left out with the text on one side of it: the text before it when a
// field with a value comes earlier, else the text after it. So "{date} · {folder}" without a date
// gives the folder alone; a pattern none of whose fields has a value gives no caption. The result
// loses its leading and trailing spaces.
//
// The locale for dates is looked up once, when the Caption is made, and used for dates only: the
// rest of the program (the log's time stamps) stays as it was. Compose, Date and Make change
// nothing, so a Caption may serve several threads.
#pragma once

#include <locale.h>

#include <string>
#include <vector>

class QExif;

class Caption {
 public:
  // Default of "effects.date_format": day, month's name, year ("7 March 2021").
  static constexpr const char* DEFAULT_DATE_FORMAT = "%e %B %Y";

  struct Facts {
    std::string date, folder, name, title;
  };

  // `locale` "" is the system's (LC_ALL, LC_TIME, LANG); one that can't be used is warned
  // (naming it) and dates are written as in C.
  Caption(const char* pattern, const char* dateFormat, const char* locale = "");
  ~Caption();
  Caption(const Caption&) = delete;
  Caption& operator=(const Caption&) = delete;

  // No pattern: no caption is ever made.
  bool Empty() const { return parts.empty(); }
  // The pattern filled with `facts`; "" when it has fields and none has a value.
  std::string Compose(const Facts& facts) const;
  // An EXIF date ("YYYY:MM:DD HH:MM:SS", the time optional) in the date format, spaces trimmed;
  // "" for a text that is no date (cameras write zeros when their clock was never set).
  std::string Date(const char* exif) const;
  // The longest caption, in characters; a longer one is cut and ends in "…".
  static constexpr size_t MAX_CHARS = 200;
  // The caption of the picture at `path` with its EXIF date taken and title (either may be ""),
  // at most MAX_CHARS characters.
  std::string Make(const std::string& path, const char* exifDate, const char* title) const;

  // The last component of `path`'s folder; ".", ".." and a path without folder are looked up in
  // the file system (the working directory's own name); "" when that fails.
  static std::string FolderOf(const std::string& path);
  // `exif`'s description, else its Windows title, else its comment, spaces trimmed; a text of
  // spaces alone counts as none.
  static std::string TitleOf(const QExif& exif);

 private:
  enum Field { LITERAL, DATE, FOLDER, NAME, TITLE };
  struct Part {
    Field field;
    std::string text;  // LITERAL only
  };
  std::vector<Part> parts;
  std::string dateFormat;
  locale_t dates = nullptr;  // owned
};
