// QFile: memory end-of-data rule, seeking, preloading, the line readers and existence.
#include "framework/qfile.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "framework/qmem.h"
#include "support/logcapture.h"
#include "support/tempdir.h"

namespace {

struct QFileTest : TempDirTest {
  // A block of exactly `text`'s size from the counted allocator, so an overread is caught.
  static void* Block(const std::string& text) {
    void* p = qmalloc(text.size());
    memcpy(p, text.data(), text.size());
    return p;
  }
  LogCapture log_;
};

TEST_F(QFileTest, MemoryFileYieldsBytesThenEndValueTwiceAndReadsNeverLeaveTheBlock) {
  QFile f(Block("xyz"), 3, QFile::READ, true);
  std::vector<int> got;
  for (int i = 0; i < 3; ++i) got.push_back(f.GetChar());
  EXPECT_FALSE(f.IsEOF());
  for (int i = 0; i < 2; ++i) got.push_back(f.GetChar());
  EXPECT_EQ(got, (std::vector<int>{'x', 'y', 'z', 255, 255}));
  EXPECT_TRUE(f.IsEOF());
  EXPECT_EQ(f.Tell(), 4);
  f.UnGetChar('q');
  EXPECT_FALSE(f.IsEOF());
  EXPECT_EQ(f.GetChar(), 'q');
  EXPECT_TRUE(f.IsEOF());

  // Reading past the end copies one byte more, but never from outside the block.
  QFile r(Block("abcde"), 5, QFile::READ, true);
  char buf[16];
  memset(buf, '#', sizeof(buf));
  EXPECT_EQ(r.Read(buf, 3), 3);
  EXPECT_FALSE(r.IsEOF());
  EXPECT_EQ(r.Read(buf, 10), 3);  // two remain, one more is counted
  EXPECT_EQ(std::string(buf, 4), "de\xFF#");
  EXPECT_TRUE(r.IsEOF());
  EXPECT_EQ(r.Read(buf, 10), 0);

  QFile whole(Block("ab"), 2, QFile::READ, true);
  whole.SetUnclampedReads(true);
  memset(buf, '#', sizeof(buf));
  EXPECT_EQ(whole.Read(buf, 5), 5);
  EXPECT_EQ(std::string(buf, 5), "ab\xFF\xFF\xFF");
  EXPECT_TRUE(whole.IsEOF());

  // An owned block is released, a borrowed one is not.
  const int before = qmemGetCount();
  { QFile f(Block("abc"), 3, QFile::READ, true); }
  EXPECT_EQ(qmemGetCount(), before);
  void* mine = Block("abc");
  { QFile f(mine, 3, QFile::READ); }
  EXPECT_EQ(qmemGetCount(), before + 1);
  qfree(mine);
}

TEST_F(QFileTest, SeekFromEndDiffersBetweenStreamAndMemoryWhichIsPreloadedUnlessEmptyOrTakenOver) {
  const std::string path = MakeFile("ten", "0123456789");
  const int before = qfGetOpenCount();
  QFile stream(path.c_str(), QFile::READ);
  ASSERT_TRUE(stream.IsOpen());
  EXPECT_TRUE(stream.Seek(-2, QFile::FROM_END));
  EXPECT_EQ(stream.Tell(), 8);
  EXPECT_TRUE(stream.Seek(2, QFile::FROM_END));
  EXPECT_EQ(stream.Tell(), 12);

  // In memory the distance from the end counts backwards and every seek is held to the data.
  QFile mem(path.c_str(), QFile::READ | QFile::MEMORY);
  ASSERT_TRUE(mem.IsMemoryFile());
  const int seeks[][3] = {{2, QFile::FROM_END, 8},   {50, QFile::FROM_END, 0},
                          {50, QFile::FROM_START, 10}, {3, QFile::FROM_START, 3},
                          {4, QFile::FROM_CURRENT, 7}, {40, QFile::FROM_CURRENT, 10}};
  for (const auto& s : seeks) {
    EXPECT_TRUE(mem.Seek(s[0], s[1]));
    EXPECT_EQ(mem.Tell(), s[2]) << s[0] << " from " << s[1];
  }
  EXPECT_TRUE(mem.Seek(2, QFile::FROM_END));
  EXPECT_EQ(mem.GetChar(), '8');
  EXPECT_FALSE(mem.Seek(0, 3));
  EXPECT_FALSE(stream.Seek(0, -1));
  EXPECT_EQ(mem.Size(), 10);
  EXPECT_EQ(qfGetOpenCount(), before + 1);  // the memory file's stream is closed once read
  EXPECT_TRUE(log_.Lines().empty());
  // An empty file, and a taken-over stream, stay streams.
  std::string empty = MakeFile("empty", "");
  {
    QFile f(empty.c_str(), QFile::READ | QFile::MEMORY);
    EXPECT_TRUE(f.IsOpen());
    EXPECT_FALSE(f.IsMemoryFile());
  }
  {
    FILE* fp = qfopen(path.c_str(), "rb");
    int open = qfGetOpenCount();
    QFile f(fp, QFile::READ | QFile::MEMORY);
    EXPECT_FALSE(f.IsMemoryFile());
    EXPECT_EQ(f.GetChar(), '0');
    EXPECT_TRUE(log_.Seen("QFile: can't use memory mapping with 'fp' takeover"));
    EXPECT_EQ(qfGetOpenCount(), open);  // qfopen counted it; taking it over does not again
  }
  EXPECT_EQ(qfGetOpenCount(), before + 1);
}

TEST_F(QFileTest, UnopenedFilesReadNothingCloseCountsStayAndOnlyFilesExist) {
  int open = qfGetOpenCount();
  QFile missing((dir_ + "/none").c_str(), QFile::READ);
  QFile badMode(MakeFile("x", "x").c_str(), 10);
  for (QFile* f : {&missing, &badMode}) {
    EXPECT_FALSE(f->IsOpen());
    char buf[4];
    EXPECT_EQ(f->Read(buf, 4), 0);
    EXPECT_EQ(f->GetChar(), 0);
    EXPECT_TRUE(f->IsEOF());
    EXPECT_EQ(f->ReadLine(buf, 4), 0);
    EXPECT_FALSE(f->Write("a", 1));
  }
  EXPECT_EQ(qfGetOpenCount(), open);
  EXPECT_EQ(qfclose(nullptr), EOF);
  EXPECT_TRUE(log_.Seen("qfclose(0) called"));
  // Existence is for files, not directories.
  EXPECT_TRUE(QFileExists(MakeFile("here", "x").c_str()));
  for (const std::string& no : {dir_, Tmp("absent"), std::string()}) EXPECT_FALSE(QFileExists(no.c_str()));
}

TEST_F(QFileTest, LinesDropCarriageReturnsAndKeepAnUnterminatedLastLine) {
  std::string text = "abc\r\n\nde\nlast";
  std::string path = MakeFile("lines", text);
  for (int mode : {int(QFile::READ), QFile::READ | QFile::MEMORY}) {
    QFile f(path.c_str(), mode);
    qstring line;
    std::vector<std::string> got;
    while (!f.IsEOF()) {
      f.ReadLine(&line);
      got.emplace_back(line.cstr());
    }
    EXPECT_EQ(got, (std::vector<std::string>{"abc", "", "de", "last"})) << mode;
  }
  QFile f(Block("abcdef\n"), 7, QFile::READ, true);
  char buf[4];
  EXPECT_EQ(f.ReadLine(buf, 4), 3);
  EXPECT_STREQ(buf, "abc");
  EXPECT_EQ(f.ReadLine(buf, 4), 3);
  EXPECT_STREQ(buf, "def");

  // Sixteen-bit lines are little-endian.
  QFile uc(Block(std::string("h\0\x01\x04\r\0\n\0z\0", 10)), 10, QFile::READ, true);
  uint16_t line[8];
  EXPECT_EQ(uc.ReadLineUC(line, 8), 2);
  EXPECT_TRUE(line[0] == 'h' && line[1] == 0x0401);
  uc.SetUnicodeLines(true);
  qstring rest;
  uc.ReadLine(&rest);
  EXPECT_STREQ(rest.cstr(), "z");
}

}  // namespace
