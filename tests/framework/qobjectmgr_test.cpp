// QObjectManager: sharing by name, user counts, failed creation, bad references, shut-down.
#include "framework/qobjectmgr.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "framework/qmem.h"
#include "framework/qmessage.h"

namespace {

std::vector<std::string> g_lines;
void Collect(const char*, const char* text) { g_lines.push_back(text); }

bool Seen(const std::string& text) {
  for (const std::string& l : g_lines)
    if (l.find(text) != std::string::npos) return true;
  return false;
}

// Makes an int per name (refusing names that start with "fail"), matches names without regard
// to case, and remembers what it destroyed.
class IntManager : public QObjectManager {
 public:
  IntManager(int capacity) : QObjectManager("ints", capacity) {}
  ~IntManager() override {
    for (int ref = 1; ref <= GetCount(); ++ref) delete static_cast<int*>(GetObject(ref));
  }
  void FixupName(qstring* name) override { name->ToLower(); }
  void* CreateObject(const char* name) override {
    ++created;
    lastCreateName = name;
    if (std::string(name).rfind("fail", 0) == 0) return nullptr;
    return new int(created);
  }
  void DestroyObject(void* object, int ref) override {
    destroyed.push_back(ref);
    destroyedNames.push_back(GetObjectName(ref));
    delete static_cast<int*>(object);
  }
  int created = 0;
  std::string lastCreateName;
  std::vector<int> destroyed;
  std::vector<std::string> destroyedNames;
};

class ObjectManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_lines.clear();
    oldErr_ = qSetErrHandler(Collect);
    oldWarn_ = qSetWarnHandler(Collect);
    oldMsg_ = qSetMessageHandler(Collect);
    qlogSetMask(0);  // keep "Clear of objectManager" out of the log file
  }
  void TearDown() override {
    qSetErrHandler(oldErr_);
    qSetWarnHandler(oldWarn_);
    qSetMessageHandler(oldMsg_);
    qlogSetMask(QLOGMASK_ERR | QLOGMASK_WARN | QLOGMASK_INFO);
  }
  QMessageHandler oldErr_ = nullptr, oldWarn_ = nullptr, oldMsg_ = nullptr;
};

}  // namespace

TEST_F(ObjectManagerTest, SameNameSharesOneObjectUntilTheLastRelease) {
  IntManager m(10);
  int a = m.FindOrMakeReference("Wall.tga");
  int b = m.FindOrMakeReference("wall.TGA");  // the fix-up makes them one name
  EXPECT_EQ(a, 1);
  EXPECT_EQ(b, a);
  EXPECT_EQ(m.created, 1);
  EXPECT_EQ(m.GetRefCount(a), 2);
  EXPECT_STREQ(m.GetObjectName(a), "wall.tga");
  EXPECT_EQ(m.FindReference("wall.tga"), a);

  m.Release(&b);
  EXPECT_EQ(b, 0);
  EXPECT_TRUE(m.destroyed.empty());
  m.Release(&a);
  EXPECT_EQ(a, 0);
  ASSERT_EQ(m.destroyed, std::vector<int>{1});
  EXPECT_EQ(m.destroyedNames[0], "wall.tga");  // the name is still there while destroying
  EXPECT_EQ(m.FindReference("wall.tga"), 0);
  m.Release(&a);  // reference 0: nothing
  EXPECT_TRUE(g_lines.empty());
}

TEST_F(ObjectManagerTest, StoredNameIsTheKeyAndTheRequestIsMade) {
  IntManager m(10);
  int a = m.FindOrMakeReference("Sky.TGA", "sky-day");
  EXPECT_EQ(m.lastCreateName, "sky.tga");
  EXPECT_STREQ(m.GetObjectName(a), "sky-day");
  EXPECT_EQ(m.FindOrMakeReference("Other.tga", "sky-day"), a);
  EXPECT_EQ(m.GetRefCount(a), 2);
  EXPECT_NE(m.FindOrMakeReference("Sky.TGA"), a);  // searched as "sky.tga"
}

TEST_F(ObjectManagerTest, NeverShareMakesANewReferenceEachTime) {
  IntManager m(10);
  m.SetNeverShare(true);
  int a = m.FindOrMakeReference("x");
  int b = m.FindOrMakeReference("x");
  EXPECT_NE(a, b);
  EXPECT_EQ(m.created, 2);
  EXPECT_EQ(m.GetRefCount(a), 1);
  m.SetNeverShare(false);
  EXPECT_EQ(m.GetFlags() & QOBJMGR_NEVER_SHARE, 0);
  EXPECT_EQ(m.FindOrMakeReference("x"), a);  // the first in slot order
}

TEST_F(ObjectManagerTest, FailedCreateLeavesTheSlotFree) {
  int blocks = qmemGetCount();
  {
    IntManager m(2);
    EXPECT_EQ(m.FindOrMakeReference("fail-me"), 0);
    EXPECT_EQ(m.GetObject(1), nullptr);
    EXPECT_EQ(m.GetRefCount(1), 0);
    EXPECT_TRUE(m.destroyed.empty());
    // The freed slot is taken again; the capacity of two is still whole.
    EXPECT_EQ(m.FindOrMakeReference("a"), 1);
    EXPECT_EQ(m.FindOrMakeReference("b"), 2);
    EXPECT_EQ(m.FindOrMakeReference("c"), 0);
    EXPECT_TRUE(Seen("QObjectManager:FindOrMake() out of space"));
    int a = 1, b = 2;
    m.Release(&a);
    m.Release(&b);
  }
  EXPECT_EQ(qmemGetCount(), blocks);  // tables and names all given back
}

TEST_F(ObjectManagerTest, TooManyReleasesAreReportedNotDestroyedTwice) {
  IntManager m(4);
  int a = m.FindOrMakeReference("x");
  int copy = a;
  m.Release(&a);
  m.Release(&copy);
  EXPECT_EQ(copy, 0);
  EXPECT_EQ(m.destroyed.size(), 1u);
  EXPECT_TRUE(Seen("Too many releases for reference 1 (), refCount negative (-1)"));
  // The slot is usable again.
  EXPECT_EQ(m.FindOrMakeReference("y"), 1);
  EXPECT_EQ(m.GetRefCount(1), 1);
}

TEST_F(ObjectManagerTest, BadReferencesAreRefused) {
  IntManager m(3);
  int neg = -2;
  m.Release(&neg);
  EXPECT_TRUE(Seen("QObjectManager:Release(ref -2) out of range"));
  EXPECT_EQ(neg, -2);
  EXPECT_FALSE(m.Attach(0));
  EXPECT_TRUE(Seen("QObjectManager:Attach(ref 0) out of range"));
  EXPECT_EQ(m.GetRefCount(0), 0);
  EXPECT_TRUE(Seen("QObjectManager:GetGeode(ref 0) out of range"));
  EXPECT_STREQ(m.GetObjectName(-1), "<objmgr_bad_ref>");
  EXPECT_TRUE(Seen("Reference (now -1) must be >=1"));
  EXPECT_FALSE(m.SetObjectName(0, "x"));
  // Past the capacity nothing outside the tables is touched.
  EXPECT_FALSE(m.Attach(4));
  EXPECT_EQ(m.GetObject(1000), nullptr);
  EXPECT_STREQ(m.GetObjectName(4), "<objmgr_bad_ref>");
  int big = 99;
  m.Release(&big);
}

TEST_F(ObjectManagerTest, RenameAndDebugListing) {
  IntManager m(4);
  int a = m.FindOrMakeReference("a");
  ASSERT_TRUE(m.SetObjectName(a, "renamed"));
  EXPECT_EQ(m.FindReference("renamed"), a);
  EXPECT_EQ(m.FindReference("a"), 0);
  m.DbgPrint();
  EXPECT_TRUE(Seen("QObjectManager (ints); 1 potential references\n"));
  EXPECT_TRUE(Seen("'renamed' (refCount 1)"));
  m.Release(&a);
}

TEST_F(ObjectManagerTest, DestructionWarnsAboutLeftoversUnlessQuiet) {
  {
    IntManager m(4);
    m.FindOrMakeReference("kept");
    m.FindOrMakeReference("kept");
  }
  EXPECT_TRUE(Seen("QObjMgr: object 'kept' still around with 2 reference(s)"));
  g_lines.clear();
  qSetQuietShutdown(true);
  {
    IntManager m(4);
    m.FindOrMakeReference("kept");
  }
  qSetQuietShutdown(false);
  EXPECT_FALSE(Seen("still around"));
}
