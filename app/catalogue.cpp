// Catalogue: the listing, the orders, the index and the walk's worker.
#include "app/catalogue.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <set>
#include <utility>

#include "framework/image/qpicturefacts.h"
#include "framework/image/qpicturekinds.h"
#include "framework/qdir_list.h"
#include "framework/qevent.h"
#include "framework/qfile.h"
#include "framework/qmessage.h"
#include "framework/qstring.h"
#include "framework/qthread.h"

namespace {

// What the walk gathers before the main loop takes it, and the longest it keeps it.
// Each hand-over costs the main loop a pass over the whole list, so a large library is handed
// over in few large parts.
constexpr size_t kBatchItems = 25000;
constexpr auto kBatchTime = std::chrono::milliseconds(100);
// The index is written in transactions of this many rows.
constexpr size_t kIndexRows = 1000;
// Longest hold of the walk for the start's first picture.
constexpr auto kFirstShowHold = std::chrono::seconds(1);
// State keys in the index.
constexpr const char* kShownKey = "shown";

int64_t Seconds(int64_t nanoseconds) { return nanoseconds / 1000000000; }

}  // namespace

Catalogue::Catalogue() {
  random_.seed(uint64_t(std::random_device{}()) ^
               uint64_t(std::chrono::steady_clock::now().time_since_epoch().count()));
}

Catalogue::~Catalogue() {
  std::unique_lock<std::mutex> lock(mutex_);
  stop_ = true;
  stopping_ = true;
  changed_.notify_all();
  changed_.wait(lock, [this] { return !running_; });
  lock.unlock();
  thread_.reset();
  index_.reset();
}

void Catalogue::Open(const Options& options, const std::string& root) {
  options_ = options;
  if (options_.maxPictures < 0) options_.maxPictures = DEFAULT_MAX;
  root_ = root;
  // Nothing of the index is needed before the first picture unless the show resumes: then a
  // library's worker opens it, off the start's way.
  const bool later = options_.recursive && !options_.resume;
  if (!options_.indexFile.empty()) {
    index_.reset(new PictureIndex());
    if (!later && !index_->Open(options_.indexFile, root_)) index_.reset();
    indexLater_ = later && index_;
  }
  if (index_ && options_.resume) index_->GetState(kShownKey, &resumeName_);
  if (!options_.recursive) return;
  running_ = true;
  thread_.reset(new QThread(&Catalogue::Work, this, "glimra_catalogue"));
  if (thread_->Create()) {
    // Below the show: the first picture and the keys come before the walk.
    thread_->SetPriority(6);
    return;
  }
  // No worker: the library is walked in the main loop's time instead, all at once.
  running_ = false;
  thread_.reset();
  indexLater_ = false;
  if (index_ && later && !index_->Open(options_.indexFile, root_)) index_.reset();
}

// ---------------------------------------------------------------------------------------------
// Filling
// ---------------------------------------------------------------------------------------------

void Catalogue::Scan(const std::vector<std::string>& skip) {
  if (options_.recursive && running_) {
    std::lock_guard<std::mutex> lock(mutex_);
    walkWanted_ = true;
    walkSkip_ = skip;
    changed_.notify_all();
    return;
  }
  // A flat folder (or no worker): listed now, pictures from elsewhere dropped, as it always was.
  items_.erase(std::remove_if(items_.begin(), items_.end(), [](const Item& i) { return i.extra; }),
               items_.end());
  Reindex();
  Walk(skip, true);
  current_ = -1;
}

bool Catalogue::Walking() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return walkWanted_ || walking_ || !queue_.empty();
}

bool Catalogue::HasFound() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return !queue_.empty();
}

std::string Catalogue::WaitFirst(int ms) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (!running_) return first_;
  changed_.wait_for(lock, std::chrono::milliseconds(ms),
                    [this] { return !first_.empty() || firstDone_ || stop_; });
  return first_;
}

void Catalogue::FirstShown() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (firstShown_) return;
  firstShown_ = true;
  changed_.notify_all();
}

bool Catalogue::Merge() {
  std::vector<Batch> batches;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (queue_.empty()) return false;
    batches.swap(queue_);
  }
  for (Batch& b : batches) Apply(b);
  return true;
}

void Catalogue::HoldForFirstShow() {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait_for(lock, kFirstShowHold, [this] { return firstShown_ || stop_; });
  firstShown_ = true;
}

void Catalogue::Work(void* self) { static_cast<Catalogue*>(self)->WorkLoop(); }

void Catalogue::WorkLoop() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!stop_) {
    if (roundDue_ || shownDue_) {
      lock.unlock();
      WriteDue();
      lock.lock();
      continue;
    }
    if (walkWanted_) {
      walkWanted_ = false;
      walking_ = true;
      const std::vector<std::string> skip = walkSkip_;
      lock.unlock();
      Walk(skip, false);
      lock.lock();
      walking_ = false;
      firstDone_ = true;
      changed_.notify_all();
      continue;
    }
    changed_.wait(lock);
  }
  // The picture shown last is kept for the next start.
  lock.unlock();
  WriteDue();
  lock.lock();
  running_ = false;
  changed_.notify_all();
}

void Catalogue::WriteDue() {
  std::string shown;
  std::vector<std::string> round;
  bool haveShown, haveRound;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    haveShown = shownDue_, haveRound = roundDue_;
    shown.swap(shownToSave_);
    round.swap(roundToSave_);
    shownDue_ = roundDue_ = false;
  }
  if (!Indexed()) return;
  if (haveShown) index_->SetState(kShownKey, shown);
  if (haveRound) index_->SetRound(round);
}

void Catalogue::Hand(Batch&& batch, bool flat) {
  if (flat) {
    Apply(batch);
    return;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  if (first_.empty() && batch.kind == Batch::FOUND && !batch.items.empty())
    first_ = batch.items.front().name;
  queue_.push_back(std::move(batch));
  changed_.notify_all();
  QEventWake();  // the main loop takes it in at once
}

void Catalogue::LoadIndex(bool flat) {
  const auto byPath = [](const Known& k, const std::string& p) {
    return QPathListsBefore(k.path, p);
  };
  hinted_ = true;
  std::vector<IndexedPicture> rows;
  index_->Load(&rows);
  known_.clear();
  known_.reserve(rows.size());
  for (IndexedPicture& r : rows) {
    Known k;
    k.path = std::move(r.path);
    k.size = r.size;
    k.modified = r.modified;
    k.key = r.taken ? r.taken : Seconds(r.modified);
    k.sent = true;
    known_.push_back(std::move(k));
  }
  std::sort(known_.begin(), known_.end(),
            [](const Known& a, const Known& b) { return QPathListsBefore(a.path, b.path); });
  Batch round;
  round.kind = Batch::ROUND;
  std::vector<std::string> saved;
  if (options_.order == SHUFFLE && options_.resume) index_->GetRound(&saved);
  std::vector<char> inRound(known_.size(), 0);
  for (const std::string& p : saved) {
    const auto it = std::lower_bound(known_.begin(), known_.end(), p, byPath);
    if (it == known_.end() || it->path != p || inRound[size_t(it - known_.begin())]) continue;
    inRound[size_t(it - known_.begin())] = 1;
    round.items.push_back(Item{p, it->key, false});
  }
  Batch rest;
  for (size_t i = 0; i < known_.size(); ++i)
    if (!inRound[i]) rest.items.push_back(Item{known_[i].path, known_[i].key, false});
  // In the name order already.
  if (options_.order == BY_DATE)
    std::sort(rest.items.begin(), rest.items.end(),
              [this](const Item& a, const Item& b) { return Before(a, b); });
  if (!round.items.empty()) Hand(std::move(round), flat);
  if (!rest.items.empty()) Hand(std::move(rest), flat);
}

void Catalogue::Walk(const std::vector<std::string>& skipIn, bool flat) {
  std::vector<std::string> skip(skipIn);
  std::sort(skip.begin(), skip.end());
  const auto byPath = [](const Known& k, const std::string& p) {
    return QPathListsBefore(k.path, p);
  };

  // A start with an index: its rows come first, so the whole library is there at once; a
  // library's first picture goes ahead of them, for the start to show.
  bool hintDue = (indexLater_ || Indexed()) && !hinted_;
  if (hintDue && flat) {
    LoadIndex(flat);
    hintDue = false;
  }

  // The file facts are read when something keeps them or orders by them.
  bool wantRows = Indexed();
  bool wantFacts = wantRows || options_.order == BY_DATE;
  std::vector<char> seen(known_.size(), 0);
  // The index opened (by a library's worker) and read.
  const auto loadIndex = [&] {
    if (indexLater_ && !index_->Open(options_.indexFile, root_)) index_->Close();
    indexLater_ = false;
    LoadIndex(flat);
    seen.assign(known_.size(), 0);
    wantRows = Indexed();
    wantFacts = wantRows || options_.order == BY_DATE;
    hintDue = false;
  };
  std::vector<Known> fresh;
  std::vector<IndexedPicture> rows;
  Batch batch;
  auto lastHand = std::chrono::steady_clock::now();
  bool handedAny = false;
  const auto handOn = [&](bool all) {
    const auto now = std::chrono::steady_clock::now();
    if (!batch.items.empty() &&
        (all || (!flat && (!handedAny || batch.items.size() >= kBatchItems ||
                           now - lastHand >= kBatchTime)))) {
      Hand(std::move(batch), flat);
      batch = Batch();
      if (!handedAny && !flat) HoldForFirstShow();
      lastHand = std::chrono::steady_clock::now();
      handedAny = true;
    }
    if (Indexed() && (all || rows.size() >= kIndexRows)) {
      if (!rows.empty()) index_->Put(rows);
      rows.clear();
      if (!flat) WriteDue();
    }
  };

  struct Level {
    std::string rel;
    std::vector<QFolderEntry> entries;
    size_t next = 0;
    QFolderHandle folder;  // its pictures are opened by name
  };
  std::vector<Level> stack(1);
  std::set<std::pair<uint64_t, uint64_t>> visited;
  if (!QListFolder(root_.c_str(), qIsCataloguePictureName, &stack[0].entries))
    QWARN("Catalogue::Walk", "Can't list folder '%s'", root_.c_str());
  stack[0].folder = QFolderHandle(root_.c_str());
  // The folder itself counts as reached, so a link back to it is not walked again.
  std::pair<uint64_t, uint64_t> rootId;
  if (QFolderIdentity(root_.c_str(), &rootId.first, &rootId.second)) visited.insert(rootId);
  while (!stack.empty() && !stopping_) {
    Level& top = stack.back();
    if (top.next >= top.entries.size()) {
      stack.pop_back();
      continue;
    }
    QFolderEntry& e = top.entries[top.next++];
    std::string rel = top.rel.empty() ? e.name : top.rel + "/" + e.name;
    if (e.folder) {
      if (flat || !visited.insert({e.device, e.inode}).second) continue;
      Level down;
      down.rel = std::move(rel);
      const std::string path = root_ + "/" + down.rel;
      if (!QListFolder(path.c_str(), qIsCataloguePictureName, &down.entries))
        QWARN("Catalogue::Walk", "Can't list folder '%s'", path.c_str());
      down.folder = QFolderHandle(path.c_str());
      stack.push_back(std::move(down));
      continue;
    }
    if (std::binary_search(skip.begin(), skip.end(), rel)) continue;
    if (hintDue) {
      Batch first;
      first.items.push_back(Item{rel, Seconds(e.modified), false});
      Hand(std::move(first), flat);
      HoldForFirstShow();
      loadIndex();
    }
    if (flat) QDBG("RaceManager::ScanDir", "- image %s\n", e.name.c_str());
    const auto it = std::lower_bound(known_.begin(), known_.end(), rel, byPath);
    Known* k = it != known_.end() && it->path == rel ? &*it : nullptr;
    if (k) {
      seen[size_t(it - known_.begin())] = 1;
      if (k->size == e.size && k->modified == e.modified) {
        if (!k->sent || flat) {
          k->sent = true;
          batch.items.push_back(Item{rel, k->key, false});
          handOn(false);
        }
        continue;
      }
    }
    // New or changed: its facts read again.
    int64_t key = Seconds(e.modified);
    QPictureFacts facts;
    const bool haveFacts =
        wantFacts && (top.folder.Get() >= 0
                          ? QReadPictureFactsAt(top.folder.Get(), e.name.c_str(), &facts)
                          : QReadPictureFacts((root_ + "/" + rel).c_str(), &facts));
    if (haveFacts && facts.taken) key = facts.taken;
    if (wantRows) {
      IndexedPicture row;
      row.path = rel;
      row.size = e.size;
      row.modified = e.modified;
      row.taken = haveFacts ? facts.taken : 0;
      row.orientation = facts.orientation;
      row.width = facts.width;
      row.height = facts.height;
      rows.push_back(std::move(row));
    }
    if (k) {
      k->size = e.size, k->modified = e.modified, k->key = key, k->sent = true;
    } else {
      Known n;
      n.path = rel;
      n.size = e.size, n.modified = e.modified, n.key = key, n.sent = true;
      fresh.push_back(std::move(n));
    }
    batch.items.push_back(Item{std::move(rel), key, false});
    handOn(false);
  }
  if (stopping_) return;
  if (hintDue) loadIndex();
  handOn(true);

  // What the folder no longer has.
  Batch gone;
  gone.kind = Batch::GONE;
  std::vector<Known> kept;
  kept.reserve(known_.size());
  for (size_t i = 0; i < known_.size(); ++i) {
    if (seen[i])
      kept.push_back(std::move(known_[i]));
    else
      gone.names.push_back(std::move(known_[i].path));
  }
  // The walk goes in the name order, so the new ones are in it already (unless a link led
  // elsewhere); a first walk's are all there is, without a second copy.
  const auto before = [](const Known& a, const Known& b) {
    return QPathListsBefore(a.path, b.path);
  };
  if (!std::is_sorted(fresh.begin(), fresh.end(), before))
    std::sort(fresh.begin(), fresh.end(), before);
  known_.clear();
  if (kept.empty()) {
    known_.swap(fresh);
  } else {
    known_.reserve(kept.size() + fresh.size());
    std::merge(std::make_move_iterator(kept.begin()), std::make_move_iterator(kept.end()),
               std::make_move_iterator(fresh.begin()), std::make_move_iterator(fresh.end()),
               std::back_inserter(known_), before);
  }
  if (Indexed() && !gone.names.empty()) index_->Remove(gone.names);
  if (!gone.names.empty()) Hand(std::move(gone), flat);
  Batch end;
  end.kind = Batch::END;
  Hand(std::move(end), flat);
}

// ---------------------------------------------------------------------------------------------
// The list
// ---------------------------------------------------------------------------------------------

bool Catalogue::Before(const Item& a, const Item& b) const {
  if (options_.order == BY_DATE && a.key != b.key) return a.key < b.key;
  return QPathListsBefore(a.name, b.name);
}

void Catalogue::Apply(Batch& batch) {
  switch (batch.kind) {
    case Batch::ROUND:
      ApplyFound(batch.items, true);
      break;
    case Batch::FOUND:
      ApplyFound(batch.items, false);
      break;
    case Batch::GONE:
      ApplyGone(batch.names);
      break;
    case Batch::END:
      // A listing that fits warns again the next time it does not.
      if (!overLimit_) overWarned_ = false;
      overLimit_ = false;
      if (options_.recursive) {
        DropGoneExtras();
        QNOTE("Catalogue::Apply", "Library listed: %d pictures", Count());
      }
      if (options_.order == SHUFFLE) SaveRound();
      break;
  }
}

int Catalogue::Library() const {
  // Pictures from elsewhere are always at the end.
  int n = Count();
  while (n > 0 && items_[size_t(n - 1)].extra) --n;
  return n;
}

void Catalogue::OverLimit(const char* name) {
  overLimit_ = true;
  if (overWarned_) return;
  overWarned_ = true;
  QWARN("RaceManager::ScanDir", "No space for new image (%s) anymore - not registering", name);
}

void Catalogue::ApplyFound(std::vector<Item>& found, bool ordered) {
  const std::string curName = current_ >= 0 ? items_[size_t(current_)].name : std::string();
  const bool shuffle = options_.order == SHUFFLE;
  std::vector<char> drop(items_.size(), 0);
  std::vector<Item> add;
  for (Item& f : found) {
    const int i = FindExact(f.name);
    if (i >= 0) {
      Item& it = items_[size_t(i)];
      // A shuffle keeps a picture where it stands in the round; the other orders move it when
      // its date changed or it came from elsewhere.
      if (!it.extra && (shuffle || it.key == f.key)) {
        it.key = f.key;
        if (!ordered) continue;
      }
      drop[size_t(i)] = 1;
    }
    add.push_back(std::move(f));
  }
  int dropped = 0;
  for (char d : drop) dropped += d;
  if (options_.maxPictures > 0) {
    const size_t room = size_t(std::max(0, options_.maxPictures - (Count() - dropped)));
    if (add.size() > room) {
      OverLimit(add[room].name.c_str());
      add.resize(room);
    }
  }
  if (add.empty() && dropped == 0) return;
  // The usual case of a walk in the name order: the new pictures all come after the list's.
  const int libEnd = Library();
  if (!shuffle && dropped == 0 && !ordered &&
      std::is_sorted(add.begin(), add.end(),
                     [this](const Item& a, const Item& b) { return Before(a, b); }) &&
      (libEnd == 0 || !Before(add.front(), items_[size_t(libEnd - 1)]))) {
    items_.insert(items_.begin() + libEnd, std::make_move_iterator(add.begin()),
                  std::make_move_iterator(add.end()));
    if (current_ >= libEnd) current_ += int(add.size());
    Reindex();
    return;
  }

  std::vector<Item> lib, extras, next;
  // The last kept picture of the round so far. Before anything is shown, the first picture
  // found stays first: the start shows it while the rest is still being found.
  int curInLib =
      current_ < 0 && shuffle && !items_.empty() && !drop[0] && !items_[0].extra ? 0 : -1;
  for (size_t i = 0; i < items_.size(); ++i) {
    if (drop[i]) continue;
    if (items_[i].extra) {
      extras.push_back(std::move(items_[i]));
    } else {
      if (int(i) <= current_) curInLib = int(lib.size());
      lib.push_back(std::move(items_[i]));
    }
  }
  next.reserve(lib.size() + add.size() + extras.size());
  if (!shuffle) {
    if (!std::is_sorted(add.begin(), add.end(),
                        [this](const Item& a, const Item& b) { return Before(a, b); }))
      std::sort(add.begin(), add.end(),
                [this](const Item& a, const Item& b) { return Before(a, b); });
    std::merge(std::make_move_iterator(lib.begin()), std::make_move_iterator(lib.end()),
               std::make_move_iterator(add.begin()), std::make_move_iterator(add.end()),
               std::back_inserter(next),
               [this](const Item& a, const Item& b) { return Before(a, b); });
  } else if (ordered) {
    // A round kept from before: in its order, ahead of anything else.
    for (Item& a : add) next.push_back(std::move(a));
    for (Item& l : lib) next.push_back(std::move(l));
  } else {
    // New pictures go somewhere in what is left of the round, each place as likely.
    std::shuffle(add.begin(), add.end(), random_);
    const size_t headEnd = size_t(curInLib + 1);
    for (size_t i = 0; i < headEnd; ++i) next.push_back(std::move(lib[i]));
    // The shown picture, found at last, is where the round stands: the rest comes after it.
    size_t a = 0;
    for (size_t i = 0; !curName.empty() && i < add.size(); ++i)
      if (add[i].name == curName) {
        std::swap(add[0], add[i]);
        next.push_back(std::move(add[a++]));
        break;
      }
    size_t l = headEnd;
    while (l < lib.size() || a < add.size()) {
      const size_t leftL = lib.size() - l, leftA = add.size() - a;
      if (leftA && std::uniform_int_distribution<size_t>(0, leftL + leftA - 1)(random_) < leftA)
        next.push_back(std::move(add[a++]));
      else
        next.push_back(std::move(lib[l++]));
    }
  }
  for (Item& e : extras) next.push_back(std::move(e));
  items_.swap(next);
  Reindex();
  if (!curName.empty()) current_ = FindExact(curName);
}

void Catalogue::ApplyGone(const std::vector<std::string>& names) {
  std::vector<char> drop(items_.size(), 0);
  bool any = false;
  for (const std::string& n : names) {
    const int i = FindExact(n);
    if (i >= 0 && !items_[size_t(i)].extra) drop[size_t(i)] = 1, any = true;
  }
  if (!any) return;
  std::vector<Item> next;
  next.reserve(items_.size());
  int cur = -1;
  bool curGone = false;
  for (size_t i = 0; i < items_.size(); ++i) {
    if (int(i) == current_) {
      curGone = drop[i] != 0;
      // Gone: the position stands before the next picture still there.
      cur = curGone ? int(next.size()) - 1 : int(next.size());
    }
    if (!drop[i]) next.push_back(std::move(items_[i]));
  }
  items_.swap(next);
  Reindex();
  if (curGone && cur < 0) cur = Count() - 1;
  current_ = cur < Count() ? cur : -1;
}

bool Catalogue::DropGoneExtras() {
  const std::string curName = current_ >= 0 ? items_[size_t(current_)].name : std::string();
  const size_t before = items_.size();
  items_.erase(
      std::remove_if(items_.begin(), items_.end(),
                     [](const Item& i) { return i.extra && !QFileExists(i.name.c_str()); }),
      items_.end());
  if (items_.size() == before) return false;
  Reindex();
  current_ = curName.empty() ? -1 : FindExact(curName);
  return true;
}

bool Catalogue::Add(const char* name) {
  if (!name) return false;
  if (Find(name) >= 0) {
    QDBG("RaceManager::AddToDir", "Image '%s' already found - not inserting", name);
    return false;
  }
  QDBG("RaceManager::AddToDir", "Adding '%s' to dir contents", name);
  if (options_.maxPictures > 0 && Count() >= options_.maxPictures) {
    QWARN("RaceManager::AddToDir", "No space for new image (%s) anymore - not registering", name);
    return false;
  }
  items_.push_back(Item{name, 0, true});
  Reindex();
  return true;
}

void Catalogue::Reindex() {
  size_t size = 16;
  while (size < items_.size() * 2) size *= 2;
  table_.assign(size, -1);
  const std::hash<std::string> hash;
  for (size_t i = 0; i < items_.size(); ++i) {
    size_t h = hash(items_[i].name) & (size - 1);
    while (table_[h] >= 0) h = (h + 1) & (size - 1);
    table_[h] = int(i);
  }
}

int Catalogue::FindExact(const std::string& name) const {
  if (table_.empty()) return -1;
  const size_t mask = table_.size() - 1;
  for (size_t h = std::hash<std::string>()(name) & mask; table_[h] >= 0; h = (h + 1) & mask)
    if (items_[size_t(table_[h])].name == name) return table_[h];
  return -1;
}

int Catalogue::Find(const char* name) const {
  if (!name) return -1;
  for (int i = 0; i < Count(); ++i)
    if (qnamecmp(items_[size_t(i)].name.c_str(), name) == 0) return i;
  return -1;
}

int Catalogue::Step(int steps) {
  const int n = Count();
  if (n < 1) return current_ = -1;
  if (steps == 0) return current_;
  if (options_.order != SHUFFLE) {
    // One at a time: from -1 the first step back lands on n - 2, as C++ keeps the dividend's
    // sign (wanted); after it the index is valid and the rest wraps plainly.
    current_ = (current_ + (steps > 0 ? 1 : -1) + n) % n;
    const int rest = (steps > 0 ? steps - 1 : steps + 1) % n;
    current_ = (current_ + rest + n) % n;
    return current_;
  }
  // Past the round's end a new round begins, so each step is taken.
  const int count = std::min(std::abs(steps), 2 * n);
  for (int k = 0; k < count; ++k) {
    if (steps < 0) {
      current_ = (current_ - 1 + n) % n;
    } else if (current_ >= Library() - 1 && current_ >= 0 && !items_[size_t(current_)].extra) {
      NewRound(items_[size_t(current_)].name);
      current_ = 0;
    } else {
      current_ = (current_ + 1) % n;
    }
  }
  return current_;
}

void Catalogue::NewRound(std::string avoid) {
  const int lib = Library();
  std::vector<Item> extras(items_.begin() + lib, items_.end());
  items_.resize(size_t(lib));
  std::shuffle(items_.begin(), items_.end(), random_);
  // Never the picture just shown first: it would show twice in a row.
  if (items_.size() > 1 && items_.front().name == avoid)
    std::swap(items_.front(),
              items_[std::uniform_int_distribution<size_t>(1, items_.size() - 1)(random_)]);
  for (Item& e : extras) items_.push_back(std::move(e));
  Reindex();
  QNOTE("Catalogue::NewRound", "A new round of %d pictures", lib);
  SaveRound();
}

void Catalogue::SaveRound() {
  if (!index_) return;
  std::vector<std::string> round;
  round.reserve(items_.size());
  for (const Item& i : items_)
    if (!i.extra) round.push_back(i.name);
  if (!running_) {
    if (Indexed()) index_->SetRound(round);
    return;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  roundToSave_.swap(round);
  roundDue_ = true;
  changed_.notify_all();
}

void Catalogue::Shown(const char* name) {
  if (!index_ || !name || !*name) return;
  if (!running_) {
    if (Indexed()) index_->SetState(kShownKey, name);
    return;
  }
  // Written by the worker: the index may be busy with the walk's rows, and the show goes on.
  std::lock_guard<std::mutex> lock(mutex_);
  shownToSave_ = name;
  shownDue_ = true;
  changed_.notify_all();
}
