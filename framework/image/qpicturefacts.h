// QPictureFacts: what the catalogue wants to know of a picture without decoding it, read from
// the head of the file only, so that a library of a hundred thousand pictures is indexed in
// about the time it takes to list it.
//
// The kind comes from the picture-kinds table by the name (QImage's rule); its size reader gives
// the width and height (and, for the kinds whose header holds it, the orientation). The date
// taken is EXIF's DateTimeOriginal where the kind carries EXIF cheaply: JPEG (its APP1
// segment, which also gives the orientation), TIFF (its EXIF directory) and HEIF/HEIC/AVIF (the
// container's Exif block); other kinds give no date. A file is read once, 64 KiB from its
// start (a JPEG's first 4 KiB, and the rest of the 64 only when its frame header lies beyond),
// and further (doubling, up to 16 MiB) only when its size header lies beyond that; but
// a HEIF file, whose library parses only whole containers, gives its facts only when it fits
// the 64 KiB (larger ones give nothing: their time dates them).
// Nothing is logged: a file that gives nothing is the caller's to date by its own time.
// Thread-safe; the JPEG path allocates nothing.
#pragma once

#include <cstddef>
#include <cstdint>

// What the catalogue wants to know of a picture without decoding it.
struct QPictureFacts {
  int width = 0, height = 0;  // the picture's own size (unturned), 0 when unknown
  int orientation = 0;        // EXIF orientation 1..8, 0 when absent
  int64_t taken = 0;          // DateTimeOriginal as seconds since 1970, the text read as UTC
                              // (a calendar time without zone); 0 when absent or not a valid date
};

// Reads `path`'s head and fills `facts` (cleared first). False, silently, when the file cannot
// be opened or read or its name is of no known kind; a kind without a size reader, or a header
// that can't be read, gives what it can (true, zeros where unknown).
bool QReadPictureFacts(const char* path, QPictureFacts* facts);
// The same for the file `name` of the open folder `folder` (a descriptor, see QFolderHandle),
// which spares looking its path up again.
bool QReadPictureFactsAt(int folder, const char* name, QPictureFacts* facts);
// The same over `size` bytes at `data` (a whole file or its head); `name` chooses the kind by
// its name rule. False for a name of no known kind.
bool QReadPictureFactsFromMemory(const uint8_t* data, size_t size, const char* name,
                                 QPictureFacts* facts);
