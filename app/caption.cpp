// Caption: pattern, EXIF date and folder name -> the line under a picture.
#include "app/caption.h"

#include <limits.h>
#include <stdlib.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "framework/image/qexif.h"
#include "framework/qmessage.h"
#include "framework/qstring.h"

namespace {

std::string Trimmed(const std::string& s) {
  const size_t first = s.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return std::string();
  return s.substr(first, s.find_last_not_of(" \t\r\n") - first + 1);
}

bool IsLeap(int y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

int DaysIn(int year, int month) {
  static const int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && IsLeap(year) ? 29 : days[month - 1];
}

// strftime's %A and %j need the weekday and the day of the year, which no time zone changes.
void SetCalendarDays(struct tm* t) {
  const int y = t->tm_year + 1900, m = t->tm_mon + 1;
  t->tm_yday = t->tm_mday - 1;
  for (int k = 1; k < m; ++k) t->tm_yday += DaysIn(y, k);
  static const int offsets[] = {0, 3, 2, 5, 0, 3, 5, 1, 4, 6, 2, 4};
  const int yy = m < 3 ? y - 1 : y;
  t->tm_wday = (yy + yy / 4 - yy / 100 + yy / 400 + offsets[m - 1] + t->tm_mday) % 7;
}

// At most `max` characters of UTF-8 `s`, and "…" when it was longer: a title may run to kilobytes,
// and each of its characters would be rendered for every frame.
std::string CutToChars(const std::string& s, size_t max) {
  const auto* begin = reinterpret_cast<const unsigned char*>(s.data());
  const unsigned char *p = begin, *end = begin + s.size();
  for (size_t n = 0; p < end && n < max; ++n) qutf8decode(&p, end);
  return p < end ? s.substr(0, size_t(p - begin)) + "\xE2\x80\xA6" : s;
}

// Where a name's last component starts: after its last '/'.
std::string LastComponent(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

Caption::Caption(const char* pattern, const char* format, const char* locale)
    : dateFormat(format ? format : DEFAULT_DATE_FORMAT) {
  const std::string text(pattern ? pattern : "");
  static const struct { const char* name; Field field; } kFields[] = {
      {"{date}", DATE}, {"{folder}", FOLDER}, {"{name}", NAME}, {"{title}", TITLE}};
  size_t at = 0;
  while (at < text.size()) {
    Field found = LITERAL;
    size_t length = 1;
    for (const auto& f : kFields)
      if (text.compare(at, strlen(f.name), f.name) == 0) found = f.field, length = strlen(f.name);
    if (found != LITERAL) {
      parts.push_back({found, std::string()});
    } else if (!parts.empty() && parts.back().field == LITERAL) {
      parts.back().text += text[at];
    } else {
      parts.push_back({LITERAL, std::string(1, text[at])});
    }
    at += length;
  }
  if (parts.empty()) return;
  dates = newlocale(LC_TIME_MASK, locale ? locale : "", locale_t(0));
  if (!dates) {
    const char* name = locale && *locale ? locale : getenv("LC_ALL");
    if (!name || !*name) name = getenv("LC_TIME");
    if (!name || !*name) name = getenv("LANG");
    QWARN("Caption", "Caption(); can't use the locale '%s' for dates; they are written as in C",
          name ? name : "");
    dates = newlocale(LC_TIME_MASK, "C", locale_t(0));
  }
}

Caption::~Caption() {
  if (dates) freelocale(dates);
}

std::string Caption::Compose(const Facts& facts) const {
  const size_t n = parts.size();
  std::vector<const std::string*> shown(n);
  for (size_t i = 0; i < n; ++i) shown[i] = &parts[i].text;
  bool hasField = false, valueBefore = false;
  for (size_t i = 0; i < n; ++i) {
    switch (parts[i].field) {
      case LITERAL: continue;
      case DATE: shown[i] = &facts.date; break;
      case FOLDER: shown[i] = &facts.folder; break;
      case NAME: shown[i] = &facts.name; break;
      case TITLE: shown[i] = &facts.title; break;
    }
    hasField = true;
    if (!shown[i]->empty()) {
      valueBefore = true;
      continue;
    }
    // Parts alternate between text and fields, so the separator is a neighbour; the text before
    // has not been dropped, since a field dropping the text after it had no value before it.
    shown[i] = nullptr;
    if (valueBefore) {
      if (parts[i - 1].field == LITERAL) shown[i - 1] = nullptr;
    } else if (i + 1 < n && parts[i + 1].field == LITERAL) {
      shown[i + 1] = nullptr;
    }
  }
  if (hasField && !valueBefore) return std::string();
  std::string out;
  for (size_t i = 0; i < n; ++i)
    if (shown[i]) out += *shown[i];
  return Trimmed(out);
}

std::string Caption::Date(const char* exif) const {
  int y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0;
  if (!exif || !dates || sscanf(exif, "%4d:%2d:%2d %2d:%2d:%2d", &y, &mo, &d, &h, &mi, &s) < 3)
    return std::string();
  if (y < 1 || mo < 1 || mo > 12 || d < 1 || d > DaysIn(y, mo) || h < 0 || h > 23 || mi < 0 ||
      mi > 59 || s < 0 || s > 60)
    return std::string();
  struct tm t = {};
  t.tm_year = y - 1900, t.tm_mon = mo - 1, t.tm_mday = d;
  t.tm_hour = h, t.tm_min = mi, t.tm_sec = s;
  t.tm_isdst = -1;
  SetCalendarDays(&t);
  char buf[256];
  const size_t length = strftime_l(buf, sizeof(buf), dateFormat.c_str(), &t, dates);
  return Trimmed(std::string(buf, length));
}

std::string Caption::Make(const std::string& path, const char* exifDate, const char* title) const {
  if (Empty()) return std::string();
  Facts facts;
  facts.date = Date(exifDate);
  facts.folder = FolderOf(path);
  facts.name = LastComponent(path);
  facts.title = title ? title : "";
  return CutToChars(Compose(facts), MAX_CHARS);
}

std::string Caption::FolderOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  std::string dir = slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  std::string last = LastComponent(dir);
  if (!last.empty() && last != "." && last != "..") return last;
  char real[PATH_MAX];
  return realpath(dir.c_str(), real) ? LastComponent(real) : std::string();
}

std::string Caption::TitleOf(const QExif& exif) {
  for (const qstring* text : {&exif.description, &exif.windowsTitle, &exif.comment}) {
    std::string t = Trimmed(text->cstr());
    if (!t.empty()) return t;
  }
  return std::string();
}
