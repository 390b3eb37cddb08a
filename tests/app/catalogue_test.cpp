// The catalogue of a library: its limit, ordered by date or shuffled, following changes, stepped
// by portrait pairs.
#include "app/catalogue.h"
#include "app/portrait_pairs.h"

#include <gtest/gtest.h>
#include <sys/time.h>

#include <filesystem>
#include <set>
#include <thread>

#include "support/logcapture.h"
#include "support/tempdir.h"

namespace {

class Library : public TempDirTest {
 protected:
  // Walks the library again and waits until the catalogue has taken in all of it.
  void Walk(Catalogue* c) {
    c->Scan();
    while (c->Walking() || c->Merge()) c->Merge();
  }
  void Open(Catalogue* c, Catalogue::Order order, int max = 0) {
    Catalogue::Options o;
    o.recursive = true, o.order = order, o.maxPictures = max;
    c->Open(o, dir_);
    c->Scan();
    // The walk holds after its first picture until the start has shown it.
    const std::string first = c->WaitFirst(5000);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    c->Merge();
    EXPECT_EQ(c->Count(), first.empty() ? 0 : 1) << first;
    c->FirstShown();
    while (c->Walking() || c->Merge()) c->Merge();
  }
  // A picture whose file time is `seconds`.
  void Picture(const std::string& name, long seconds = 1000) {
    std::filesystem::create_directories(std::filesystem::path(Tmp(name)).parent_path());
    MakeFile(name, "x");
    const timeval t[2] = {{seconds, 0}, {seconds, 0}};
    ASSERT_EQ(utimes(Tmp(name).c_str(), t), 0);
  }
  std::vector<std::string> Names(const Catalogue& c) {
    std::vector<std::string> out;
    for (int i = 0; i < c.Count(); ++i) out.push_back(c.Name(i));
    return out;
  }
};

TEST_F(Library, StopsAtItsLimitSayingSoOnce) {
  for (const char* n : {"a.jpg", "s/b.jpg", "s/c.jpg", "d.jpg", ".h/x.jpg", "s/note.txt"})
    Picture(n);
  LogCapture log;
  Catalogue limited;
  Open(&limited, Catalogue::BY_NAME, 3);
  Walk(&limited);
  EXPECT_EQ(Names(limited), (std::vector<std::string>{"a.jpg", "d.jpg", "s/b.jpg"}));
  EXPECT_EQ(log.Count("No space for new image (s/c.jpg) anymore"), 1);
}

TEST_F(Library, OrdersByDateAndShufflesEachPictureOnceARound) {
  Picture("new.jpg", 3000), Picture("d/old.jpg", 1000), Picture("mid.jpg", 2000);
  Catalogue dated;
  Open(&dated, Catalogue::BY_DATE);
  EXPECT_EQ(Names(dated), (std::vector<std::string>{"d/old.jpg", "mid.jpg", "new.jpg"}));
  Picture("d/old.jpg", 4000);  // a changed file is read again and moves
  Walk(&dated);
  EXPECT_EQ(Names(dated), (std::vector<std::string>{"mid.jpg", "new.jpg", "d/old.jpg"}));

  for (int i = 0; i < 17; ++i) Picture("r/" + std::to_string(i) + ".jpg");
  Catalogue c;
  Open(&c, Catalogue::SHUFFLE);
  ASSERT_EQ(c.Count(), 20);
  std::set<std::string> seen;
  for (int i = 0; i < 8; ++i) seen.insert(c.Name(c.Step(1)));
  // Pictures that join mid-round come later in it.
  for (int i = 0; i < 5; ++i) Picture("late" + std::to_string(i) + ".jpg");
  Walk(&c);
  for (int i = 0; i < 5; ++i)
    EXPECT_GT(c.FindExact("late" + std::to_string(i) + ".jpg"), c.Current());
  for (int i = 8; i < 25; ++i) seen.insert(c.Name(c.Step(1)));
  EXPECT_EQ(seen.size(), 25u);
  // The next round is another order, and does not start with the picture just shown.
  const std::vector<std::string> before = Names(c);
  const std::string last = c.Name(c.Current());
  EXPECT_NE(c.Name(c.Step(1)), last);
  EXPECT_NE(Names(c), before);
}

// A pair moves two at a time, a landscape neighbour breaks one, a step back takes the pair before
// or else one picture alone, and no pair runs over the end; shapes are judged turned upright.
TEST_F(Library, StepsByPortraitPairs) {
  const std::string shapes = "pplppp";  // a.jpg to f.jpg: portrait or landscape
  for (size_t i = 0; i < shapes.size(); ++i) Picture(std::string(1, char('a' + i)) + ".jpg");
  Catalogue c;
  Open(&c, Catalogue::BY_NAME);
  ASSERT_EQ(c.Count(), 6);
  c.SetCurrent(0);
  const auto portrait = [&](int i) { return shapes[size_t(i)] == 'p'; };
  const struct {
    int steps;
    bool paired;
    int at;
    bool mayPair;
  } moves[] = {{1, true, 2, true},   {1, false, 3, true},  {1, true, 5, true},
               {1, false, 0, true},  {-1, true, 4, true},  {-1, true, 3, false},
               {-1, false, 2, false}, {-1, false, 0, true}, {3, true, 5, true}};
  for (const auto& m : moves) {
    const int from = c.Current();
    EXPECT_EQ(StepSlides(&c, m.steps, m.paired, portrait), m.mayPair) << from << " " << m.steps;
    EXPECT_EQ(c.Current(), m.at) << from << " " << m.steps;
  }
  EXPECT_TRUE(IsPortrait(3, 4, 0) && IsPortrait(4, 3, 6) && IsPortrait(4, 3, 8));
  EXPECT_FALSE(IsPortrait(3, 4, 6) || IsPortrait(4, 4, 0) || IsPortrait(0, 0, 0));
}

}  // namespace
