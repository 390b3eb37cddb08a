// QDirectory: listing order, entry information, the path-length check; working directory.
// QDirWatch: changes, files being written, wakes, a directory replaced, trees of folders.
#include "framework/qdir.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fcntl.h>
#include <thread>
#include <cstring>
#include <string>
#include <vector>

#include "framework/qevent.h"
#include "framework/qstring.h"
#include "support/logcapture.h"
#include "support/tempdir.h"

namespace {

class QDirTest : public TempDirTest {
 protected:
  // The prefix's length matters: the overlong-path case counts from it.
  QDirTest() : TempDirTest("qdir_test") {}
  std::vector<std::string> List(const char* directory) {
    QDirectory d(directory);
    EXPECT_TRUE(d.IsOpen());
    std::vector<std::string> names;
    char name[QDirectory::NAME_SIZE];
    while (d.ReadNext(name)) names.emplace_back(name);
    EXPECT_STREQ(name, "");
    return names;
  }
  LogCapture log_;
};

TEST_F(QDirTest, NamesSortByUpperCaseBytesWithNothingFilteredAndCarryTheirInformation) {
  EXPECT_EQ(List(dir_.c_str()), (std::vector<std::string>{".", ".."}));
  for (const char* n : {"b.jpg", "_x", "Zeta", "a2", "A.txt", ".hidden", "!bang"}) MakeFile(n, "");
  ASSERT_EQ(mkdir((dir_ + "/sub").c_str(), 0755), 0);
  // Upper-cased, "_" (0x5F) sorts after "Z", "." after "!" and before "2".
  EXPECT_EQ(List(dir_.c_str()), (std::vector<std::string>{".", "..", "!bang", ".hidden", "A.txt",
                                                          "a2", "b.jpg", "sub", "Zeta", "_x"}));

  // Entry information comes from the file system.
  MakeFile("five", "12345");
  QDirectory d(dir_.c_str());
  char name[QDirectory::NAME_SIZE];
  QDirEntryInfo info;
  int seen = 0;
  while (d.ReadNext(name, &info)) {
    const std::string n = name;
    if (n != "five" && n != "sub" && n != ".") continue;
    ++seen;
    EXPECT_EQ(info.isDirectory, n != "five") << n;
    EXPECT_TRUE(n != "five" || (info.size == 5 && info.modifyTime > 0 && info.createTime > 0));
  }
  EXPECT_EQ(seen, 3);
}

TEST_F(QDirTest, OverlongPathRefusesInformationButNamesTheEntry) {
  std::string longDir = dir_;
  while (longDir.size() < 1019) longDir += "/.";
  if (longDir.size() == 1019) longDir += "/";  // 1020: ".." just fits, longer names do not
  MakeFile("abcdefgh", "");
  QDirectory d(longDir.c_str());
  ASSERT_TRUE(d.IsOpen());
  char name[QDirectory::NAME_SIZE];
  QDirEntryInfo info;
  EXPECT_TRUE(d.ReadNext(name, &info) && d.ReadNext(name, &info));  // "." and ".." still fit
  log_.Clear();
  EXPECT_FALSE(d.ReadNext(name, &info));
  EXPECT_STREQ(name, "abcdefgh");
  EXPECT_EQ(log_.Lines().size(), 1u);
  EXPECT_TRUE(log_.Seen("Buffer overflow; dirName (" + std::to_string(longDir.size()) +
                        ") or name (8) too large."));
}

TEST_F(QDirTest, MissingDirectoryIsNotOpenItsWatchAndEnteringItFailNamingIt) {
  QDirectory d((dir_ + "/absent").c_str());
  EXPECT_FALSE(d.IsOpen());
  char name[QDirectory::NAME_SIZE] = "x";
  EXPECT_FALSE(d.ReadNext(name));
  EXPECT_STREQ(name, "");
  EXPECT_TRUE(d.Open(dir_.c_str()));
  QDirWatch w;
  EXPECT_FALSE(w.Open((dir_ + "/absent").c_str()));
  EXPECT_FALSE(w.IsOpen());
  ASSERT_EQ(log_.Lines().size(), 1u);
  EXPECT_NE(log_.Lines()[0].find("absent"), std::string::npos) << log_.Lines()[0];
  EXPECT_EQ(w.TakeChanges(nullptr, nullptr), 0);

  log_.Clear();
  qstring before;
  ASSERT_TRUE(QGetCurrentDirectory(&before));
  char* real = realpath(dir_.c_str(), nullptr);
  ASSERT_TRUE(QSetCurrentDirectory(dir_.c_str()));
  qstring now;
  ASSERT_TRUE(QGetCurrentDirectory(&now));
  EXPECT_STREQ(now.cstr(), real);
  free(real);
  EXPECT_FALSE(QSetCurrentDirectory("absent-directory"));
  ASSERT_EQ(log_.Lines().size(), 1u);
  EXPECT_NE(log_.Lines()[0].find("'absent-directory'"), std::string::npos);
  ASSERT_TRUE(QSetCurrentDirectory(before.cstr()));
}

using Names = std::vector<std::string>;

bool Jpg(const char* n) { return strlen(n) > 4 && strcmp(n + strlen(n) - 4, ".jpg") == 0; }

TEST_F(QDirTest, WatchSeesFilesJoinWhenClosedAndLeaveAndWakesTheLoop) {
  MakeFile("old.jpg", "x");
  QDirWatch w;
  ASSERT_TRUE(w.Open(dir_.c_str(), Jpg));
  Names changed, writing;
  EXPECT_EQ(w.TakeChanges(&changed, &writing), 0);
  QEventWait(0);  // forget an earlier wake

  // Written in two pieces: being written from the first byte until the close.
  FILE* f = fopen(Tmp("slow.jpg").c_str(), "wb");
  ASSERT_NE(f, nullptr);
  ASSERT_EQ(fwrite("half", 1, 4, f), 4u);
  fflush(f);
  const auto start = std::chrono::steady_clock::now();
  QEventWait(10000);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5)) << "no wake";
  EXPECT_EQ(w.TakeChanges(&changed, &writing), 1);
  EXPECT_EQ(changed, Names{"slow.jpg"});
  EXPECT_EQ(writing, Names{"slow.jpg"});
  ASSERT_EQ(fwrite("rest", 1, 4, f), 4u);
  fflush(f);
  EXPECT_EQ(w.TakeChanges(&changed, &writing), 0) << "a further write changes nothing";
  EXPECT_EQ(writing, Names{"slow.jpg"});
  fclose(f);
  EXPECT_EQ(w.TakeChanges(&changed, &writing), 1);
  EXPECT_EQ(changed, Names{"slow.jpg"});
  EXPECT_TRUE(writing.empty());

  // Renamed in whole, removed, renamed away; filtered names and directories do not count.
  MakeFile("new.part", "x");
  ASSERT_EQ(rename(Tmp("new.part").c_str(), Tmp("new.jpg").c_str()), 0);
  ASSERT_EQ(unlink(Tmp("old.jpg").c_str()), 0);
  MakeFile("notes.txt", "x");
  ASSERT_EQ(mkdir(Tmp("dir.jpg").c_str(), 0755), 0);
  ASSERT_EQ(rename(Tmp("slow.jpg").c_str(), Tmp("slow.bak").c_str()), 0);
  EXPECT_EQ(w.TakeChanges(&changed, &writing), 3);
  EXPECT_EQ(changed, (Names{"new.jpg", "old.jpg", "slow.jpg"}));
  EXPECT_TRUE(writing.empty());

  // Nothing happening: the loop sleeps its full time.
  QEventWait(0);
  const auto idle = std::chrono::steady_clock::now();
  QEventWait(300);
  EXPECT_GE(std::chrono::steady_clock::now() - idle, std::chrono::milliseconds(250));
}

TEST_F(QDirTest, WatchHandsChangesOutAtMostOncePerGapAndWakesWhenItIsOver) {
  QDirWatch w;
  ASSERT_TRUE(w.Open(dir_.c_str(), nullptr, 400));
  const auto start = std::chrono::steady_clock::now();
  MakeFile("a", "x");
  EXPECT_EQ(w.TakeChanges(nullptr, nullptr), 1) << "the first change comes at once";
  QEventWait(0);
  MakeFile("b", "x");
  Names changed;
  EXPECT_EQ(w.TakeChanges(&changed, nullptr), 0);
  QEventWait(5000);
  const auto woke = std::chrono::steady_clock::now() - start;
  EXPECT_GE(woke, std::chrono::milliseconds(400));
  EXPECT_LT(woke, std::chrono::seconds(4));
  EXPECT_EQ(w.TakeChanges(&changed, nullptr), 1);
  EXPECT_EQ(changed, Names{"b"});
}

// Takes changes for at most 3 s until some came and none is being written; the takes' count.
int TakeSettled(QDirWatch* w, Names* changed, Names* writing) {
  Names all;
  int count = 0;
  for (int i = 0; i < 30; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    count += w->TakeChanges(changed, writing);
    all.insert(all.end(), changed->begin(), changed->end());
    if (writing->empty() && count > 0) break;
  }
  std::sort(all.begin(), all.end());
  all.erase(std::unique(all.begin(), all.end()), all.end());
  *changed = all;
  return count;
}

TEST_F(QDirTest, LinksArriveCompleteAndAReplacedDirectoryIsFollowedByItsName) {
  const std::string s = Tmp("S");
  ASSERT_EQ(mkdir(s.c_str(), 0755), 0);
  ASSERT_EQ(mkdir(Tmp("folder").c_str(), 0755), 0);
  MakeFile("S/timed", "x");
  QDirWatch w;
  ASSERT_TRUE(w.Open(s.c_str()));
  // Nobody writes any of these: links of every kind, a file made for reading only, a new time.
  const timespec times[2] = {{0, UTIME_OMIT}, {12345, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, (s + "/timed").c_str(), times, 0), 0);
  const std::string target = MakeFile("target", "x");
  MakeFile("gone", "y");
  ASSERT_EQ(symlink(target.c_str(), (s + "/sym").c_str()), 0);
  ASSERT_EQ(symlink("/nowhere", (s + "/dangling").c_str()), 0);
  ASSERT_EQ(symlink(Tmp("folder").c_str(), (s + "/folder").c_str()), 0);
  ASSERT_EQ(link(target.c_str(), (s + "/hard").c_str()), 0);
  // A hard link whose other name goes at once looks like a new file of one name.
  ASSERT_EQ(link(Tmp("gone").c_str(), (s + "/moved").c_str()), 0);
  ASSERT_EQ(unlink(Tmp("gone").c_str()), 0);
  const int fd = open((s + "/read").c_str(), O_RDONLY | O_CREAT, 0644);
  ASSERT_GE(fd, 0);
  close(fd);
  Names changed, writing;
  TakeSettled(&w, &changed, &writing);
  EXPECT_EQ(changed, (Names{"dangling", "folder", "hard", "moved", "read", "sym", "timed"}));
  EXPECT_TRUE(writing.empty());

  // Worked in, moved away and another put in its place: said once, entered again, followed.
  qstring before;
  ASSERT_TRUE(QGetCurrentDirectory(&before));
  ASSERT_TRUE(QSetCurrentDirectory(s.c_str()));
  EXPECT_FALSE(QReenterDirectory(s.c_str())) << "still there";
  ASSERT_EQ(mkdir(Tmp("S.new").c_str(), 0755), 0);
  ASSERT_EQ(rename(s.c_str(), Tmp("S.old").c_str()), 0);
  ASSERT_EQ(rename(Tmp("S.new").c_str(), s.c_str()), 0);
  ASSERT_EQ(system(("rm -rf " + Tmp("S.old")).c_str()), 0);
  // Nothing of the old one's removal: only that the directory has to be listed again.
  EXPECT_GE(TakeSettled(&w, &changed, &writing), 1);
  EXPECT_TRUE(changed.empty());
  EXPECT_TRUE(QReenterDirectory(s.c_str()));
  EXPECT_FALSE(QReenterDirectory(s.c_str()));
  MakeFile("S/new", "x");
  TakeSettled(&w, &changed, &writing);
  EXPECT_EQ(changed, Names{"new"});
  ASSERT_TRUE(QSetCurrentDirectory(before.cstr()));
  EXPECT_EQ(log_.Count("deleted or moved away"), 1);
}

TEST_F(QDirTest, TreeFollowsEachFolderOnceNewAndMovedOnesTooByRelativeNames) {
  const std::string t = Tmp("T");
  ASSERT_EQ(system(("mkdir -p " + t + "/2019/Trip/Oslo " + t + "/.cache " + Tmp("In/d")).c_str()), 0);
  ASSERT_EQ(symlink("../..", (t + "/2019/Trip/up").c_str()), 0);  // a loop back to the top
  MakeFile("In/c.jpg", "x");
  MakeFile("In/d/e.jpg", "x");
  MakeFile("In/d/e.txt", "x");
  QDirWatch w;
  ASSERT_TRUE(w.Open(t.c_str(), Jpg, 0, true));
  EXPECT_TRUE(w.Complete());
  MakeFile("T/2019/Trip/Oslo/a.jpg", "x");
  MakeFile("T/2019/Trip/t.jpg", "x");
  MakeFile("T/.cache/hidden.jpg", "x");
  ASSERT_EQ(mkdir((t + "/2020").c_str(), 0755), 0);
  MakeFile("T/2020/b.jpg", "x");
  ASSERT_EQ(rename(Tmp("In").c_str(), (t + "/In").c_str()), 0);
  Names changed, writing;
  TakeSettled(&w, &changed, &writing);
  EXPECT_EQ(changed, (Names{"2019/Trip/Oslo/a.jpg", "2019/Trip/t.jpg", "2020", "2020/b.jpg", "In",
                            "In/c.jpg", "In/d", "In/d/e.jpg"}));

  // Renamed within the tree, moved out of it: followed by the new name only, then not at all.
  ASSERT_EQ(rename((t + "/2020").c_str(), (t + "/2021").c_str()), 0);
  ASSERT_EQ(rename((t + "/In").c_str(), Tmp("Out").c_str()), 0);
  TakeSettled(&w, &changed, &writing);
  EXPECT_EQ(changed, (Names{"2020", "2021", "2021/b.jpg", "In"}));
  MakeFile("Out/d/g.jpg", "x");
  MakeFile("T/2021/f.jpg", "x");
  TakeSettled(&w, &changed, &writing);
  EXPECT_EQ(changed, Names{"2021/f.jpg"});
}

TEST_F(QDirTest, TreeBeyondTheWatchLimitSaysSoOnceAndKeepsWhatItFollows) {
  const char* folders[] = {"a", "b", "c", "d", "e", "f", "g", "h"};
  for (const char* f : folders) ASSERT_EQ(mkdir(Tmp(f).c_str(), 0755), 0);
  const std::string uid = std::to_string(geteuid()), gid = std::to_string(getegid());
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // The limit is the user namespace's own: lowered in a new one, it holds for this child alone.
    std::string said;
    if (unshare(CLONE_NEWUSER) != 0) {
      said = (errno == EPERM ? "skip unshare: " : "failed unshare: ") + std::string(strerror(errno));
    } else if (!WriteFile("/proc/self/setgroups", "deny") ||
               !WriteFile("/proc/self/uid_map", "0 " + uid + " 1") ||
               !WriteFile("/proc/self/gid_map", "0 " + gid + " 1") ||
               !WriteFile("/proc/sys/user/max_inotify_watches", "4")) {  // the top, its parent, 2
      said = "skip no lower watch limit here: " + std::string(strerror(errno));
    } else {
      QDirWatch w;
      const bool open = w.Open(dir_.c_str(), nullptr, 0, true);
      // Opened, not complete, warned once.
      said = std::to_string(open) + std::to_string(w.Complete()) +
             std::to_string(log_.Count("/proc/sys/fs/inotify/max_user_watches")) + "\n";
      MakeFile("top", "x");
      for (const char* f : folders) MakeFile(std::string(f) + "/new", "x");
      Names changed, writing;
      TakeSettled(&w, &changed, &writing);
      for (const std::string& n : changed) said += n + "\n";
    }
    _exit(WriteFile(Tmp("said"), said) ? 0 : 1);  // once the watch has answered
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  const std::string text = ReadFile(Tmp("said"));
  if (text.compare(0, 5, "skip ") == 0) GTEST_SKIP() << text;
  // Then the top's file and one in each of the 2 folders followed.
  EXPECT_EQ(text.compare(0, 4, "101\n"), 0) << text;
  EXPECT_NE(text.find("\ntop\n"), std::string::npos) << text;
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 4) << text;
}

}  // namespace
