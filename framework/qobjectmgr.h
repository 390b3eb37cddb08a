// QObjectManager: base of the framework's named-resource caches (textures, sounds, ...).
//
// It maps names to objects through reference numbers 1 .. capacity and counts the users of each
// reference, so that a resource is made once and destroyed when its last user releases it. 0
// means "no reference". A subclass makes and destroys the objects (CreateObject, DestroyObject);
// the base never owns them. The base owns its tables and a copy of every stored name. With the
// never-share flag each request makes a new reference even for a known name. A reference
// above the slots in use is not checked; one above the capacity is refused as out of range.
// Not thread-safe: meant for the main thread. CreateObject must not call back into the same
// manager.
#pragma once

#include "framework/qstring.h"

enum QObjectManagerFlags : int {
  QOBJMGR_NEVER_SHARE = 1,  // always make a new reference
};

class QObjectManager {
 public:
  QObjectManager(const char* name, int capacity);
  // Warns "QObjMgr: object '%s' still around with %d reference(s)" for every object still
  // present, unless the process is in its quiet shut-down (qSetQuietShutdown).
  virtual ~QObjectManager();
  QObjectManager(const QObjectManager&) = delete;
  QObjectManager& operator=(const QObjectManager&) = delete;

  // ---- Subclass operations (in this order) ----
  // Adjusts a copy of the requested name before the search (the base leaves it).
  virtual void FixupName(qstring* name);
  // Makes the object for a new reference; null refuses the reference (the base always does).
  virtual void* CreateObject(const char* name);
  // Destroys the object of a reference whose last user released it.
  virtual void DestroyObject(void* object, int ref);
  // Lists the manager and every reference in use.
  virtual void DbgPrint();

  const char* ClassName() const { return "QObjectManager"; }
  const char* GetName() const { return name_.cstr(); }

  // The reference for `name` with one more user, made when needed; `storeName` (may be null)
  // is the key stored and searched instead of the fixed-up name. 0 after "QObjectManager:
  // FindOrMake() out of space" or when CreateObject refused (the slot stays free).
  int FindOrMakeReference(const char* name, const char* storeName = nullptr);
  // One more user; false after "QObjectManager:Attach(ref %d) out of range".
  bool Attach(int ref);
  // One user less; the last one destroys the object. Sets *ref to 0. A reference below 1 is
  // refused with "QObjectManager:Release(ref %d) out of range"; one that had no user left
  // reports the negative count and is cleared without destroying anything.
  void Release(int* ref);

  // The object, or null for a free slot or a reference out of range.
  void* GetObject(int ref) const;
  // Stored name ("" when the slot has none); "<objmgr_bad_ref>" after an out-of-range report.
  const char* GetObjectName(int ref) const;
  // Users of a reference; 0 after "QObjectManager:GetGeode(ref %d) out of range".
  int GetRefCount(int ref) const;
  // Replaces the stored name; false after "Reference (now %d) must be >=1".
  bool SetObjectName(int ref, const char* name);
  // The reference in use under exactly this name, or 0.
  int FindReference(const char* name) const;
  // Forgets every name and reference (objects are not destroyed).
  void Clear();

  void SetNeverShare(bool on);
  int GetFlags() const { return flags_; }
  // Bits above QOBJMGR_NEVER_SHARE are free for subclasses.
  void SetFlags(int flags) { flags_ = flags; }
  int GetCapacity() const { return capacity_; }
  // Slots in use or used before (references run from 1 to this).
  int GetCount() const { return count_; }

 private:
  bool InRange(int ref) const { return ref >= 1 && ref <= capacity_; }
  void FreeName(int index);

  qstring name_;
  int capacity_ = 0;
  int count_ = 0;
  char** names_ = nullptr;
  void** objects_ = nullptr;
  int* refCounts_ = nullptr;
  int flags_ = 0;
};

// The quiet shut-down mode: set while the process is ending on purpose, so that managers
// destroyed then do not warn about the objects they still list.
void qSetQuietShutdown(bool quiet);
bool qIsQuietShutdown();
