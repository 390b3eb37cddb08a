// QObjectManager: sharing by name, user counts, failed creation and too many releases.
#include "framework/qobjectmgr.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "framework/qmem.h"
#include "support/logcapture.h"

namespace {

// An int per name (refusing "fail..."), names matched case-blind; remembers what it destroyed.
class IntManager : public QObjectManager {
 public:
  explicit IntManager(int capacity) : QObjectManager("ints", capacity) {}
  ~IntManager() override {
    for (int ref = 1; ref <= GetCount(); ++ref) delete static_cast<int*>(GetObject(ref));
  }
  void FixupName(qstring* name) override { name->ToLower(); }
  void* CreateObject(const char* name) override {
    made.push_back(name);
    return std::string(name).rfind("fail", 0) == 0 ? nullptr : new int(0);
  }
  void DestroyObject(void* object, int ref) override {
    destroyed.push_back(GetObjectName(ref));  // still readable here
    delete static_cast<int*>(object);
  }
  std::vector<std::string> made, destroyed;
};

}  // namespace

TEST(QObjectManagerRefs, SameNameSharesOneObjectUntilTheLastReleaseAndFaultsAreReported) {
  LogCapture log;
  IntManager m(10);
  int a = m.FindOrMakeReference("Wall.tga");
  int b = m.FindOrMakeReference("wall.TGA");  // one name after the fix-up
  EXPECT_EQ(a, 1);
  EXPECT_EQ(b, a);
  EXPECT_EQ(m.made.size(), 1u);
  EXPECT_EQ(m.GetRefCount(a), 2);
  m.Release(&b);
  EXPECT_EQ(b, 0);
  EXPECT_TRUE(m.destroyed.empty());
  m.Release(&a);
  EXPECT_EQ(a, 0);
  EXPECT_EQ(m.destroyed, std::vector<std::string>{"wall.tga"});
  EXPECT_EQ(m.FindReference("wall.tga"), 0);

  // A stored name is the key; the request itself is what gets made.
  int s = m.FindOrMakeReference("Sky.TGA", "sky-day");
  EXPECT_EQ(m.made.back(), "sky.tga");
  EXPECT_EQ(m.FindOrMakeReference("Other", "sky-day"), s);
  EXPECT_NE(m.FindOrMakeReference("Sky.TGA"), s);
  // Never-share: a new reference each time.
  m.SetNeverShare(true);
  EXPECT_NE(m.FindOrMakeReference("Other", "sky-day"), s);
  EXPECT_FALSE(log.Seen("QObjectManager:"));

  // A failed creation leaves the slot free; too many releases are reported.
  int blocks = qmemGetCount();
  {
    IntManager small(2);
    EXPECT_EQ(small.FindOrMakeReference("fail-me"), 0);
    EXPECT_EQ(small.GetRefCount(1), 0);
    EXPECT_TRUE(small.destroyed.empty());
    EXPECT_EQ(small.FindOrMakeReference("a"), 1);  // the same slot again: capacity is whole
    EXPECT_EQ(small.FindOrMakeReference("b"), 2);
    EXPECT_EQ(small.FindOrMakeReference("c"), 0);
    EXPECT_TRUE(log.Seen("QObjectManager:FindOrMake() out of space"));
  }
  EXPECT_EQ(qmemGetCount(), blocks);  // tables and names all given back

  IntManager one(4);
  int x = one.FindOrMakeReference("x");
  int copy = x;
  one.Release(&x);
  one.Release(&copy);
  EXPECT_EQ(copy, 0);
  EXPECT_EQ(one.destroyed.size(), 1u);
  EXPECT_TRUE(log.Seen("Too many releases for reference 1 (), refCount negative (-1)"));
  EXPECT_EQ(one.FindOrMakeReference("y"), 1);  // the slot is usable again
  EXPECT_EQ(one.GetRefCount(1), 1);
}
