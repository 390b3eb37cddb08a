// RaceManager: following the scanned folder while it changes ("app.watch_directory").
#include <algorithm>
#include <string>
#include <vector>

#include "app/prefetcher.h"
#include "app/slideshow.h"
#include "framework/qdir.h"
#include "framework/qmessage.h"

namespace {

// Listings in a row while files keep starting to be written during them.
constexpr int kMaxRounds = 4;

}  // namespace

bool RaceManager::ReturnHome() {
  if (home.IsEmpty() || !QReenterDirectory(home.cstr())) return false;
  // Every name may stand for another file now.
  if (prefetcher)
    for (int i = 0; i < catalogue->Count(); ++i) prefetcher->Forget(catalogue->Name(i));
  returned = true;
  return true;
}

void RaceManager::ShowReturned() {
  if (!returned || catalogue->Count() < 1) return;
  returned = false;
  // A name of the old folder found in the new one is another file by now: read again.
  if (!curFile.IsEmpty() && CatalogueIndex(curFile.cstr()) >= 0) {
    LoadCurImage();
    return;
  }
  const std::string first = catalogue->Name(0);
  LoadNewImage(first.c_str());
}

void RaceManager::FollowFolder() {
  if (!watch) return;
  std::vector<std::string> changed, writing;
  if (watch->TakeChanges(&changed, &writing) == 0) return;
  // A changed name may have kept its size and time: what was prefetched of it is stale.
  if (prefetcher)
    for (const std::string& name : changed) prefetcher->Forget(name);
  if (ReturnHome()) watch->Writing(&writing);
  const bool nothingShown = !slide;
  std::vector<std::string> before;
  for (int i = 0; nothingShown && i < catalogue->Count(); ++i) before.push_back(catalogue->Name(i));
  // A file whose writing began while the folder was being listed may be listed half-written;
  // the folder is then listed again without it.
  Rescan(writing);
  for (int round = 1; round < kMaxRounds; ++round) {
    watch->Writing(&writing);
    bool listed = false;
    for (const std::string& name : writing) listed = listed || FindImage(name.c_str()) >= 0;
    if (!listed) break;
    Rescan(writing);
  }
  QNOTE("RaceManager::FollowFolder", "Folder changed (%d names): %d pictures, %d being written",
        int(changed.size()), catalogue->Count(), int(writing.size()));
  if (returned) {
    ShowReturned();
    return;
  }
  if (!nothingShown) return;
  // An empty (or unreadable) start: the first picture that came is shown.
  for (int i = 0; i < catalogue->Count(); ++i) {
    if (std::find(before.begin(), before.end(), catalogue->Name(i)) == before.end()) {
      const std::string first = catalogue->Name(i);
      LoadNewImage(first.c_str());
      return;
    }
  }
}

void RaceManager::RescanFolder() {
  ReturnHome();
  std::vector<std::string> writing;
  if (watch) watch->Writing(&writing);
  Rescan(writing);
  ShowReturned();
}
