// Photoshop bytes: layer records, channel data and the compositor, read as a file.
#include "fuzz/qimage_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qimage_fuzz::ReadAs("f.psd", data, size);
  return 0;
}
