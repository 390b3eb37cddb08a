// PictureIndex: what the catalogue knows of a library's pictures (size, time, date taken,
// orientation, own size), kept in an SQLite database so that a restart reads one file instead
// of every picture. One file may hold several libraries: each is keyed by its folder (`root`),
// and the rows and state of one are never touched through another.
//
// Every write is one transaction in a write-ahead journal, so a process killed or a power cut
// at any moment leaves the last committed state, never half a batch. A file that is no
// database or turns out damaged (at Open or in any later call) is set aside as `file` +
// ".broken" with a warning and made anew; that call answers false, the next ones work on the
// empty index. A file of another layout version is made anew with a note. When the index can
// no longer be written (read-only folder, disk full), one warning: the object closes itself and
// every call answers false, so the show runs on without an index.
//
// Every call is safe from any thread (one mutex around the connection). Nothing throws.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

// One picture file as the index knows it.
struct IndexedPicture {
  std::string path;      // as the catalogue lists it: relative to the library's folder
  int64_t size = -1;     // bytes
  int64_t modified = 0;  // modification time, nanoseconds since 1970 (as FileStamp)
  int64_t taken = 0;     // EXIF DateTimeOriginal as seconds since 1970 (read as UTC); 0: unknown
  int orientation = 0;   // EXIF orientation, 0 when absent
  int width = 0, height = 0;  // the picture's own size, 0 when unknown
};

class PictureIndex {
 public:
  PictureIndex();
  ~PictureIndex();
  PictureIndex(const PictureIndex&) = delete;
  PictureIndex& operator=(const PictureIndex&) = delete;

  // Opens (creating when absent) the database `file` for the library folder `root`, closing
  // what was open. False with one warning when nothing can be written there.
  bool Open(const std::string& file, const std::string& root);
  bool IsOpen() const;
  void Close();
  // Every row of the root, in no particular order. False (out empty) when not open or failed.
  bool Load(std::vector<IndexedPicture>* out);
  // Inserts or replaces these rows (by path), in one transaction.
  bool Put(const std::vector<IndexedPicture>& rows);
  // Removes the rows of these paths, in one transaction; unknown paths are no failure.
  bool Remove(const std::vector<std::string>& paths);
  // Small named values of the root (the order, the last shown picture, the shuffle position).
  bool SetState(const std::string& key, const std::string& value);
  // False (value untouched) when absent, not open or failed.
  bool GetState(const std::string& key, std::string* value);
  // The shuffle's round for the root: the paths in their order, replaced as a whole.
  bool SetRound(const std::vector<std::string>& paths);
  // False (paths empty) when not open or failed; an absent round is an empty one.
  bool GetRound(std::vector<std::string>* paths);

 private:
  struct Db;
  bool OpenLocked();
  void CloseLocked();
  // Says what went wrong with `what` and acts on it: damage sets the file aside and begins
  // anew, a file held busy by another process is tried again by the next call, anything else
  // closes the index. Always false, for the caller to answer.
  bool Fail(const char* method, const char* what, int code);

  mutable std::mutex mutex_;
  std::unique_ptr<Db> db_;
  std::string file_, root_;
};
