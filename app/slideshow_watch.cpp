// RaceManager: following the scanned folder while it changes ("app.watch_directory").
#include <algorithm>
#include <string>
#include <vector>

#include "app/slideshow.h"
#include "framework/qdir.h"
#include "framework/qmessage.h"

namespace {

// The controller's log lines carry its main source name wherever its code lives.
constexpr const char* kSource = "slideshow.cpp";
// Listings in one go while names keep arriving during them; the rest waits for the next cycle.
constexpr int kMaxRounds = 4;

}  // namespace

void RaceManager::FollowFolder() {
  if (!watch) return;
  std::vector<std::string> changed, writing;
  int changes = watch->TakeChanges(&changed, &writing);
  if (changes == 0) return;
  const int namesChanged = int(changed.size());
  const bool nothingShown = !texture;
  std::vector<std::string> before;
  for (int i = 0; nothingShown && i < imageCount; ++i) before.push_back(images[i].cstr());
  // A file created while the folder was being listed may have been listed half-written: the
  // take after the listing shows it, and the folder is listed again without it.
  for (int round = 0; changes > 0 && round < kMaxRounds; ++round) {
    Rescan(writing);
    changes = watch->TakeChanges(nullptr, &writing);
  }
  if (changes > 0) Rescan(writing);
  qnote(kSource, "RaceManager::FollowFolder", __LINE__,
        "Folder changed (%d names): %d pictures, %d being written", namesChanged, imageCount,
        int(writing.size()));
  if (!nothingShown) return;
  // An empty (or unreadable) start: the first picture that came is shown.
  for (int i = 0; i < imageCount; ++i) {
    if (std::find(before.begin(), before.end(), images[i].cstr()) == before.end()) {
      const std::string first = images[i].cstr();
      LoadNewImage(first.c_str());
      return;
    }
  }
}
