// QPictureKind: the one table of the picture kinds the program knows, one row per kind. QImage
// chooses its reader by it, the slideshow's catalogue lists names by it, the picture loader
// decodes at screen size by it, and --help names the kinds from it: a new kind is one row here
// and one reader file.
//
// Two name rules live in the table, on purpose different:
// - which reader a name asks for (readAs): the name, upper-cased with the Latin-1 table, is
//   searched for each row's substrings in the table's order, and the first row with a hit
//   anywhere in the path wins (a directory "x.tga.d" makes every file below it a Targa file);
// - which names the catalogue lists (listAs): a name that does not start with '.' and holds any
//   row's substring anywhere, ASCII letters folded to lower case ("a.jpg.bak" too). Kinds
//   without such a substring are read when asked for by name but never listed.
// The table is constant and lives for the whole program; nothing here logs or allocates.
#pragma once

#include <cstddef>
#include <cstdint>

class QImage;

struct QPictureKind {
  enum Id { SGI, TARGA, JPEG, PSD, MIP, PNG, BMP, HEIF, WEBP, GIF, TIFF };

  // What a decode from memory aims at: the scale the library decodes at (eighths, 1..8, for the
  // kinds with `eighths`) and the size its rows are reduced to, both 0 for the decoded size.
  struct Target {
    int eighths = 8;
    int width = 0;
    int height = 0;
  };
  // Decodes `size` bytes at `data` (`name` names them in messages) into `image`; a kind that
  // carries an orientation puts it (1..8, 0 when absent) in `orientation`, others leave it.
  // False, logged by the reader, as the reader's own Read function fails.
  using MemoryReader = bool (*)(QImage* image, const uint8_t* data, size_t size, const char* name,
                                const Target& target, int* orientation);
  // The picture's full size from its header, and its orientation where the header holds it
  // (left alone otherwise); false, silently, when the header can't be read.
  using SizeReader = bool (*)(const uint8_t* data, size_t size, int* width, int* height,
                              int* orientation);
  // Reads the named file itself (the kinds read only from files, and those with a reader of
  // their own for files).
  using FileReader = bool (*)(QImage* image, const char* name);

  Id id;
  const char* name;        // for people: "JPEG", "HEIC/HEIF/AVIF"
  const char* readAs[4];   // QImage's name test: upper-case substrings, unused ones null
  const char* listAs[4];   // the catalogue's: lower-case substrings; none: never listed
  FileReader readFile;     // null: the file is read whole and given to readMemory
  MemoryReader readMemory; // null: only read from the file
  SizeReader readSize;     // null: the size is known only after decoding
  bool scaled;             // decodes straight to the target's width and height
  bool eighths;            // decodes at the target's eighths first (the library's DCT scaling)
  bool animates;           // may hold more than one frame
  bool orients;            // carries an orientation to apply (EXIF, a tag); false: shown as read

  // True when the catalogue lists names of this kind.
  bool Listed() const { return listAs[0] != nullptr; }
};

// The table, in the order QImage tests the names; `*count` rows.
const QPictureKind* qPictureKinds(size_t* count);
// The row QImage reads `name` with; null for a name of no known kind (or a null name).
const QPictureKind* qPictureKindOf(const char* name);
// True when the catalogue lists the file `name` (a name, not a path).
bool qIsCataloguePictureName(const char* name);
