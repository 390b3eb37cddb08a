// The command port's allow list: a sender it does not list is read and dropped, whatever it
// sends, with one warning; a listed one commands as ever.
#include <string>
#include <thread>

#include "support/e2e.h"

namespace {

using namespace e2e;

class AllowE2E : public ScreenTest<640, 480> {
 protected:
  void Start(Program* p, const char* allow) {
    ASSERT_TRUE(p->Prepare() && p->SetKey("network.allow", allow));
    ASSERT_TRUE(Uniform(p->Path("a.tga"), kRed) && Uniform(p->Path("b.tga"), kGreen));
    ASSERT_TRUE(p->Start());
    ASSERT_TRUE(Shows(kRed, kStartMs)) << p->Log();
  }
};

TEST_F(AllowE2E, AStrangerIsDroppedWithOneWarningAndAListedSenderCommands) {
  {
    Program p;
    ASSERT_NO_FATAL_FAILURE(Start(&p, "10.0.0.0/8"));
    // Not even a datagram that would end the program does anything.
    ASSERT_TRUE(p.Send("next") && p.Send(std::string(1024, 'x')) && p.Send("display off"));
    ASSERT_TRUE(p.WaitForLog("Datagram from 127.0.0.1 dropped: the sender is not in network.allow",
                             kStepMs))
        << p.Log();
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    ASSERT_TRUE(p.Send("next"));
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    EXPECT_EQ(Count(p.Log(), "Datagram from 127.0.0.1 dropped"), 1) << "one warning a minute";
    EXPECT_TRUE(Shows(kRed, 0));
    EXPECT_EQ(Count(p.Log(), "is too long"), 0);
    EXPECT_EQ(p.Escape(), 0);
  }
  Program p;
  ASSERT_NO_FATAL_FAILURE(Start(&p, "192.168.0.1, 127.0.0.0/8"));
  ASSERT_TRUE(p.Send("next"));
  EXPECT_TRUE(Shows(kGreen)) << p.Log();
  EXPECT_EQ(Count(p.Log(), "dropped"), 0);
  EXPECT_EQ(p.Escape(), 0);
}

}  // namespace
