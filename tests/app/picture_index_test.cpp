#include "app/picture_index.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <sstream>

#include "support/logcapture.h"
#include "support/tempdir.h"

namespace {

IndexedPicture Pic(const std::string& path, int64_t n) {
  return {path, n, n * 1000000007, n * 3600 + 1, int(n % 8) + 1, int(4000 + n), int(3000 + n)};
}

// Rows as text sorted by path, so that the index's order does not matter.
std::string Text(std::vector<IndexedPicture> rows) {
  std::sort(rows.begin(), rows.end(), [](auto& a, auto& b) { return a.path < b.path; });
  std::ostringstream text;
  for (const IndexedPicture& p : rows)
    text << p.path << ' ' << p.size << ' ' << p.modified << ' ' << p.taken << ' ' << p.orientation
         << ' ' << p.width << 'x' << p.height << '\n';
  return text.str();
}
std::string Loaded(PictureIndex& index) {
  std::vector<IndexedPicture> rows;
  EXPECT_TRUE(index.Load(&rows));
  return Text(rows);
}

class PictureIndexTest : public TempDirTest {
 protected:
  PictureIndexTest() : db_(Tmp("index.db")) {}
  const std::string db_;
};

TEST_F(PictureIndexTest, RowsStateAndRoundSurviveReopenPerRoot) {
  {
    PictureIndex index;
    ASSERT_TRUE(index.Open(db_, "/photos"));
    ASSERT_TRUE(index.Put({Pic("a.jpg", 1), Pic("b/c.jpg", 2), Pic("b/d é.png", 3)}));
    ASSERT_TRUE(index.Put({Pic("a.jpg", 7)}));  // same path: replaced
    ASSERT_TRUE(index.Remove({"b/c.jpg", "never.jpg"}));
    ASSERT_TRUE(index.SetState("order", "taken") && index.SetState("order", "shuffle"));
    ASSERT_TRUE(index.SetRound({"b/d é.png", "a.jpg"}));
    PictureIndex other;  // a second library in the same file
    ASSERT_TRUE(other.Open(db_, "/photos/b"));
    ASSERT_TRUE(other.Put({Pic("a.jpg", 99)}) && other.SetState("order", "name"));
  }
  PictureIndex index;
  ASSERT_TRUE(index.Open(db_, "/photos"));
  EXPECT_EQ(Loaded(index), Text({Pic("a.jpg", 7), Pic("b/d é.png", 3)}));
  std::string value, last = "kept";
  std::vector<std::string> round;
  EXPECT_TRUE(index.GetState("order", &value) && !index.GetState("last", &last) &&
              index.GetRound(&round));
  EXPECT_EQ(value + " " + last, "shuffle kept");
  EXPECT_EQ(round, (std::vector<std::string>{"b/d é.png", "a.jpg"}));
  ASSERT_TRUE(index.Open(db_, "/photos/b"));
  EXPECT_EQ(Loaded(index), Text({Pic("a.jpg", 99)}));
  EXPECT_TRUE(index.GetRound(&round) && round.empty() && index.GetState("order", &value));
  EXPECT_EQ(value, "name");
}

TEST_F(PictureIndexTest, DamagedOrForeignFileIsMadeAnew) {
  std::string junk(8192, '\0');
  std::mt19937 random(7);
  for (char& c : junk) c = char(random());
  MakeFile("index.db", junk);
  LogCapture log;
  PictureIndex index;
  ASSERT_TRUE(index.Open(db_, "/photos"));
  EXPECT_EQ(log.Count("'" + db_ + "'"), 1);
  EXPECT_EQ(ReadFile(db_ + ".broken"), junk);

  // Pages spoilt behind a sound header show when they are read: that call fails, the next works.
  std::vector<IndexedPicture> many(5000, Pic("", 1));
  for (size_t i = 0; i < many.size(); ++i) many[i].path = "p" + std::to_string(i);
  ASSERT_TRUE(index.Put(many));
  index.Close();
  std::string bytes = ReadFile(db_);
  ASSERT_GT(bytes.size(), 65536u);
  std::fill(bytes.begin() + long(bytes.size() / 2), bytes.end(), '\x5a');
  ASSERT_TRUE(WriteFile(db_, bytes));
  log.Clear();
  ASSERT_TRUE(index.Open(db_, "/photos"));
  std::vector<IndexedPicture> rows;
  EXPECT_FALSE(index.Load(&rows));
  EXPECT_EQ(log.Count("is damaged"), 1);
  EXPECT_EQ(ReadFile(db_ + ".broken"), bytes);
  EXPECT_TRUE(index.Load(&rows) && rows.empty());

  // A sound database of another layout is made anew with a note only.
  EXPECT_TRUE(index.Put({Pic("a.jpg", 2)}));
  index.Close();
  sqlite3* raw = nullptr;
  ASSERT_EQ(sqlite3_open(db_.c_str(), &raw), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(raw, "PRAGMA user_version=99", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(raw);
  log.Clear();
  ASSERT_TRUE(index.Open(db_, "/photos"));
  EXPECT_TRUE(log.Lines().empty() && log.Logged("NOTE", "'99'"));
  EXPECT_TRUE(index.Load(&rows) && rows.empty());
}

TEST_F(PictureIndexTest, ReadOnlyFolderMeansNoIndex) {
  if (geteuid() == 0) GTEST_SKIP() << "root writes into read-only folders";
  {
    PictureIndex before;  // an index from an earlier run, before the folder was locked
    ASSERT_TRUE(before.Open(db_, "/photos") && before.Put({Pic("a.jpg", 1)}));
  }
  ASSERT_EQ(chmod(dir_.c_str(), 0555), 0);
  LogCapture log;
  PictureIndex index;
  EXPECT_FALSE(index.Open(Tmp("new.db"), "/photos"));
  EXPECT_FALSE(index.Open(db_, "/photos"));
  chmod(dir_.c_str(), 0755);
  EXPECT_EQ(log.Count("'" + Tmp("new.db") + "'"), 1);
  EXPECT_EQ(log.Count("'" + db_ + "'"), 1);
  std::vector<IndexedPicture> rows;
  EXPECT_FALSE(index.IsOpen() || index.Put({Pic("a.jpg", 1)}) || index.Load(&rows) ||
               index.SetState("k", "v"));
}

// A writer killed in the middle of a batch leaves whole batches only: every row from one Put.
TEST_F(PictureIndexTest, KilledWriterLeavesWholeBatches) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    PictureIndex index;
    if (!index.Open(db_, "/photos")) _exit(1);
    std::vector<IndexedPicture> batch(100000);
    for (int64_t n = 1;; ++n) {
      for (size_t i = 0; i < batch.size(); ++i) batch[i] = Pic("p" + std::to_string(i), n);
      if (write(ready[1], "x", 1) != 1 || !index.Put(batch)) _exit(1);
    }
  }
  close(ready[1]);
  // Killed in the third batch, after two were committed.
  int started = 0;
  for (char c; started < 3 && read(ready[0], &c, 1) == 1;) ++started;
  usleep(50000);
  kill(child, SIGKILL);
  int status = 0;
  waitpid(child, &status, 0);
  close(ready[0]);
  ASSERT_TRUE(started == 3 && WIFSIGNALED(status));
  PictureIndex index;
  std::vector<IndexedPicture> rows;
  ASSERT_TRUE(index.Open(db_, "/photos") && index.Load(&rows));
  ASSERT_EQ(rows.size(), 100000u);
  EXPECT_GE(rows[0].size, 2);
  for (const IndexedPicture& p : rows) ASSERT_EQ(p.size, rows[0].size) << p.path;
}

}  // namespace
