// Schedule: the hours of the week a display is on ("display.schedule"), in local time.
//
// The text is a list of days followed by hours: "Mon-Fri 07:30-19:00, Sat 09:00-14:00". Days are
// Mon Tue Wed Thu Fri Sat Sun (letters in any case); "Sat-Mon" wraps round the week (Sat, Sun,
// Mon); several days or ranges may stand together, separated by blanks or commas ("Mon, Wed
// Fri-Sat 08:00-12:00"). Hours are H:MM or HH:MM from 00:00 to 24:00 (24:00 only as an end);
// several ranges may follow the same days ("Mon-Fri 07:00-12:00 13:00-19:00"). A range that ends
// before it starts runs past midnight and belongs to the day it starts on ("Fri 22:00-02:00" is
// Friday night until 2 in the morning of Saturday). Hours with no days before them in their
// comma-separated part are every day's. Blanks may stand anywhere between the parts, around '-'
// too. An empty text is always on.
//
// Times are the wall clock's in the local time zone, so that 07:30 stays 07:30 across a change to
// or from summer time: an hour the change skips has no edge of its own (the state changes when
// the clock jumps), and one it repeats has the edges of both passes. Edges fall on whole minutes.
#pragma once

#include <chrono>
#include <ctime>
#include <string>
#include <vector>

class Schedule {
 public:
  // Reads `text`. A malformed text logs an error naming it in single quotes and what is wrong,
  // and leaves the schedule always on (false).
  bool Parse(const char* text);
  // True when no hours are set: the display is always on.
  bool Empty() const { return spans_.empty(); }
  // Whether the display is on at `t` (local time).
  bool IsOn(time_t t) const;
  // The first whole minute after `t` at which IsOn changes; -1 when it never does within eight
  // days (no schedule, or one that covers the whole week).
  time_t NextEdge(time_t t) const;

  // The wall clock the schedule follows: the system's, moved by the environment variable
  // GLIMRA_DEV_CLOCK_SHIFT (whole seconds, read once) so that tests can cross an edge at once.
  static std::chrono::system_clock::time_point Now();

 private:
  // Minutes from Monday 00:00 of the week; `end` is past `start` and at most a week on.
  struct Span {
    int start = 0, end = 0;
  };
  bool On(int minuteOfWeek) const;
  // Minutes from `minuteOfWeek` to the next start or end of a span (1 to a week).
  int ToNextBoundary(int minuteOfWeek) const;

  std::vector<Span> spans_;
};
