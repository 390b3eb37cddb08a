// QObjectManager: reference numbers, user counts and stored names.
#include "framework/qobjectmgr.h"

#include <atomic>
#include <cstring>

#include "framework/qmem.h"
#include "framework/qmessage.h"

namespace {
std::atomic<bool> g_quietShutdown{false};
}

void qSetQuietShutdown(bool quiet) { g_quietShutdown.store(quiet); }
bool qIsQuietShutdown() { return g_quietShutdown.load(); }

QObjectManager::QObjectManager(const char* name, int capacity) : name_(name) {
  if (capacity <= 0) return;
  names_ = static_cast<char**>(qcalloc(sizeof(char*) * static_cast<size_t>(capacity)));
  objects_ = static_cast<void**>(qcalloc(sizeof(void*) * static_cast<size_t>(capacity)));
  refCounts_ = static_cast<int*>(qcalloc(sizeof(int) * static_cast<size_t>(capacity)));
  if (!names_ || !objects_ || !refCounts_) {
    QERR("QObjectManager::QObjectManager", "QObjectManager(%s): no memory for '%d' references",
         name_.cstr(), capacity);
    qfree(names_);
    qfree(objects_);
    qfree(refCounts_);
    names_ = nullptr;
    objects_ = nullptr;
    refCounts_ = nullptr;
    return;
  }
  capacity_ = capacity;
}

QObjectManager::~QObjectManager() {
  if (!qIsQuietShutdown()) {
    for (int i = 0; i < count_; ++i)
      if (objects_[i])
        QWARN("QObjectManager::~QObjectManager", "QObjMgr: object '%s' still around with %d reference(s)",
              names_[i] ? names_[i] : "", refCounts_[i]);
  }
  Clear();
  qfree(names_);
  qfree(objects_);
  qfree(refCounts_);
}

// ---------------------------------------------------------------------------------------------
// Operations for subclasses
// ---------------------------------------------------------------------------------------------

void QObjectManager::FixupName(qstring*) {}

void* QObjectManager::CreateObject(const char*) { return nullptr; }

void QObjectManager::DestroyObject(void*, int) {}

void QObjectManager::DbgPrint() {
  qmessage("QObjectManager (%s); %d potential references\n", name_.cstr(), count_);
  for (int i = 0; i < count_; ++i)
    if (refCounts_[i] > 0)
      qmessage("  ref[%d]=%p: '%s' (refCount %d)\n", i + 1, objects_[i], names_[i] ? names_[i] : "",
               refCounts_[i]);
}

// ---------------------------------------------------------------------------------------------
// References
// ---------------------------------------------------------------------------------------------

int QObjectManager::FindOrMakeReference(const char* name, const char* storeName) {
  qstring fixed(name);
  FixupName(&fixed);
  const char* key = storeName ? storeName : fixed.cstr();

  int slot = -1;
  for (int i = 0; i < count_; ++i) {
    if (objects_[i]) {
      if (!(flags_ & QOBJMGR_NEVER_SHARE) && names_[i] && strcmp(names_[i], key) == 0) {
        Attach(i + 1);
        return i + 1;
      }
    } else if (slot < 0) {
      slot = i;
    }
  }
  if (slot < 0) {
    if (count_ >= capacity_) {
      QERR("QObjectManager::FindOrMakeReference", "QObjectManager:FindOrMake() out of space");
      return 0;
    }
    slot = count_++;
    names_[slot] = nullptr;
    objects_[slot] = nullptr;
    refCounts_[slot] = 0;
  }
  if (!names_[slot]) names_[slot] = qstrdup(key);
  ++refCounts_[slot];
  void* object = CreateObject(fixed.cstr());
  int ref = slot + 1;
  if (object) {
    objects_[slot] = object;
    return ref;
  }
  Release(&ref);
  return 0;
}

bool QObjectManager::Attach(int ref) {
  if (!InRange(ref)) {
    QERR("QObjectManager::Attach", "QObjectManager:Attach(ref %d) out of range", ref);
    return false;
  }
  ++refCounts_[ref - 1];
  return true;
}

void QObjectManager::Release(int* ref) {
  if (!ref || *ref == 0) return;
  int r = *ref;
  if (!InRange(r)) {
    QERR("QObjectManager::Release", "QObjectManager:Release(ref %d) out of range", r);
    return;
  }
  int i = r - 1;
  int count = --refCounts_[i];
  if (count < 0) {
    QERR("QObjectManager::Release", "Too many releases for reference %d (%s), refCount negative (%d)",
         r, names_[i] ? names_[i] : "", count);
    objects_[i] = nullptr;
    FreeName(i);
    refCounts_[i] = 0;
  } else if (count == 0) {
    // The name stays readable while the subclass destroys the object.
    if (objects_[i]) DestroyObject(objects_[i], r);
    objects_[i] = nullptr;
    FreeName(i);
  }
  *ref = 0;
}

void* QObjectManager::GetObject(int ref) const { return InRange(ref) ? objects_[ref - 1] : nullptr; }

const char* QObjectManager::GetObjectName(int ref) const {
  if (!InRange(ref)) {
    QERR("QObjectManager::GetObjectName", "Reference (now %d) must be >=1", ref);
    return "<objmgr_bad_ref>";
  }
  return names_[ref - 1] ? names_[ref - 1] : "";
}

int QObjectManager::GetRefCount(int ref) const {
  if (!InRange(ref)) {
    QERR("QObjectManager::GetRefCount", "QObjectManager:GetGeode(ref %d) out of range", ref);
    return 0;
  }
  return refCounts_[ref - 1];
}

bool QObjectManager::SetObjectName(int ref, const char* name) {
  if (!InRange(ref)) {
    QERR("QObjectManager::SetObjectName", "Reference (now %d) must be >=1", ref);
    return false;
  }
  FreeName(ref - 1);
  names_[ref - 1] = qstrdup(name);
  return true;
}

int QObjectManager::FindReference(const char* name) const {
  if (!name) return 0;
  for (int i = 0; i < count_; ++i)
    if (objects_[i] && names_[i] && strcmp(names_[i], name) == 0) return i + 1;
  return 0;
}

void QObjectManager::Clear() {
  QINFO("QObjectManager::Clear", "Clear of objectManager '%s'", name_.cstr());
  for (int i = 0; i < count_; ++i) {
    FreeName(i);
    objects_[i] = nullptr;
    refCounts_[i] = 0;
  }
  count_ = 0;
}

void QObjectManager::SetNeverShare(bool on) {
  if (on)
    flags_ |= QOBJMGR_NEVER_SHARE;
  else
    flags_ &= ~QOBJMGR_NEVER_SHARE;
}

void QObjectManager::FreeName(int index) {
  qfree(names_[index]);
  names_[index] = nullptr;
}
