// Photoshop bytes: layer records, channel data and the compositor, read from a file as the
// loader does, then reduced.
#include "fuzz/qimage_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qimage_fuzz::LoadAs("f.psd", data, size);
  return 0;
}
