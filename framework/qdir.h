// QDirectory: lists the entries of one directory, for the slideshow's picture scan and tools.
//
// Every entry is returned, "." and ".." included, nothing filtered; callers filter. The order is
// the same on every machine: "." and ".." first, then the byte order of the upper-cased names
// (Latin-1), ties by the original bytes. The listing is taken when the directory is opened, so
// entries created afterwards are not seen until the next Open. Owns a copy of the directory
// name. Also holds the process's current-directory helpers, and QDirWatch, which follows a
// directory's changes as they happen.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
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

// QDirWatch: follows one directory through the kernel's change notification, so that a listing
// can be taken again when something in it changed instead of on a timer. Only names that pass
// the filter count; subdirectories and their contents are not followed.
//
// A file is "being written" from its creation or first change until its writer closes it; a
// file renamed or moved into the directory arrives complete. Names that joined, left, started
// or finished being written are collected as changes until the owner takes them, at most once
// per gap (a flood of files is then followed in a few batches, not file by file). A watcher
// thread (QThread) sleeps on the notification and calls QEventWake once changes are waiting
// and the gap has passed, so the main loop may sleep while nothing happens. The owner takes
// the changes on its own thread; each take and Writing read what the kernel has queued by
// then, so a file that was being written when a listing was made is among the names Writing
// gives after it (except one whose writer opened it and has written nothing yet, which no
// notification shows).
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
  // out at most every `gapMs` milliseconds. False, with a warning naming the directory and the
  // system's reason, when it cannot be followed; the object then stays closed. A file whose
  // writing began before is not known to be written.
  bool Open(const char* directory, NameFilter filter = nullptr, int gapMs = 0);
  bool IsOpen() const { return fd_ >= 0; }
  // Takes the changes since the last take: the names that changed into `changed` (sorted, may be
  // null) and every name being written now into `writing` (sorted, may be null). Answers how
  // many names changed, plus one when notifications were lost or the directory itself went
  // (then a listing is all that can be trusted; the names being written are forgotten). Answers
  // 0 and keeps the changes while the gap since the last take that answered some has not passed.
  int TakeChanges(std::vector<std::string>* changed, std::vector<std::string>* writing);
  // Every name being written now (sorted), leaving the changes to the next take.
  void Writing(std::vector<std::string>* writing);

 private:
  static void Watch(void* self);
  // Reads what the kernel has queued (without waiting) into the sets; under `mutex_`.
  void ReadEventsLocked();
  // Milliseconds until changes may be handed out again (0: now); under `mutex_`.
  int GapLeftLocked() const;
  bool PendingLocked() const { return !changed_.empty() || lost_ > 0; }

  std::string name_;  // the directory, for messages
  int fd_ = -1;       // the notification descriptor
  int kickFd_ = -1;   // an event counter that ends the watcher's sleep (to stop or to look again)
  NameFilter filter_ = nullptr;
  int gapMs_ = 0;
  std::chrono::steady_clock::time_point lastTake_;  // of the last take that answered changes
  std::unique_ptr<QThread> watcher_;
  std::mutex mutex_;
  std::condition_variable ended_;
  std::set<std::string> changed_;
  std::set<std::string> writing_;
  int lost_ = 0;          // notifications lost or the directory gone, since the last take
  bool woken_ = false;    // a wake was sent for changes not yet taken
  bool stop_ = false;     // the watcher is to end
  bool running_ = false;  // the watcher's loop has not ended yet
};
