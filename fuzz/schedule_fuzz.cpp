// Reads arbitrary text as the display's hours and as the command port's allow list: no crash,
// and from any time the next edge (when there is one) lies ahead and changes the state.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "app/schedule.h"
#include "fuzz/fuzz_util.h"
#include "net/allowlist.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz_util::SilenceLog();
  static const bool zone = [] {
    // A zone with summer time, so that the clock's jumps are walked too.
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
    return true;
  }();
  (void)zone;
  // The texts come from glimra.ini, which ends them at a zero byte.
  const char* chars = reinterpret_cast<const char*>(data);
  const std::string text(chars, strnlen(chars, size));
  Schedule s;
  s.Parse(text.c_str());
  // Across the change to summer time and the one back (2026).
  for (time_t t : {time_t(1774745400), time_t(1792891800), time_t(1780000000)}) {
    const time_t edge = s.NextEdge(t);
    if (edge >= 0 && (edge <= t || s.IsOn(edge) == s.IsOn(edge - 1))) abort();
  }
  QNAllowList list;
  list.Parse(text.c_str());
  // Everyone only for a list without entries: a bad one lets in this machine alone.
  if (list.AllowsEveryone() && text.find_first_not_of(" \t,") != std::string::npos) abort();
  list.Allows(0x7f000001u);
  return 0;
}
