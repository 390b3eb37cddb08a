// The display's weekly hours: the text read into spans of the week, and the wall clock walked
// from edge to edge.
#include "app/schedule.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

#include "framework/qmessage.h"

namespace {

constexpr int kDay = 24 * 60;
constexpr int kWeek = 7 * kDay;
const char* const kDays[] = {"mon", "tue", "wed", "thu", "fri", "sat", "sun"};

// Monday 0 .. Sunday 6, or -1.
int DayIndex(const std::string& word) {
  if (word.size() != 3) return -1;
  std::string lower;
  for (char c : word) lower += char(tolower(static_cast<unsigned char>(c)));
  for (int i = 0; i < 7; ++i)
    if (lower == kDays[i]) return i;
  return -1;
}

// "H:MM" or "HH:MM" into minutes of the day (24:00 is 1440); -1 when it is no such time.
int TimeOfDay(const std::string& s) {
  const size_t colon = s.find(':');
  if (colon < 1 || colon > 2 || s.size() != colon + 3) return -1;
  for (size_t i = 0; i < s.size(); ++i)
    if (i != colon && !isdigit(static_cast<unsigned char>(s[i]))) return -1;
  const int h = atoi(s.substr(0, colon).c_str()), m = atoi(s.substr(colon + 1).c_str());
  if (m > 59 || h > 24 || (h == 24 && m != 0)) return -1;
  return h * 60 + m;
}

int MinuteOfWeek(const struct tm& t) {
  return ((t.tm_wday + 6) % 7) * kDay + t.tm_hour * 60 + t.tm_min;
}

}  // namespace

bool Schedule::Parse(const char* text) {
  spans_.clear();
  const std::string all(text ? text : "");
  // Blanks around '-' join the range they stand in; a comma is a word of its own.
  std::string squeezed;
  for (size_t i = 0; i < all.size(); ++i) {
    const char c = all[i];
    if (c == ' ' || c == '\t') {
      size_t j = i;
      while (j < all.size() && (all[j] == ' ' || all[j] == '\t')) ++j;
      if ((!squeezed.empty() && squeezed.back() == '-') || (j < all.size() && all[j] == '-')) {
        i = j - 1;
        continue;
      }
      squeezed += ' ';
    } else if (c == ',') {
      squeezed += " , ";
    } else {
      squeezed += c;
    }
  }
  std::vector<std::string> words;
  for (size_t i = 0; i < squeezed.size();) {
    const size_t end = std::min(squeezed.find(' ', i), squeezed.size());
    if (end > i) words.push_back(squeezed.substr(i, end - i));
    i = end + 1;
  }

  std::vector<Span> spans;
  unsigned days = 0;      // bit i: day i, for the hours that follow
  bool hadHours = false;  // hours followed `days`: the next day starts a new set
  std::string fault;
  for (const std::string& w : words) {
    if (w == ",") {
      // Hours after a comma with no days of their own are every day's.
      if (hadHours) days = 0, hadHours = false;
      continue;
    }
    const size_t dash = w.find('-');
    const std::string first = w.substr(0, dash),
                      last = dash == std::string::npos ? "" : w.substr(dash + 1);
    if (!w.empty() && isdigit(static_cast<unsigned char>(w[0]))) {
      const int start = TimeOfDay(first), end = TimeOfDay(last);
      if (start < 0 || end < 0 || start == kDay || start == end) {
        fault = "'" + w + "' is no range of hours";
        break;
      }
      // A range that ends before it starts runs past midnight into the next day.
      const int length = end > start ? end - start : end + kDay - start;
      for (int d = 0; d < 7; ++d) {
        if (days && !(days & (1u << d))) continue;
        const int s = d * kDay + start, e = s + length;
        spans.push_back({s, std::min(e, kWeek)});
        if (e > kWeek) spans.push_back({0, e - kWeek});
      }
      hadHours = true;
      continue;
    }
    const int from = DayIndex(first), to = dash == std::string::npos ? from : DayIndex(last);
    if (from < 0 || to < 0) {
      fault = "'" + w + "' is no day or range of days";
      break;
    }
    if (hadHours) days = 0, hadHours = false;
    for (int d = from;; d = (d + 1) % 7) {
      days |= 1u << d;
      if (d == to) break;
    }
  }
  if (fault.empty() && days && !hadHours) fault = "days without hours at the end";
  if (!fault.empty()) {
    QERR("Schedule::Parse", "display.schedule '%s' is malformed (%s); the display stays on",
         all.c_str(), fault.c_str());
    return false;
  }
  spans_ = std::move(spans);
  return true;
}

bool Schedule::On(int minuteOfWeek) const {
  for (const Span& s : spans_)
    if (minuteOfWeek >= s.start && minuteOfWeek < s.end) return true;
  return false;
}

int Schedule::ToNextBoundary(int minuteOfWeek) const {
  int best = kWeek;
  for (const Span& s : spans_) {
    for (int b : {s.start, s.end}) {
      const int d = ((b - minuteOfWeek) % kWeek + kWeek) % kWeek;
      if (d > 0 && d < best) best = d;
    }
  }
  return best;
}

bool Schedule::IsOn(time_t t) const {
  if (spans_.empty()) return true;
  struct tm local;
  if (!localtime_r(&t, &local)) return true;
  return On(MinuteOfWeek(local));
}

time_t Schedule::NextEdge(time_t t) const {
  if (spans_.empty()) return -1;
  const bool state = IsOn(t);
  const time_t limit = t + 8 * 86400;
  // Local minutes start on whole minutes of the system's clock in every zone in use.
  time_t m = (t / 60 + 1) * 60;
  while (m <= limit) {
    struct tm here, there;
    if (!localtime_r(&m, &here)) return -1;
    const int w = MinuteOfWeek(here);
    if (On(w) != state) return m;
    time_t next = m + time_t(ToNextBoundary(w)) * 60;
    if (!localtime_r(&next, &there)) return -1;
    if (there.tm_gmtoff != here.tm_gmtoff) {
      // The clock is put forward or back before then: the hours are looked at again from the
      // first minute of the new offset.
      time_t lo = m, hi = next;
      while (hi - lo > 60) {
        const time_t mid = lo + (hi - lo) / 120 * 60;
        if (!localtime_r(&mid, &there)) return -1;
        (there.tm_gmtoff == here.tm_gmtoff ? lo : hi) = mid;
      }
      next = hi;
    }
    m = next;
  }
  return -1;
}

std::chrono::system_clock::time_point Schedule::Now() {
  static const long long shift = [] {
    const char* s = getenv("GLIMRA_DEV_CLOCK_SHIFT");
    const long long v = s ? strtoll(s, nullptr, 10) : 0;
    if (v) QNOTE("Schedule::Now", "GLIMRA_DEV_CLOCK_SHIFT '%s': the schedule's clock is moved", s);
    return v;
  }();
  return std::chrono::system_clock::now() + std::chrono::seconds(shift);
}
