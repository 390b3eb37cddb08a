// DDS parsing on arbitrary bytes (no OpenGL): header checks, level sizes against the length,
// and the reordering of rows and blocks must stay inside every block.
#include <cstddef>
#include <cstdint>

#include "d3/dds.h"
#include "fuzz/fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz_util::SilenceLog(true);
  DDDS dds;
  if (dds.Parse(data, size, "fuzz.dds")) {
    size_t total = 0;
    for (int i = 0; i < dds.GetLevelCount(); ++i)
      if (const uint8_t* p = dds.GetLevel(i)) total += p[dds.GetLevelSize(i) - 1];
    (void)total;
  }
  return 0;
}
