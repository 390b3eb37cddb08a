// The command set: texts and keys into commands, and a batch of them carried out on the
// controller.
#include "app/commands.h"

#include <cstring>

#include "app/slideshow.h"
#include "framework/qevent.h"

Command ParseCommand(const char* text) {
  Command c;
  if (!text) return c;
  if (strncmp(text, "load ", 5) == 0) {
    c.kind = Command::LOAD;
    c.path = text + 5;
    return c;
  }
  // The other commands are whole words; one line end is allowed, since a shell's echo adds it.
  std::string word(text);
  if (!word.empty() && word.back() == '\n') word.pop_back();
  if (!word.empty() && word.back() == '\r') word.pop_back();
  if (word == "next") {
    c.kind = Command::NEXT;
  } else if (word == "prev") {
    c.kind = Command::PREV;
  } else if (word == "bw 1" || word == "bw 0") {
    c.kind = Command::BLACK_AND_WHITE;
    c.on = word == "bw 1";
  } else if (word == "info 1" || word == "info 0") {
    c.kind = Command::INFO;
    c.on = word == "info 1";
  } else if (word == "rescan") {
    c.kind = Command::RESCAN;
  } else if (word == "pause") {
    c.kind = Command::PAUSE;
  } else if (word == "resume") {
    c.kind = Command::RESUME;
  } else if (word == "display on" || word == "display off") {
    c.kind = Command::DISPLAY;
    c.on = word == "display on";
  }
  return c;
}

Command KeyCommand(int key, bool infoShown) {
  Command c;
  switch (key) {
    case QK_RIGHT:
      c.kind = Command::NEXT;
      break;
    case QK_LEFT:
      c.kind = Command::PREV;
      break;
    case 'B':
    case 'C':
      c.kind = Command::BLACK_AND_WHITE;
      c.on = key == 'B';
      break;
    case 'I':
      c.kind = Command::INFO;
      c.on = !infoShown;
      break;
    default:
      break;
  }
  return c;
}

bool RunCommands(const std::vector<Command>& batch, RaceManager* rm) {
  if (batch.empty() || !rm) return true;
  if (RaceManager::StopRequested()) return false;
  const auto shows = [](const Command& c) {
    return c.kind == Command::LOAD || c.kind == Command::NEXT || c.kind == Command::PREV;
  };
  // The last command that shows a picture is the only one loaded; a load before it matters only
  // when a step comes next, which goes from the loaded picture.
  size_t last = batch.size();
  int blackAndWhite = -1, info = -1, paused = -1, display = -1;
  for (size_t i = 0; i < batch.size(); ++i) {
    if (shows(batch[i])) last = i;
    if (batch[i].kind == Command::BLACK_AND_WHITE) blackAndWhite = batch[i].on;
    if (batch[i].kind == Command::INFO) info = batch[i].on;
    if (batch[i].kind == Command::PAUSE || batch[i].kind == Command::RESUME)
      paused = batch[i].kind == Command::PAUSE;
    if (batch[i].kind == Command::DISPLAY) display = batch[i].on;
  }
  if (paused >= 0) rm->SetPaused(paused != 0);
  // Before the pictures: off, they only move the position; on, the one loaded below is shown
  // without the current one being decoded first.
  const int shownBefore = rm->GetShownCount();
  const bool wakes = display == 1 && !rm->IsDisplayOn();
  if (display >= 0) rm->SetDisplayOn(display != 0, last == batch.size());
  // First the settings: the one picture loaded below is loaded as the last "bw" wants.
  const bool reload = blackAndWhite >= 0 && last == batch.size();
  if (blackAndWhite >= 0 || info >= 0) rm->SetEffects(blackAndWhite, info, reload);
  bool rescanned = false;
  bool stepNext = false;  // the next command that shows a picture is a step
  std::vector<bool> selectOnly(batch.size(), false);
  for (size_t i = batch.size(); i-- > 0;) {
    if (!shows(batch[i])) continue;
    selectOnly[i] = batch[i].kind == Command::LOAD && stepNext;
    stepNext = batch[i].kind != Command::LOAD;
  }
  for (size_t i = 0; i < batch.size(); ++i) {
    if (RaceManager::StopRequested()) return false;
    const Command& c = batch[i];
    if (c.kind == Command::RESCAN && !rescanned) {
      rm->RescanFolder();
      rescanned = true;
    } else if (c.kind == Command::LOAD && i == last) {
      const int shown = rm->GetShownCount();
      rm->LoadNewImage(c.path.c_str());
      // Failed: the picture on the screen takes the new black and white instead.
      if (blackAndWhite >= 0 && rm->GetShownCount() == shown) rm->LoadCurImage();
    } else if (c.kind == Command::LOAD && selectOnly[i]) {
      rm->SelectImage(c.path.c_str());
    } else if (c.kind == Command::NEXT || c.kind == Command::PREV) {
      rm->Step(c.kind == Command::NEXT ? 1 : -1, i == last);
    }
  }
  // Woken for a picture that then failed: the one the position stands on instead.
  if (wakes && last < batch.size() && rm->GetShownCount() == shownBefore) rm->LoadCurImage();
  rm->RestartAdvance();
  return true;
}
