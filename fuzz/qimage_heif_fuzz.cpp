// HEIF/HEIC and AVIF bytes through libheif's container parser and decoders, with our size checks
// before them, from memory as the loader decodes them, then reduced.
#include "fuzz/qimage_fuzz.h"

// The AV1 decoder under libheif keeps a small block of its worker threads when some damaged
// pictures fail; it is the library's, not ours to free, and would stop every run.
extern "C" const char* __lsan_default_suppressions() { return "leak:libdav1d.so\n"; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qimage_fuzz::LoadAs("f.heic", data, size);
  return 0;
}
