// Memory accounting and the tracking allocator.
#include "framework/qmem.h"

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "framework/qerror.h"
#include "framework/qmessage.h"
#include "framework/qstring.h"

namespace {

std::atomic<int> g_count{0};
bool g_tracking = false;
uint32_t g_serial = 0;
int g_breakSerial = -1;
long g_trackedBytes = 0;

// A tracked block: this header, then the user bytes, then the "TRAL" guard. The header ends in
// the "HEAD" guard right in front of the user bytes. Plain blocks carry only a 16-byte prefix
// ending in "PLN0", so qfree tells the two kinds apart whatever the tracking switch says now.
struct Block {
  Block* newer;
  Block* older;
  uint32_t size;
  uint32_t serial;
  uint16_t flags;
  uint16_t line;
  uint32_t pad;
  const char* file;
  char fileGuard[4];  // intact "FILE": the header in front of it can be trusted
  char head[4];
};
static_assert(sizeof(Block) == 48, "user bytes stay 16-byte aligned");
constexpr size_t kPlainPrefix = 16;
const char kHead[4] = {'H', 'E', 'A', 'D'};
const char kTail[4] = {'T', 'R', 'A', 'L'};
const char kPlain[4] = {'P', 'L', 'N', '0'};
const char kFileGuard[4] = {'F', 'I', 'L', 'E'};
// Largest request: the size field is 32 bits and the guards must fit behind it.
constexpr size_t kMaxTracked = 0x7fffffff - sizeof(Block) - 4;
constexpr unsigned char kFreedFill = 0xDD;
constexpr uint16_t kFlagFreed = 0x8000;
constexpr int kMaxKeptFreed = 4096;

Block* g_newest = nullptr;

// Freed tracked blocks kept back (oldest first in ring order) to catch writes after release.
Block* g_kept[kMaxKeptFreed];
int g_keepLimit = 0;
int g_keptFirst = 0;
int g_keptCount = 0;
// Set while a damage report runs: the report's own strings are released at once, not kept, so
// that the keep is not reshuffled under the block being reported.
int g_reporting = 0;

unsigned char* UserOf(Block* b) { return reinterpret_cast<unsigned char*>(b + 1); }
Block* BlockOf(const void* user) {
  return reinterpret_cast<Block*>(const_cast<unsigned char*>(static_cast<const unsigned char*>(user))) - 1;
}

void PrintBlock(const Block* b, int index) {
  // An underrun that reached past the file guard may have overwritten the file pointer.
  const char* file = memcmp(b->fileGuard, kFileGuard, 4) == 0 && b->file ? b->file : "?";
  qmessage("#%d: %s(%d): %s(%d) [serial %u]", index, file, b->line,
           (b->flags & QMEM_ZERO) ? "qcalloc" : "new", static_cast<int>(b->size), b->serial);
}

// The damage line, then where the check was made from (16 frames) and the block's first bytes.
void ReportDamage(const Block* b, const char* what) {
  struct Reporting {
    Reporting() { ++g_reporting; }
    ~Reporting() { --g_reporting; }
  } reporting;  // outlives the strings below
  if (b) PrintBlock(b, 0);
  qmessage("%s", what);
  qstring stack;
  qGetStackText(&stack);
  qstring line;
  for (int i = 0; i < 16 && stack.GetLine(i, &line); ++i) qmessage("    %s", line.cstr());
  if (b && memcmp(b->fileGuard, kFileGuard, 4) == 0)
    QMemoryDump(reinterpret_cast<const unsigned char*>(b + 1), static_cast<int>(b->size));
}

// The listed block whose user bytes start at `user`, or null; `newer` gets its newer neighbour.
// Only the links of the blocks passed on the way are read.
Block* FindListed(const void* user, Block** newer) {
  Block* prev = nullptr;
  for (Block* b = g_newest; b; prev = b, b = b->older) {
    if (static_cast<const void*>(b + 1) == user) {
      if (newer) *newer = prev;
      return b;
    }
  }
  return nullptr;
}

bool FreedIntact(const Block* b) {
  const unsigned char* u = reinterpret_cast<const unsigned char*>(b + 1);
  for (uint32_t i = 0; i < b->size; ++i)
    if (u[i] != kFreedFill) return false;
  return true;
}

// Reports a kept block written to after release, once: the fill is restored afterwards.
bool CheckFreed(Block* b) {
  if (FreedIntact(b)) return true;
  ReportDamage(b, "  ^^^ Memory modified after having been freed!\n");
  memset(b + 1, kFreedFill, b->size);
  return false;
}

void ReleaseOldestKept() {
  Block* b = g_kept[g_keptFirst];
  g_kept[g_keptFirst] = nullptr;
  g_keptFirst = (g_keptFirst + 1) % kMaxKeptFreed;
  --g_keptCount;
  CheckFreed(b);
  free(b);
}

void KeepFreed(Block* b) {
  memset(b + 1, kFreedFill, b->size);
  b->flags = static_cast<uint16_t>(b->flags | kFlagFreed);
  b->newer = b->older = nullptr;
  if (g_keptCount >= g_keepLimit) ReleaseOldestKept();
  g_kept[(g_keptFirst + g_keptCount) % kMaxKeptFreed] = b;
  ++g_keptCount;
}

void* PlainAlloc(size_t size, bool zero) {
  ++g_count;
  if (size > SIZE_MAX - kPlainPrefix) return nullptr;
  unsigned char* raw = static_cast<unsigned char*>(zero ? calloc(1, size + kPlainPrefix)
                                                        : malloc(size + kPlainPrefix));
  if (!raw) return nullptr;
  memcpy(raw + kPlainPrefix - 4, kPlain, 4);
  return raw + kPlainPrefix;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Plain entry points
// ---------------------------------------------------------------------------------------------

void* qmalloc(size_t size) {
  if (g_tracking) return qmalloc_track(size ? size : 1, "qmalloc", 0, 0);
  return PlainAlloc(size, false);
}

void* qcalloc(size_t size) {
  if (g_tracking) return qmalloc_track(size ? size : 1, "qcalloc", 0, QMEM_ZERO);
  return PlainAlloc(size, true);
}

char* qstrdup(const char* s) {
  if (!s) return nullptr;
  size_t n = strlen(s);
  char* p = static_cast<char*>(qcalloc(n + 1));
  if (p) memcpy(p, s, n);
  return p;
}

void qfree(void* p) {
  if (!p) return;
  --g_count;
  unsigned char* u = static_cast<unsigned char*>(p);
  if (memcmp(u - 4, kPlain, 4) == 0) {
    free(u - kPlainPrefix);
    return;
  }
  Block* newer = nullptr;
  Block* b = nullptr;
  if (memcmp(u - 4, kHead, 4) == 0) {
    b = BlockOf(u);
    if (b->flags & kFlagFreed) {
      // Only a kept block can be seen again; releasing it twice must not list it twice.
      ReportDamage(b, "  ^^^ Block released twice!\n");
      return;
    }
    QMemoryCheckBlock(u);
    newer = b->newer;
  } else {
    // The bytes in front were overwritten. A listed block whose header survived up to its file
    // guard can still be released; anything else is left alone rather than freed blindly.
    b = FindListed(u, &newer);
    ReportDamage(b, "  ^^^ Bytes trashed in front of allocation!\n");
    if (!b || memcmp(b->fileGuard, kFileGuard, 4) != 0) return;
  }
  if (newer) newer->older = b->older;
  if (b->older) b->older->newer = newer;
  if (g_newest == b) g_newest = b->older;
  g_trackedBytes -= b->size;
  if (g_keepLimit > 0 && g_reporting == 0)
    KeepFreed(b);
  else
    free(b);
}

int qmemGetCount() { return g_count.load(); }
long qmemGetTrackedBytes() { return g_trackedBytes; }

// ---------------------------------------------------------------------------------------------
// Tracking
// ---------------------------------------------------------------------------------------------

void MqEnable(bool on) { g_tracking = on; }
bool MqIsEnabled() { return g_tracking; }
void MqbreakAlloc(int serial) { g_breakSerial = serial; }

void MqKeepFreed(int count) {
  if (count < 0) count = 0;
  if (count > kMaxKeptFreed) count = kMaxKeptFreed;
  g_keepLimit = count;
  while (g_keptCount > g_keepLimit) ReleaseOldestKept();
}

int QMemoryCheckFreed() {
  int bad = 0;
  for (int i = 0; i < g_keptCount; ++i)
    if (!CheckFreed(g_kept[(g_keptFirst + i) % kMaxKeptFreed])) ++bad;
  return bad;
}

void* qmalloc_track(size_t size, const char* file, int line, int flags) {
  if (size == 0) {
    qmessage("# Bad allocation length (%d) in '%s', line %d\n", 0, file ? file : "?", line);
    return nullptr;
  }
  if (static_cast<int>(g_serial) == g_breakSerial)
    qerr("qmem.cpp", "qmalloc_track", __LINE__, "Malloc break set with MqbreakAlloc(%d)",
         g_breakSerial);
  ++g_count;
  Block* b = size <= kMaxTracked ? static_cast<Block*>(malloc(sizeof(Block) + size + 4)) : nullptr;
  if (!b) {
    qmessage("# Allocation failed; %d bytes in '%s', line %d\n", static_cast<int>(size),
             file ? file : "?", line);
    return nullptr;
  }
  memset(b, 0, sizeof(Block));
  b->older = g_newest;
  b->size = static_cast<uint32_t>(size);
  b->serial = g_serial++;
  b->flags = static_cast<uint16_t>(flags);
  b->line = static_cast<uint16_t>(line);
  b->file = file;
  memcpy(b->fileGuard, kFileGuard, 4);
  memcpy(b->head, kHead, 4);
  if (g_newest) g_newest->newer = b;
  g_newest = b;
  unsigned char* user = UserOf(b);
  if (flags & QMEM_ZERO)
    memset(user, 0, size);
  else if (flags & QMEM_MARK_UNINIT)
    memset(user, 204, size);
  memcpy(user + size, kTail, 4);
  g_trackedBytes += static_cast<long>(size);
  return user;
}

bool QMemoryCheckBlock(const void* p) {
  if (!p) return true;
  const unsigned char* u = static_cast<const unsigned char*>(p);
  if (memcmp(u - 4, kPlain, 4) == 0) return true;  // untracked blocks carry no guards
  if (memcmp(u - 4, kHead, 4) != 0) {
    ReportDamage(FindListed(u, nullptr), "  ^^^ Bytes trashed in front of allocation!\n");
    return false;
  }
  const Block* b = BlockOf(u);
  if (memcmp(u + b->size, kTail, 4) != 0) {
    ReportDamage(b, "  ^^^ Bytes trashed behind end of allocation!\n");
    return false;
  }
  return true;
}

int QMemoryCheckAll() {
  int bad = 0;
  for (Block* b = g_newest; b; b = b->older)
    if (!QMemoryCheckBlock(UserOf(b))) ++bad;
  return bad + QMemoryCheckFreed();
}

static int ListBlocks(const char* title) {
  qmessage("########################################");
  qmessage("### Tarn Memory Report (%s) ###\n", title ? title : "");
  qmessage("########################################");
  int n = 0;
  for (Block* b = g_newest; b; b = b->older) PrintBlock(b, n++);
  return n;
}

int QMemoryReportLeaks(const char* title) {
  if (!g_tracking && !g_newest) {
    qmessage("--- Memory tracking is not enabled - call MqEnable() to enable before QMemoryReportLeaks\n");
    return 0;
  }
  return ListBlocks(title);
}

void QMemoryPrintAll() { ListBlocks("all allocations"); }

int QMemoryCheckUninitialized() {
  int n = 0;
  for (Block* b = g_newest; b; b = b->older) {
    if (!(b->flags & QMEM_MARK_UNINIT) || b->size == 0) continue;
    const unsigned char* u = UserOf(b);
    bool untouched = true;
    for (uint32_t i = 0; i < b->size && untouched; ++i) untouched = u[i] == 204;
    if (untouched) {
      PrintBlock(b, n++);
      qmessage("  ^^^ Memory never initialized\n");
    }
  }
  return n;
}

void QMemoryDump(const void* p, int size) {
  if (!p) return;
  const unsigned char* u = static_cast<const unsigned char*>(p);
  int n = size < 60 ? size : 60;
  char hex[60 * 3 + 1];
  char chars[61];
  for (int i = 0; i < n; ++i) {
    snprintf(hex + i * 3, 4, "%02x ", u[i]);
    chars[i] = (u[i] >= 32 && u[i] < 127) ? static_cast<char>(u[i]) : '.';
  }
  hex[n * 3] = 0;
  chars[n] = 0;
  qdbg("qmem.cpp", "QMemoryDump", __LINE__, "%s| %s", hex, chars);
}
