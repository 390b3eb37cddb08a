// QDirectory: lists the entries of one directory, for the slideshow's picture scan and tools.
//
// Every entry is returned, "." and ".." included, nothing filtered; callers filter. The order is
// the same on every machine: "." and ".." first, then the byte order of the upper-cased names
// (Latin-1), ties by the original bytes. The listing is taken when the directory is opened, so
// entries created afterwards are not seen until the next Open. Owns a copy of the directory
// name. Also holds the process's current-directory helpers, and QDirWatch, which follows a
// directory's changes as they happen.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "framework/qobject.h"

class QThread;

// What the file system says about one entry; all zero when it cannot be examined.
struct QDirEntryInfo {
  uint32_t size = 0;        // bytes (cut to 32 bits)
  bool isDirectory = false;
  int64_t modifyTime = 0;   // seconds
  int64_t createTime = 0;   // status-change time, seconds
};

class QDirectory : public QObject {
 public:
  // Size of the name buffer that ReadNext fills; longer names are cut.
  static constexpr int NAME_SIZE = 260;
  // Longest "directory/name" examined for entry information.
  static constexpr int MAX_PATH_LENGTH = 1024;

  QDirectory() = default;
  // Opens the listing at once; test IsOpen.
  explicit QDirectory(const char* directory);
  ~QDirectory() override;

  const char* ClassName() const override { return "QDirectory"; }

  // Closes a previous listing and lists `directory`; false when it cannot be read.
  bool Open(const char* directory);
  void Close();
  bool IsOpen() const { return open_; }
  // The next entry's name (without directory) into `name` (NAME_SIZE bytes); false, with an
  // empty name, at the end or when nothing is open. With `info`, the entry is examined; a path
  // longer than MAX_PATH_LENGTH gives the error "Buffer overflow; ..." and false.
  bool ReadNext(char* name, QDirEntryInfo* info = nullptr);

 private:
  bool open_ = false;
  size_t next_ = 0;
  std::vector<std::string> entries_;
};

// Changes the process's working directory, noting the new one; false with a warning.
bool QSetCurrentDirectory(const char* path);
// The working directory into `out`; false (and `out` empty) when it cannot be taken.
bool QGetCurrentDirectory(qstring* out);
// The absolute path of an existing file or directory with every link and "." or ".." resolved,
// so that two paths of the same place compare equal; false (and `out` empty) when it does not
// exist.
bool QGetRealPath(const char* path, qstring* out);
// Enters the directory `path` (absolute) again when the working directory is no longer it: it was
// deleted, or moved away and another put in its place. False, with nothing changed, while the
// working directory is `path` or no directory of that name exists.
bool QReenterDirectory(const char* path);

// QDirWatch: follows one directory through the kernel's change notification, so that a listing
// can be taken again when something in it changed instead of on a timer. Only names that pass
// the filter count; subdirectories and their contents are not followed.
//
// As a tree it follows every folder below the directory too, except those whose name starts
// with '.', each real folder once: a link to a folder is followed where it is first reached,
// so a loop of links ends. Names are then paths relative to the directory ("2019/Trip/a.jpg"),
// the filter judging their last part; a folder that came or went is a change by its own path,
// whatever the filter says. A folder made or moved in later is followed from then on, and the
// files it holds when its watch begins count as changed. A folder renamed within the tree is
// one that went and one that came. The system limits how many folders a user may follow
// (/proc/sys/fs/inotify/max_user_watches): past it, a warning says so once, the folders
// followed already stay followed, and Complete answers false, so that the owner lists again on
// a timer. Only the folders are remembered, never the files.
//
// A file is "being written" while a writer has it open: from its creation by an open, or its
// first change, until that writer closes it. A file renamed or moved into the directory, a
// symbolic link, a hard link and anything else that is not an opened regular file arrive
// complete; so does a new name that no open follows at once (a link whose other name was
// removed already). Names that joined, left, started
// or finished being written are collected as changes until the owner takes them, at most once
// per gap (a flood of files is then followed in a few batches, not file by file). A watcher
// thread (QThread) sleeps on the notification and calls QEventWake once changes are waiting
// and the gap has passed, so the main loop may sleep while nothing happens. The owner takes
// the changes on its own thread; each take and Writing read what the kernel has queued by
// then, so a file that was being written when a listing was made is among the names Writing
// gives after it (except one whose writer opened it and has written nothing yet, which no
// notification shows).
//
// When the directory is deleted or moved away, a warning says so once and the path is followed:
// as soon as a directory of that name exists again (created or moved in), it is watched, and the
// next take answers a change so that it is listed. The owner enters it again with
// QReenterDirectory when it worked in the old one.
//
// The destructor stops the watcher and waits for it to end before it closes anything.
class QDirWatch {
 public:
  // Tells whether a name (without directory) is of interest; null: every name.
  typedef bool (*NameFilter)(const char* name);

  QDirWatch();
  ~QDirWatch();
  QDirWatch(const QDirWatch&) = delete;
  QDirWatch& operator=(const QDirWatch&) = delete;

  // Starts following `directory` (once per object) and notes it in the log; changes are handed
  // out at most every `gapMs` milliseconds; with `tree`, the folders below it are followed too.
  // False, with a warning naming the directory and the system's reason, when it cannot be
  // followed; the object then stays closed. A file whose writing began before is not known to
  // be written.
  bool Open(const char* directory, NameFilter filter = nullptr, int gapMs = 0, bool tree = false);
  bool IsOpen() const { return fd_ >= 0; }
  // False once a folder of the tree could not be followed for want of the system's room; it
  // stays false.
  bool Complete() const { return complete_; }
  // Takes the changes since the last take: the names that changed into `changed` (sorted, may be
  // null) and every name being written now into `writing` (sorted, may be null). Answers how
  // many names changed, plus one when notifications were lost or the directory itself went
  // (then a listing is all that can be trusted; the names being written are forgotten). Answers
  // 0 and keeps the changes while the gap since the last take that answered some has not passed.
  int TakeChanges(std::vector<std::string>* changed, std::vector<std::string>* writing);
  // Every name being written now (sorted), leaving the changes to the next take.
  void Writing(std::vector<std::string>* writing);
  // The directory as given to Open.
  const std::string& Directory() const { return name_; }

 private:
  // A name with a possible writer.
  struct Writer {
    std::chrono::steady_clock::time_point created;  // when its creation was read
    bool opened = false;    // an open followed its creation, or it was written to
    bool modified = false;  // written to since
  };
  static void Watch(void* self);
  // Reads what the kernel has queued (without waiting) into the sets; under `mutex_`.
  void ReadEventsLocked();
  // The names being written, sorted, into `writing` (may be null); under `mutex_`.
  void WritingLocked(std::vector<std::string>* writing) const;
  // Milliseconds until changes may be handed out again (0: now); under `mutex_`.
  int GapLeftLocked() const;
  bool PendingLocked() const { return !changed_.empty() || lost_ > 0; }
  // Milliseconds until the watcher has to look by itself (new names no open followed yet, a
  // directory that went), -1 for never; under `mutex_`.
  int OwnLookLocked() const;
  // New names that no open followed in time are complete; under `mutex_`.
  void SettleCreatedLocked();
  // The directory went: says so once and follows its name from the parent; under `mutex_`.
  void GoneLocked();
  // Watches the directory again when it exists; under `mutex_`.
  void ReturnLocked();
  // Follows the folder `top` (relative; "" for the directory, which is followed already) and
  // every folder below it not followed yet; with `report`, they and their files count as
  // changed. Under `mutex_`.
  void AddTreeLocked(const std::string& top, bool report);
  // Watches one folder below the directory; -1 when it is followed already or cannot be (said
  // once when the system has no room). Under `mutex_`.
  int AddFolderLocked(const std::string& folder);
  // Stops following `folder` and everything below it, and forgets their writers; false when it
  // was not followed. Under `mutex_`.
  bool DropFolderLocked(const std::string& folder);
  // Stops following every folder below the directory; under `mutex_`.
  void DropTreeLocked();
  // The name `name` (relative; `last` its last part) came or went, as `mask` tells: a folder, or
  // a link to one, is followed or dropped with what is below it and counts as changed. False
  // when the name is no folder. Under `mutex_`.
  bool TreeNameLocked(const std::string& name, const char* last, uint32_t mask);

  std::string name_;  // the directory, for messages
  int fd_ = -1;       // the notification descriptor
  int dirWd_ = -1;     // its watch on the directory; -1 while the directory is gone
  int parentWd_ = -1;  // its watch on the parent, for the name's return; -1 when not needed
  int kickFd_ = -1;   // an event counter that ends the watcher's sleep (to stop or to look again)
  bool tree_ = false;
  std::map<int, std::string> folders_;   // tree: each watch's folder, relative ("" the directory)
  std::map<std::string, int> folderWds_;  // tree: the same by folder, to drop one with its tree
  std::atomic<bool> complete_{true};
  NameFilter filter_ = nullptr;
  int gapMs_ = 0;
  std::chrono::steady_clock::time_point lastTake_;  // of the last take that answered changes
  std::unique_ptr<QThread> watcher_;
  std::mutex mutex_;
  std::condition_variable ended_;
  std::set<std::string> changed_;
  std::map<std::string, Writer> writing_;
  std::map<std::string, int> opens_;  // opens seen and not closed yet, by name
  int lost_ = 0;          // notifications lost or the directory gone, since the last take
  bool woken_ = false;    // a wake was sent for changes not yet taken
  bool stop_ = false;     // the watcher is to end
  bool running_ = false;  // the watcher's loop has not ended yet
};
