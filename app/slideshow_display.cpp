// RaceManager: the display's power, by command, key and weekly schedule.
#include <chrono>
#include <string>
#include <vector>

#include "app/prefetcher.h"
#include "app/slideshow.h"
#include "framework/qmessage.h"
#include "framework/qshell.h"

void RaceManager::SetSchedule(const char* text) {
  schedule.Parse(text);
  displayHeld = false;
  edgeAt = -1;
  edgeFrom = 0;
  FollowSchedule();
}

void RaceManager::FollowSchedule() {
  if (schedule.Empty()) return;
  const time_t now = std::chrono::system_clock::to_time_t(Schedule::Now());
  const bool crossed = edgeAt >= 0 && now >= edgeAt;
  // Worked out again at each edge, and when the clock was set back: from the local time, so a
  // change to or from summer time moves the edges with the clock.
  if (crossed || edgeFrom == 0 || now < edgeFrom) {
    if (crossed) displayHeld = false;
    edgeAt = schedule.NextEdge(now);
    edgeFrom = now;
  }
  if (!displayHeld && schedule.IsOn(now) != displayOn) ApplyDisplay(!displayOn, "schedule", true);
}

void RaceManager::SetDisplayOn(bool on, bool show) { HoldDisplay(on, "command", show); }

void RaceManager::HoldDisplay(bool on, const char* why, bool show) {
  // The hold lasts until the edge after now.
  FollowSchedule();
  displayHeld = true;
  ApplyDisplay(on, why, show);
}

void RaceManager::ApplyDisplay(bool on, const char* why, bool show) {
  if (on == displayOn) return;
  displayOn = on;
  QNOTE("RaceManager::SetDisplayOn", "Display %s (%s)", on ? "on" : "off", why);
  dirty = true;
  if (!on) {
    // Nothing of the pictures is kept or made while nobody sees them; the position stays.
    EndFade();
    slide.Clear();
    animation.reset();
    animFrame.reset();
    sharpenDue = false;
    newPicture = false;
    prefetchDue = false;
    if (prefetcher) prefetcher->Want({}, CurrentFit(), false);
    // The monitor goes down once the black frame is out (IdleProc).
    return;
  }
  if (window && monitorOff) window->SetMonitorPower(true);
  monitorOff = false;
  RestartAdvance();
  if (!show) return;
  const int before = shownCount;
  LoadCurImage();
  // The picture went away in the dark: the next one that loads instead.
  if (shownCount == before && catalogue->Count() > 0) AdvanceStep();
}
