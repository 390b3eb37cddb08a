// The display's weekly hours: texts, malformed texts, and edges across midnight and summer time.
#include "app/schedule.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "support/logcapture.h"
#include "support/tempdir.h"

namespace {

// Central European time and its summer time spelt out, so that no zone file is needed.
class InBerlin : public ::testing::Test {
 protected:
  void SetUp() override { tzset(); }
  void TearDown() override { tz_.reset(); tzset(); }
  // Local wall time; in a repeated hour the first pass.
  static time_t Local(int month, int day, int hour, int minute, int second = 0) {
    struct tm t = {};
    t.tm_year = 2026 - 1900, t.tm_mon = month - 1, t.tm_mday = day;
    t.tm_hour = hour, t.tm_min = minute, t.tm_sec = second, t.tm_isdst = -1;
    return mktime(&t);
  }
  static time_t Utc(int month, int day, int hour, int minute) {
    struct tm t = {};
    t.tm_year = 2026 - 1900, t.tm_mon = month - 1, t.tm_mday = day;
    t.tm_hour = hour, t.tm_min = minute;
    return timegm(&t);
  }
  static std::string Show(time_t t) {
    if (t < 0) return "never";
    char buf[64];
    struct tm local;
    localtime_r(&t, &local);
    strftime(buf, sizeof buf, "%a %d.%m. %H:%M:%S %Z", &local);
    return buf;
  }

  // 23 November 2026 is a Monday; `list` is "day hh:mm, ..." with day 0 that Monday.
  static std::vector<time_t> InWeek(const char* list) {
    std::vector<time_t> out;
    int day, hour, minute, n;
    const char* p = list;
    for (; sscanf(p, "%d %d:%d%n", &day, &hour, &minute, &n) == 3; p += n + (p[n] == ','))
      out.push_back(Local(11, kMonday + day, hour, minute));
    EXPECT_STREQ(p, "") << "in '" << list << "'";
    return out;
  }
  static constexpr int kMonday = 23;

  std::optional<ScopedEnv> tz_{std::in_place, "TZ", "CET-1CEST,M3.5.0,M10.5.0/3"};
};

TEST_F(InBerlin, TextsMeanTheirHoursAndMalformedOnesLeaveTheDisplayOn) {
  const struct {
    const char* text;
    const char *on, *off;  // day 0 Monday .. 6 Sunday, 7 the next Monday
  } cases[] = {
      {"", "0 3:00, 6 23:59", ""},
      {"Mon-Fri 07:30-19:00, Sat 09:00-14:00", "0 7:30, 4 18:59, 5 9:00",
       "0 7:29, 4 19:00, 5 8:59, 5 14:00, 6 12:00"},
      // A range of days wraps round the week's end.
      {"Sat-Mon 10:00-11:00", "5 10:30, 6 10:30, 0 10:30", "1 10:30, 4 10:30"},
      // A list of days, with blanks or commas, any case.
      {"mon, WED fri 08:00-12:00", "0 9:00, 2 9:00, 4 9:00", "1 9:00"},
      // Past midnight: the night belongs to the day it starts on, Sunday's to Monday morning.
      {"Fri 22:00-02:00", "4 23:00, 5 1:59", "4 21:59, 5 2:00, 3 23:00"},
      {"Sun 22:00-02:00", "6 22:00, 7 1:00", "0 23:00"},
      // 24:00 ends the day; hours without days are every day's, after a comma too.
      {"Mon 00:00-24:00", "0 0:00, 0 23:59", "1 0:00, 6 23:59"},
      {"8:00-9:00", "3 8:30, 6 8:59", "6 9:00"},
      {"Mon 08:00-10:00, 12:00-13:00", "1 12:30, 0 9:00", "1 9:00"},
      // Several ranges for the same days; blanks around the dashes.
      {"Mon-Fri 07:00-12:00 13:00-19:00", "2 13:00", "2 12:30, 5 8:00"},
      {"  Mon - Fri\t7:30 - 19:00 ", "0 7:30", "5 7:30"},
  };
  for (const auto& c : cases) {
    LogCapture log;
    Schedule s;
    EXPECT_TRUE(s.Parse(c.text)) << c.text;
    EXPECT_FALSE(log.Seen("malformed")) << c.text;
    for (time_t t : InWeek(c.on)) EXPECT_TRUE(s.IsOn(t)) << "'" << c.text << "' " << Show(t);
    for (time_t t : InWeek(c.off)) EXPECT_FALSE(s.IsOn(t)) << "'" << c.text << "' " << Show(t);
  }

  for (const char* bad : {"Mon-Fry 08:00-09:00", "Mon", "Mon 08:00-10:00 Tue", "Mon 25:00-26:00",
                          "Mon 08:00-08:00", "Mon 8-9", "Mon 24:00-02:00", "Mon 08:60-09:00",
                          "Mon 08:00-24:30", "Mon 08:00", "every day", "Mon 123:00-124:00"}) {
    LogCapture log;
    Schedule s;
    EXPECT_FALSE(s.Parse(bad)) << bad;
    EXPECT_TRUE(log.Seen("display.schedule '" + std::string(bad) + "' is malformed")) << bad;
    EXPECT_TRUE(s.Empty()) << bad;
    EXPECT_TRUE(s.IsOn(Local(11, kMonday + 6, 3, 0))) << bad;
  }
  // A good text after a bad one takes its place, and the other way round.
  Schedule s;
  ASSERT_TRUE(s.Parse("Mon 08:00-09:00"));
  EXPECT_FALSE(s.IsOn(Local(11, kMonday, 10, 0)));
  LogCapture log;
  EXPECT_FALSE(s.Parse("Mon 08:00-"));
  EXPECT_TRUE(s.IsOn(Local(11, kMonday, 10, 0)));
}

TEST_F(InBerlin, TheNextEdgeIsTheFirstMinuteTheStateChangesAtByTheLocalClock) {
  struct Case {
    const char* text;
    time_t from, edge;
  };
  const char* const week = "Mon-Fri 07:30-19:00, Sat 09:00-14:00";
  const Case cases[] = {
      {week, Local(11, kMonday, 7, 0), Local(11, kMonday, 7, 30)},
      // Strictly after: at the edge itself the next one.
      {week, Local(11, kMonday, 7, 30), Local(11, kMonday, 19, 0)},
      {week, Local(11, kMonday, 7, 29, 59), Local(11, kMonday, 7, 30)},
      {week, Local(11, kMonday + 4, 19, 0), Local(11, kMonday + 5, 9, 0)},
      // Over the weekend to Monday.
      {week, Local(11, kMonday + 5, 14, 0), Local(11, kMonday + 7, 7, 30)},
      // Ranges that meet are one: no edge where they touch.
      {"Mon 07:00-12:00 12:00-19:00", Local(11, kMonday, 8, 0), Local(11, kMonday, 19, 0)},
      {"Sat-Sun 00:00-24:00", Local(11, kMonday + 5, 8, 0), Local(11, kMonday + 7, 0, 0)},
      {"Fri 22:00-02:00", Local(11, kMonday + 4, 23, 0), Local(11, kMonday + 5, 2, 0)},
      // Never a change: no edge.
      {"00:00-24:00", Local(11, kMonday, 8, 0), -1},
      {"", Local(11, kMonday, 8, 0), -1},
      // Summer time from 29 March 02:00 (03:00 then): the next 07:30 is 05:30 UTC.
      {"07:30-19:00", Local(3, 28, 20, 0), Utc(3, 29, 5, 30)},
      // On in the hour before the jump, off at 03:00 when 02:30 is skipped over.
      {"Sun 01:30-02:30", Local(3, 29, 1, 45), Utc(3, 29, 1, 0)},
      // Back on 25 October at 03:00 (02:00 then): 02:00-02:30 comes twice, with edges each time.
      {"Sun 02:00-02:30", Utc(10, 24, 23, 0), Utc(10, 25, 0, 0)},
      {"Sun 02:00-02:30", Utc(10, 25, 0, 0), Utc(10, 25, 0, 30)},
      {"Sun 02:00-02:30", Utc(10, 25, 0, 30), Utc(10, 25, 1, 0)},
      {"Sun 02:00-02:30", Utc(10, 25, 1, 0), Utc(10, 25, 1, 30)},
      {"07:30-19:00", Local(10, 24, 20, 0), Utc(10, 25, 6, 30)},
  };
  for (const Case& c : cases) {
    Schedule s;
    ASSERT_TRUE(s.Parse(c.text)) << c.text;
    const time_t edge = s.NextEdge(c.from);
    EXPECT_EQ(edge, c.edge) << "'" << c.text << "' from " << Show(c.from) << ": " << Show(edge)
                            << " instead of " << Show(c.edge);
    if (edge > 0) {
      EXPECT_NE(s.IsOn(edge), s.IsOn(edge - 1)) << c.text << " at " << Show(edge);
    }
  }
}

}  // namespace
