// QArchive: the chunk codec, the file format, editing, hostile archives, many members.
// Scrambled and cut archives, and packing arbitrary bytes, are the fuzz targets'.
#include "framework/qarchive.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "framework/qfile.h"
#include "support/logcapture.h"
#include "support/tempdir.h"

namespace {

using Bytes = std::vector<uint8_t>;
namespace fs = std::filesystem;

Bytes RandomBytes(size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  Bytes b(n);
  for (auto& c : b) c = static_cast<uint8_t>(rng());
  return b;
}

// Words picked at random: repeats at many distances, as in real text.
Bytes TextLike(size_t n) {
  static const std::string words[] = {"archive ", "chunk ", "slide ", "the ", "picture\n"};
  std::mt19937 rng(7);
  Bytes b;
  while (b.size() < n) {
    const std::string& w = words[rng() % 5];
    b.insert(b.end(), w.begin(), w.end());
  }
  b.resize(n);
  return b;
}

Bytes Pack(const Bytes& in) {
  Bytes out(QArchive::CHUNK_MAX);
  uint16_t table[QArchive::MATCH_TABLE];
  const int n = QArchive::CompressChunk(in.data(), static_cast<int>(in.size()), out.data(),
                                        static_cast<int>(out.size()), table);
  out.resize(n > 0 ? n : 0);
  return out;
}

int Unpack(const Bytes& chunk, uint8_t* out, int cap) {
  return QArchive::DecompressChunk(chunk.data(), static_cast<int>(chunk.size()), out, cap);
}

void Le32(Bytes* b, uint32_t v) {
  for (int i = 0; i < 4; ++i) b->push_back(static_cast<uint8_t>(v >> (8 * i)));
}

// "AR01", one member block, the directory entry "m" with the given size, the directory offset.
Bytes OneMemberArchive(const Bytes& block, uint32_t size) {
  Bytes file = {'A', 'R', '0', '1'};
  file.insert(file.end(), block.begin(), block.end());
  const uint32_t dir = static_cast<uint32_t>(file.size());
  file.insert(file.end(), {'m', 0});
  Le32(&file, 4);
  Le32(&file, size);
  Le32(&file, dir);
  return file;
}

// "D", one chunk with its size, the end mark.
Bytes Block(const Bytes& chunk) {
  Bytes b = {'D', static_cast<uint8_t>(chunk.size() & 255), static_cast<uint8_t>(chunk.size() >> 8)};
  b.insert(b.end(), chunk.begin(), chunk.end());
  b.insert(b.end(), {0, 0});
  return b;
}

Bytes MemberBytes(QArchive* ar, const char* name) {
  QFile* f = ar->OpenFile(name);
  if (!f) return {};
  Bytes b(static_cast<size_t>(f->Size()));
  f->Read(b.data(), static_cast<int>(b.size()));
  delete f;
  return b;
}

TEST(QArchiveCodec, RoundTripsEveryKindAndBoundarySizeEqualBytesBecomeRunsNoiseIsStored) {
  for (size_t n : {0, 1, 2, 3, 15, 16, 17, 18, 19, 4095, 4096, 4097, 16383, 16384}) {
    for (const Bytes& in : {Bytes(n, 0), RandomBytes(n, static_cast<unsigned>(n)), TextLike(n)}) {
      const Bytes chunk = Pack(in);
      ASSERT_TRUE(chunk.size() >= 1 && chunk.size() <= n + 1) << n;
      Bytes out(QArchive::CHUNK_MAX);
      ASSERT_EQ(Unpack(chunk, out.data(), QArchive::CHUNK_MAX), static_cast<int>(n));
      EXPECT_TRUE(std::equal(in.begin(), in.end(), out.begin())) << "size " << n;
    }
  }

  const Bytes runs = Pack(Bytes(16384, 'x'));
  EXPECT_EQ(runs[0], QArchive::CHUNK_PACKED);
  EXPECT_LE(runs.size(), 24u);  // four runs of 4095, the rest, control words

  const Bytes noise = RandomBytes(16384, 1);
  const Bytes stored = Pack(noise);
  ASSERT_EQ(stored.size(), noise.size() + 1);
  EXPECT_EQ(stored[0], QArchive::CHUNK_STORED);
  EXPECT_TRUE(std::equal(noise.begin(), noise.end(), stored.begin() + 1));
}

TEST(QArchiveCodec, MalformedChunksAreRejectedAndOutputPastCapacityIsCountedNotWritten) {
  for (const Bytes& chunk : std::vector<Bytes>{
           {},                                 // nothing
           {7, 1, 2},                          // unknown kind
           {64, 0x80},                         // control word cut
           {64, 0x80, 0x00, 0x00, 0x10},       // match of offset 1 with no output yet
           {64, 0x40, 0x00, 'a', 0x00, 0x20},  // offset 2 after one byte
           {64, 0x80, 0x00, 0x01},             // match cut
           {64, 0x80, 0x00, 0x00, 0x05, 9}}) { // run cut
    uint8_t out[32];
    const char* why = nullptr;
    EXPECT_EQ(QArchive::DecompressChunk(chunk.data(), static_cast<int>(chunk.size()), out,
                                        sizeof(out), &why), -1);
    EXPECT_NE(why, nullptr);
  }

  // A literal, an overlapping match of 18, and a run of 4111.
  const Bytes chunk = {64, 0x60, 0x00, 'a', 0x00, 0x1F, 0x00, 0x0F, 0xFF, 'z'};
  Bytes out(64, 0xEE);
  EXPECT_EQ(Unpack(chunk, out.data(), 5), 1 + 18 + 4111);
  EXPECT_EQ(Bytes(out.begin(), out.begin() + 5), Bytes(5, 'a'));
  EXPECT_EQ(Bytes(out.begin() + 5, out.end()), Bytes(59, 0xEE));
  EXPECT_EQ(Unpack(chunk, nullptr, 0), 1 + 18 + 4111);
}

struct QArchiveFileTest : TempDirTest {
  std::string Source(const std::string& name, const Bytes& data) const {
    return WriteFile(Tmp(name), data) ? Tmp(name) : "";
  }
  LogCapture log_;
};

TEST_F(QArchiveFileTest, CaseAndRemoval) {
  const std::string path = Tmp("case.ar");
  {
    QArchive ar(path.c_str(), QArchive::CREATE);
    ASSERT_TRUE(ar.AddFile(Source("first", {'1'}).c_str(), "Pic.tga"));
    ASSERT_TRUE(ar.AddFile(Source("second", {'2'}).c_str(), "pic.TGA"));
    // Find is exact; opening ignores case and takes the first in directory order.
    EXPECT_TRUE(ar.FindFile("Pic.tga") && ar.FindFile("pic.TGA"));
    EXPECT_FALSE(ar.FindFile("pic.tga"));
    EXPECT_EQ(MemberBytes(&ar, "pic.TGA"), Bytes{'1'});
    EXPECT_EQ(MemberBytes(&ar, "PIC.TGA"), Bytes{'1'});
  }
  const auto before = fs::file_size(path);
  {
    QArchive ar(path.c_str(), QArchive::UPDATE);
    ASSERT_TRUE(ar.RemoveFile("Pic.tga"));
    EXPECT_FALSE(ar.RemoveFile("Pic.tga"));
  }
  EXPECT_EQ(fs::file_size(path), before);
  QArchive ar(path.c_str(), QArchive::UPDATE);
  EXPECT_FALSE(ar.FindFile("Pic.tga"));
  EXPECT_EQ(MemberBytes(&ar, "PIC.TGA"), Bytes{'2'});
  // A member added after a removal is written over the directory; older members stay readable.
  ASSERT_TRUE(ar.AddFile(Source("third", TextLike(20000)).c_str(), "third"));
  EXPECT_EQ(MemberBytes(&ar, "third"), TextLike(20000));
  EXPECT_EQ(MemberBytes(&ar, "pic.tga"), Bytes{'2'});
}

TEST_F(QArchiveFileTest, NewArchiveIsMagicAndDirectoryOffsetAndRefusalsLeaveItWhole) {
  QArchive missing(Tmp("none.ar").c_str(), QArchive::READ);
  EXPECT_FALSE(missing.IsOpen());
  EXPECT_TRUE(log_.Seen("QArchive: can't open '"));
  const std::string plain = Source("plain.txt", TextLike(100));
  EXPECT_FALSE(QArchive(plain.c_str(), QArchive::READ).IsOpen());

  const std::string path = Tmp("r.ar");
  { QArchive create(path.c_str(), QArchive::CREATE); }
  EXPECT_EQ(ReadBytes(path), (Bytes{'A', 'R', '0', '1', 4, 0, 0, 0}));
  QArchive readOnly(path.c_str(), QArchive::READ);
  EXPECT_TRUE(readOnly.IsOpen() && readOnly.IsArchive());
  EXPECT_FALSE(readOnly.FirstEntry(nullptr, nullptr, nullptr));
  EXPECT_FALSE(readOnly.AddFile(plain.c_str(), "x") || readOnly.RemoveFile("x"));
  QArchive ar(path.c_str(), QArchive::UPDATE);
  EXPECT_FALSE(ar.AddFile(Tmp("nowhere").c_str(), "x"));
  EXPECT_TRUE(log_.Seen("** ERROR: '"));
  EXPECT_FALSE(ar.DecompressFile("x", nullptr));
  EXPECT_EQ(fs::file_size(path), 8u);
}

TEST_F(QArchiveFileTest, DamagedDirectoriesLeaveTheArchiveClosedAndDamagedMembersAreRefused) {
  const Bytes good = OneMemberArchive(Block({QArchive::CHUNK_STORED, 'x'}), 1);
  Bytes lying = good, low = good;
  lying[lying.size() - 4] = 0xF0;
  std::fill(low.end() - 4, low.end(), 0);
  Bytes noTerm = {'A', 'R', '0', '1', 'a', 'b', 'c'}, cut = {'A', 'R', '0', '1', 'a', 0, 4, 0, 0};
  Le32(&noTerm, 4);
  Le32(&cut, 4);
  const std::vector<std::pair<Bytes, const char*>> directories = {
      {lying, "directory offset '240'"},
      {low, "directory offset '0'"},
      {noTerm, "has no terminator"},
      {cut, "is cut short"},
      {{'A', 'R', '0', '1', 4}, "out of range for an archive"}};
  for (const auto& [file, message] : directories) {
    log_.Clear();
    WriteFile(Tmp("bad.ar"), file);
    EXPECT_FALSE(QArchive(Tmp("bad.ar").c_str(), QArchive::READ).IsOpen()) << message;
    EXPECT_TRUE(log_.Seen(message)) << message;
  }

  Bytes runs = {64, 0xF8, 0x00};  // five runs of 4111: past the chunk limit
  for (int i = 0; i < 5; ++i) runs.insert(runs.end(), {0, 0x0F, 0xFF, 'r'});
  Bytes huge = {'D', 0x21, 0x4E};  // 20001
  huge.resize(huge.size() + 20001, 0);
  const Bytes foreign = {'X', 2, 0, 0, 0, 'a', 'b', 'D', 2, 0, 128, 'h', 0, 0};
  const std::vector<std::tuple<Bytes, uint32_t, const char*>> members = {
      {huge, 5, "QArchive: attempt to read decompress chunk of size 20001 (max 20000)"},
      {Block(runs), 30000, "QArchive: decompressed chunk overflow of size 20555 (max 20000)"},
      {Block({128, 1, 2, 3}), 2, "unpacks past its size"},
      {Block({128, 1, 2, 3}), 4, "unpacks to '3' bytes"},
      {{}, 1, "outside 4.."},
      {Block({64, 0x80, 0, 0, 0x10}), 3, "damaged chunk"},
      {{'D', 2, 0, 128, 'a'}, 1, "without its end mark"},
      {{'Z', 0xFF, 0xFF, 0, 0, 'D'}, 1, "foreign block"},
      {Block({128, 1}), 0x7FFFFFFF, "more than its block can hold"},
      {foreign, 1, nullptr}};  // a foreign block before the data is skipped
  for (const auto& [block, size, message] : members) {
    log_.Clear();
    WriteFile(Tmp("bad.ar"), OneMemberArchive(block, size));
    QArchive ar(Tmp("bad.ar").c_str(), QArchive::READ);
    ASSERT_TRUE(ar.IsOpen());
    if (!message) {
      EXPECT_EQ(MemberBytes(&ar, "m"), (Bytes{'h'}));
      continue;
    }
    EXPECT_EQ(ar.OpenFile("m"), nullptr) << message;
    EXPECT_TRUE(log_.Seen(message)) << message;
  }
}

TEST_F(QArchiveFileTest, ManyMembersOfMixedSizesRoundTripAndList) {
  // The directory grows well past one block; sizes cross the chunk size; member 0 is empty.
  const std::string path = Tmp("many.ar");
  std::vector<Bytes> data;
  {
    QArchive ar(path.c_str(), QArchive::CREATE);
    for (unsigned i = 0; i < 300; ++i) {
      const size_t n = i == 1 ? 100000 : (i * 7919u) % 40000u;
      data.push_back(i % 2 ? TextLike(n) : RandomBytes(n, i));
      const std::string name = "dir/member" + std::to_string(i);
      ASSERT_TRUE(ar.AddFile(Source("copy", data.back()).c_str(), name.c_str())) << name;
    }
  }
  QArchive ar(path.c_str(), QArchive::READ);
  for (unsigned i = 0; i < data.size(); ++i)
    ASSERT_EQ(MemberBytes(&ar, ("dir/member" + std::to_string(i)).c_str()), data[i]) << i;
  qstring name;
  int offset = 0, size = 0, count = 2;
  ASSERT_TRUE(ar.FirstEntry(&name, &offset, &size));
  EXPECT_TRUE(name == "dir/member0" && offset == 4 && size == 0);
  ASSERT_TRUE(ar.NextEntry(&name, &offset, &size));
  EXPECT_TRUE(name == "dir/member1" && size == 100000);
  while (ar.NextEntry(&name, &offset, &size)) ++count;
  EXPECT_EQ(count, 300);
  EXPECT_EQ(ar.OpenFile("dir/member0"), nullptr);
  ASSERT_TRUE(ar.DecompressFile("dir/member0", Tmp("out").c_str()));
  EXPECT_TRUE(ReadBytes(Tmp("out")).empty());
  ASSERT_TRUE(ar.DecompressFile("dir/member10", Tmp("out").c_str()));  // noise of three chunks
  EXPECT_EQ(ReadBytes(Tmp("out")), data[10]);
}

}  // namespace
