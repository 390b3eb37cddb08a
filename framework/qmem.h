// Memory accounting: the framework's allocation entry points.
//
// Every owned block, string copy and table of the framework comes from here and goes back here.
// A process-wide counter follows the outstanding blocks (advisory: a failed allocation still
// counts). With tracking switched on (MqEnable), every block carries a header, the guards "HEAD"
// and "TRAL" around the user bytes, and sits in a list that QMemoryReportLeaks prints.
// Not thread-safe beyond the counter: meant for the main thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

// Plain entry points; qfree(nullptr) does nothing. A size that cannot be represented answers
// null (and still counts).
void* qmalloc(size_t size);
void* qcalloc(size_t size);
void qfree(void* p);

// Owner of a block from qmalloc.
struct QFreeDeleter {
  void operator()(void* p) const { qfree(p); }
};
using QBlock = std::unique_ptr<uint8_t, QFreeDeleter>;
// Zero-filled copy of length + 1 bytes; null in, null out.
char* qstrdup(const char* s);

// Flags of the tracking allocator.
enum QMemFlags : int { QMEM_ZERO = 1, QMEM_MARK_UNINIT = 2 };

// Tracking: off by default. Must be switched before the first allocation it should follow;
// blocks allocated before stay untracked and are released correctly either way.
void MqEnable(bool on = true);
bool MqIsEnabled();
// Reports "Malloc break set with MqbreakAlloc(%d)" when that serial is allocated.
void MqbreakAlloc(int serial);
// The tracking allocator. Size 0 is refused with a log line; answers null on failure.
void* qmalloc_track(size_t size, const char* file, int line, int flags);
// Checks one tracked block's guards; false and a report (the block, the damage, 16 lines of
// stack, the first bytes) when they are trashed.
bool QMemoryCheckBlock(const void* p);
// Checks every tracked block and every kept freed one; answers the number of damaged ones.
int QMemoryCheckAll();
// Keeps the last `count` (at most 4096; 0, the default, keeps none) freed tracked blocks filled
// with 0xDD, so that a write through a stale pointer lands there and can be found; each is
// checked when it is finally released.
void MqKeepFreed(int count);
// Reports "  ^^^ Memory modified after having been freed!\n" once for every kept block written
// to since its release; answers their number.
int QMemoryCheckFreed();
// Prints every block still listed; answers their number.
int QMemoryReportLeaks(const char* title);
// Reports tracked blocks of the 204-fill kind whose bytes were never written; answers their number.
int QMemoryCheckUninitialized();
// Prints all allocations (the same listing as the leak report, under another title).
void QMemoryPrintAll();
// Hex and character dump of the first 60 bytes of a block, at debug level.
void QMemoryDump(const void* p, int size);

// Outstanding blocks (allocations minus releases) and tracked bytes.
int qmemGetCount();
long qmemGetTrackedBytes();

#define QMALLOC_TRACKED(size, flags) qmalloc_track((size), __FILE__, __LINE__, (flags))
