// QArchive: one file holding many members, each packed with the framework's chunked LZ codec.
//
// Layout (little-endian): "AR01", the member blocks one after another, the directory (per member:
// zero-terminated name, 4-byte block offset, 4-byte unpacked size), and the directory's offset as
// the last four bytes. A new archive is exactly "AR01" and the value 4. Members are never
// reclaimed: a removed member keeps its bytes and its entry is renamed "$..." with size 0, and a
// new member is written over the old directory, which is then written again behind it.
//
// What stays true: while open, the directory image in memory is a copy of the file's directory
// and has been checked entry by entry (every name terminated, every entry whole); the stream is
// the archive's own. Everything read from the file (offsets, sizes, chunk lengths, LZ items) is
// checked before use, so a damaged or hostile archive gives a logged false or null, never a
// read or write outside a buffer. The archive owns its stream, its directory image and its work
// buffers; a member opened as a memory file belongs to the caller.
//
// Finding is exact (byte for byte) while opening a member as a memory file ignores case; the two
// differ on purpose. Not thread-safe: one stream, one directory cursor.
#pragma once

#include <cstdint>
#include <cstdio>

#include "framework/qobject.h"

class QFile;

// Called before each chunk is unpacked with the bytes consumed since the member's block began;
// answering false aborts the extraction.
typedef bool (*QArchiveProgress)(void* userData, int bytesDone);

class QArchive : public QObject {
 public:
  enum Mode { READ = 0, CREATE = 1, UPDATE = 2 };

  static constexpr int CHUNK_IN = 16384;       // input bytes per chunk when packing
  static constexpr int CHUNK_MAX = 20000;      // largest packed or unpacked chunk accepted
  static constexpr int MATCH_TABLE = 4096;     // entries of the packer's match table
  static constexpr uint8_t CHUNK_PACKED = 64;  // first byte of an LZ chunk ("@")
  static constexpr uint8_t CHUNK_STORED = 128; // first byte of a stored chunk

  // Opens "rb" (READ), creates "wb+" (CREATE) or opens "rb+" (UPDATE). A file that cannot be
  // opened warns "QArchive: can't open '%s'"; in READ mode a file without "AR01" is silently not
  // open; a damaged directory is reported and leaves the archive not open.
  QArchive(const char* path, int mode);
  ~QArchive() override;
  const char* ClassName() const override { return "QArchive"; }

  bool IsOpen() const { return fp_ != nullptr; }
  // Reads the first four bytes; false when they are not "AR01" or the archive is not open.
  bool IsArchive();
  // Frees the directory image and closes the stream; harmless when already closed.
  void Close();

  // Exact name; with seek the stream is put at the member's block (false when its offset lies
  // outside the member area, reported).
  bool FindFile(const char* name, bool seek = false);
  // Directory walk from its start, deleted entries included. False at the end.
  bool FirstEntry(qstring* name, int* offset, int* size);
  bool NextEntry(qstring* name, int* offset, int* size);

  // Extracts the member of that exact name to outName ("wb"), or only checks that it unpacks
  // when outName is null. False on a missing member, an unwritable output or damaged data.
  bool DecompressFile(const char* name, const char* outName);
  // The member (name compared case-blind) as a read-only memory QFile owning its bytes; the
  // caller deletes it. Null when missing (silently), empty, or damaged (reported).
  QFile* OpenFile(const char* name);
  // Unpacked size of the member whose block the stream is at (after FindFile with seek),
  // counted by unpacking without output; the stream position is kept. -1 when damaged.
  int GetFileSize();

  // Packs the file at sourcePath as a new member named archiveName (null: sourcePath as given).
  // False in READ mode, for a missing source ("** ERROR: '%s' not found!"), or a failed write.
  bool AddFile(const char* sourcePath, const char* archiveName = nullptr);
  // Writes one member block at the current position: "D", the chunks of the open source, and
  // the end mark. Answers the packed bytes written, or -1 on a failed read or write.
  int CompressFile(FILE* source, const char* sourceName, int sourceSize);
  // Marks the exactly named member deleted; its bytes stay. False when not found or READ mode.
  bool RemoveFile(const char* name);

  void SetProgressCallback(QArchiveProgress callback, void* userData) {
    progress_ = callback;
    progressUser_ = userData;
  }
  // Prints "Compress '%s'", a dot per chunk and the ratio while adding.
  void SetPrintProgress(bool on) { printProgress_ = on; }

  // ---- The chunk codec on memory buffers ----
  // Packs n (0..16384) bytes into out; answers the chunk length, n + 1 for a stored chunk (which
  // it falls back to when packing does not pay). -1 when n is out of range or outCap < n + 8.
  // table is the 4096-entry match table, overwritten.
  static int CompressChunk(const uint8_t* in, int n, uint8_t* out, int outCap, uint16_t* table);
  // Unpacks one chunk. Answers the full unpacked length; bytes past outCap are counted but not
  // written, so a result above outCap means the chunk does not fit. -1 for a malformed chunk
  // (unknown kind, cut item or control word, a match reaching before the output start), with the
  // reason in *why when why is not null. out may be null when outCap is 0 (count only).
  static int DecompressChunk(const uint8_t* in, int n, uint8_t* out, int outCap,
                             const char** why = nullptr);

 private:
  struct Entry {
    const char* name;
    int offset;  // within the directory image, of the name
    int next;    // offset of the following entry
    uint32_t blockOffset;
    int32_t size;
  };

  bool LoadDirectory();
  bool EntryAt(int pos, Entry* e) const;
  bool ReadEntry(int pos, qstring* name, int* offset, int* size);
  bool SeekToBlock(const Entry& e);
  // Unpacks the member whose block the stream is at: into mem (memSize bytes), to out, or only
  // counting. *total receives the unpacked length.
  bool Unpack(const char* member, uint8_t* mem, int memSize, FILE* out, const char* outName,
              int* total);
  bool WriteAll(const void* data, size_t size);

  int mode_ = READ;
  FILE* fp_ = nullptr;
  int dirPos_ = 0;          // file offset of the directory
  uint8_t* dir_ = nullptr;  // directory image (qmalloc), dirSize_ bytes
  int dirSize_ = 0;
  int cursor_ = 0;          // next entry for NextEntry
  QArchiveProgress progress_ = nullptr;
  void* progressUser_ = nullptr;
  long progressStart_ = 0;
  bool printProgress_ = false;

  uint8_t in_[CHUNK_IN];         // source bytes of one chunk
  uint8_t out_[CHUNK_MAX];       // one packed chunk, written or read
  uint8_t unpacked_[CHUNK_MAX];  // one unpacked chunk on its way to a file
  uint16_t table_[MATCH_TABLE];
};
