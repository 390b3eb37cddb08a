// Catalogue: the pictures the slideshow steps through, in the order it shows them. It lists the
// start-up folder, or with "app.recursive" every folder below it (names starting with '.' left
// out, each real folder once however many links lead to it), keeps at most "app.max_pictures"
// names (0: no limit), and orders them by name (each folder in its listing order, the default),
// by the date the picture was taken (EXIF DateTimeOriginal, else the file's time; ties by name)
// or shuffled (every picture once in a round before any repeats; a new round is a new order and
// never starts with the picture just shown).
//
// With "app.index_file" the facts of every file (size, time, date taken, orientation, size in
// pixels) are kept in an SQLite database, so that a restart reads the index instead of every
// file and looks only at what changed. The picture shown last and the shuffle's round are kept
// there too, for "app.resume". An index that cannot be written leaves the catalogue without one.
//
// A flat folder is listed at once, as it always was. A library is walked on a worker thread of
// the lowest priority: the first picture found comes first, then the index's rows (the worker
// opens the index only then, unless the show resumes), then what the walk finds new or changed,
// then what has gone; the walk holds after the first picture until the start has shown it (or
// a second has passed), so that the window, the decode and the display server are not slowed
// by it. The worker also writes the shown picture and the round, so the main loop
// never waits for the index. The main loop takes the findings in with Merge, so the show starts
// at once and the list grows behind it. The
// current position follows its picture through every change; when the current picture goes, the
// position stands just before the next one, so that a step forward shows it.
//
// Names are exactly as listed, relative to the folder ("2019/Holidays/a.jpg"), since pictures are
// opened by them; a picture loaded from elsewhere joins at the end by the path it came with. All
// calls are for the main thread; the worker only talks to the index and to Merge's queue.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "app/picture_index.h"

class QThread;

class Catalogue {
 public:
  enum Order { BY_NAME, BY_DATE, SHUFFLE };
  struct Options {
    bool recursive = false;
    int maxPictures = 2000;  // 0: no limit
    Order order = BY_NAME;
    std::string indexFile;  // empty: no index
    bool resume = false;
  };
  static constexpr int DEFAULT_MAX = 2000;

  Catalogue();
  // Stops the walk (a folder listing or a file's facts at most) and lets go of the index.
  ~Catalogue();
  Catalogue(const Catalogue&) = delete;
  Catalogue& operator=(const Catalogue&) = delete;

  // The options and the library's folder (absolute), before anything else; opens the index (a
  // warning there when it cannot be had) and starts the worker for a library.
  void Open(const Options& options, const std::string& root);
  const Options& GetOptions() const { return options_; }
  const std::string& Root() const { return root_; }

  // ---- Filling ----
  // Lists the folder again, leaving out `skip` (names still being written). A flat folder is
  // listed now, and the position is -1 afterwards, pictures from elsewhere dropped; a library
  // is walked on the worker, the position kept. Stops at the limit with the warning "No space
  // for new image (%s) anymore - not registering", once until the pictures fit again.
  void Scan(const std::vector<std::string>& skip = {});
  // What the walk found since the last call goes into the list; true when it changed.
  bool Merge();
  // A walk is asked for or under way.
  bool Walking() const;
  // The walk found something that Merge has not taken in yet.
  bool HasFound() const;
  // Waits at most `ms` until the walk has found a picture or ended: the first picture found,
  // empty when none (or no walk).
  std::string WaitFirst(int ms);
  // The first picture is on the screen (or could not be shown): the walk, which holds after
  // handing it over so that the start has the machine to itself, goes on.
  void FirstShown();
  // Appends `name` as given (a picture from elsewhere); false when it is already listed (debug
  // note "Image '%s' already found - not inserting") or the list is full (the warning above).
  bool Add(const char* name);
  // Drops the pictures from elsewhere whose file has gone; true when one was dropped.
  bool DropGoneExtras();

  // ---- Reading ----
  int Count() const { return int(items_.size()); }
  const char* Name(int i) const {
    return i >= 0 && i < Count() ? items_[size_t(i)].name.c_str() : "";
  }
  // Index of the first entry equal to `name` with ASCII letters folded (qnamecmp), or -1.
  int Find(const char* name) const;
  // Index of the entry exactly `name`, or -1.
  int FindExact(const std::string& name) const;
  int Current() const { return current_; }
  void SetCurrent(int i) { current_ = i >= -1 && i < Count() ? i : -1; }
  // `steps` steps forward (negative: back) from the current position, one at a time, with
  // wrap-around: from -1 the first step back lands on Count() - 2 (the described quirk). A
  // shuffle that steps past its round's end starts a new round. -1 for an empty list.
  int Step(int steps);

  // ---- Resume ----
  // The picture shown last before this start, when "app.resume" is on and the index knows it.
  const std::string& ResumeName() const { return resumeName_; }
  // Notes the picture now shown, for a later start to resume at.
  void Shown(const char* name);

 private:
  struct Item {
    std::string name;
    int64_t key = 0;     // the date order's: seconds (taken, else the file's time)
    bool extra = false;  // from elsewhere: stays at the end
  };
  // What the walk hands the main loop.
  struct Batch {
    enum Kind { ROUND, FOUND, GONE, END } kind = FOUND;
    std::vector<Item> items;         // ROUND, FOUND
    std::vector<std::string> names;  // GONE
  };
  // The worker's memory of a file: what the index (or the last walk) knew of it.
  struct Known {
    std::string path;
    int64_t size = -1, modified = 0, key = 0;
    bool sent = false;  // the main loop has it
  };

  static void Work(void* self);
  void WorkLoop();
  // One walk of the folder; batches go to `out` (the queue, or straight on for a flat folder).
  void Walk(const std::vector<std::string>& skip, bool flat);
  // The index's rows become what the worker knows, and go to the main loop (the kept shuffle
  // round first).
  void LoadIndex(bool flat);
  void Hand(Batch&& batch, bool flat);
  // The walk's wait for FirstShown, a second at the most.
  void HoldForFirstShow();
  void Apply(Batch& batch);
  void ApplyFound(std::vector<Item>& found, bool ordered);
  void ApplyGone(const std::vector<std::string>& names);
  // The index can be used (a library's worker opens it).
  bool Indexed() const { return index_ && index_->IsOpen(); }
  // The list's comparison in the name and date orders.
  bool Before(const Item& a, const Item& b) const;
  void Reindex();
  int Library() const;  // how many items are not from elsewhere
  // A new shuffled round; `avoid` is not first (a copy: it may be a name in the list shuffled).
  void NewRound(std::string avoid);
  void SaveRound();
  // The worker writes what the main loop left it: the picture shown, the round.
  void WriteDue();
  // The limit's warning, once until the pictures fit again.
  void OverLimit(const char* name);

  Options options_;
  std::string root_;
  std::unique_ptr<PictureIndex> index_;
  std::string resumeName_;
  std::vector<Item> items_;
  std::vector<int> table_;  // open hash of exact names to indexes in items_
  int current_ = -1;
  bool overLimit_ = false, overWarned_ = false;
  std::mt19937_64 random_;

  // The worker and what it shares with the main loop, under mutex_.
  std::unique_ptr<QThread> thread_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Batch> queue_;
  bool walkWanted_ = false, walking_ = false, stop_ = false, running_ = false;
  std::atomic<bool> stopping_{false};  // stop_, read by the walk without the lock
  std::vector<std::string> walkSkip_;
  std::string first_;       // the first picture any walk found
  bool firstDone_ = false;  // a walk ended or found one
  bool firstShown_ = false;  // the start's first picture is out (or given up)
  std::vector<std::string> roundToSave_;
  bool roundDue_ = false;
  std::string shownToSave_;
  bool shownDue_ = false;
  // The worker's own.
  std::vector<Known> known_;  // in the name order (QPathListsBefore)
  bool hinted_ = false;       // the index's rows went to the main loop
  bool indexLater_ = false;   // the index is to be opened by the walk, after its first picture
};
