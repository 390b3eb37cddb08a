// QArchive: the chunk codec, the file format, editing, hostile archives and real-data round trips.
#include "framework/qarchive.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "framework/qfile.h"
#include "framework/qmessage.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Collects everything logged while it lives.
class LogCapture {
 public:
  LogCapture() {
    text().clear();
    err_ = qSetErrHandler(Collect);
    warn_ = qSetWarnHandler(Collect);
    msg_ = qSetMessageHandler(Collect);
    dbg_ = qSetDbgHandler(Collect);
  }
  ~LogCapture() {
    qSetErrHandler(err_);
    qSetWarnHandler(warn_);
    qSetMessageHandler(msg_);
    qSetDbgHandler(dbg_);
  }
  static std::string& text() {
    static std::string t;
    return t;
  }
  bool Has(const char* s) const { return text().find(s) != std::string::npos; }

 private:
  static void Collect(const char*, const char* t) { text() += t; text() += '\n'; }
  QMessageHandler err_, warn_, msg_, dbg_;
};

class TempDir {
 public:
  TempDir() {
    char tmpl[] = "/tmp/qarchive_test_XXXXXX";
    path_ = mkdtemp(tmpl);
  }
  ~TempDir() { std::filesystem::remove_all(path_); }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

void WriteFile(const std::string& path, const Bytes& data) {
  FILE* fp = fopen(path.c_str(), "wb");
  ASSERT_NE(fp, nullptr) << path;
  if (!data.empty()) fwrite(data.data(), 1, data.size(), fp);
  fclose(fp);
}

bool ReadFile(const std::string& path, Bytes* data) {
  FILE* fp = fopen(path.c_str(), "rb");
  if (!fp) return false;
  data->clear();
  uint8_t buf[65536];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), fp)) > 0) data->insert(data->end(), buf, buf + n);
  const bool ok = !ferror(fp);
  fclose(fp);
  return ok;
}

Bytes RandomBytes(size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  Bytes b(n);
  for (auto& c : b) c = static_cast<uint8_t>(rng());
  return b;
}

Bytes TextLike(size_t n) {
  static const char* words[] = {"archive ", "chunk ", "slide ", "the ", "picture\n", "of "};
  Bytes b;
  std::mt19937 rng(7);
  while (b.size() < n) {
    const char* w = words[rng() % 6];
    b.insert(b.end(), w, w + strlen(w));
  }
  b.resize(n);
  return b;
}

Bytes Pack(const Bytes& in) {
  Bytes out(QArchive::CHUNK_MAX);
  uint16_t table[QArchive::MATCH_TABLE];
  const int n = QArchive::CompressChunk(in.data(), static_cast<int>(in.size()), out.data(),
                                        static_cast<int>(out.size()), table);
  EXPECT_GT(n, 0);
  out.resize(n > 0 ? n : 0);
  return out;
}

Bytes Unpack(const Bytes& chunk, int* result) {
  Bytes out(QArchive::CHUNK_MAX);
  *result = QArchive::DecompressChunk(chunk.data(), static_cast<int>(chunk.size()), out.data(),
                                      static_cast<int>(out.size()));
  out.resize(*result > 0 ? std::min(*result, QArchive::CHUNK_MAX) : 0);
  return out;
}

void Le32(Bytes* b, uint32_t v) {
  for (int i = 0; i < 4; ++i) b->push_back(static_cast<uint8_t>(v >> (8 * i)));
}

// "AR01", the given member blocks, then a directory of (name, offset, size) and its offset.
struct Member {
  std::string name;
  Bytes block;
  uint32_t size;
};
Bytes BuildArchive(const std::vector<Member>& members) {
  Bytes file = {'A', 'R', '0', '1'};
  std::vector<uint32_t> offsets;
  for (const Member& m : members) {
    offsets.push_back(static_cast<uint32_t>(file.size()));
    file.insert(file.end(), m.block.begin(), m.block.end());
  }
  const uint32_t dir = static_cast<uint32_t>(file.size());
  for (size_t i = 0; i < members.size(); ++i) {
    file.insert(file.end(), members[i].name.begin(), members[i].name.end());
    file.push_back(0);
    Le32(&file, offsets[i]);
    Le32(&file, members[i].size);
  }
  Le32(&file, dir);
  return file;
}

// A member block: "D", each chunk with its 16-bit size, the end mark.
Bytes Block(const std::vector<Bytes>& chunks) {
  Bytes b = {'D'};
  for (const Bytes& c : chunks) {
    b.push_back(static_cast<uint8_t>(c.size() & 255));
    b.push_back(static_cast<uint8_t>(c.size() >> 8));
    b.insert(b.end(), c.begin(), c.end());
  }
  b.push_back(0);
  b.push_back(0);
  return b;
}

Bytes MemberBytes(QArchive* ar, const char* name) {
  QFile* f = ar->OpenFile(name);
  if (!f) return {};
  Bytes b(static_cast<size_t>(f->Size()));
  if (!b.empty()) f->Read(b.data(), static_cast<int>(b.size()));
  delete f;
  return b;
}

// ---------------------------------------------------------------------------------------------
// The chunk codec
// ---------------------------------------------------------------------------------------------

TEST(QArchiveCodec, RoundTripsEveryKindAndBoundarySize) {
  const size_t sizes[] = {0, 1, 2, 3, 15, 16, 17, 18, 19, 4095, 4096, 4097, 16383, 16384};
  for (size_t n : sizes) {
    const Bytes inputs[] = {Bytes(n, 0), RandomBytes(n, static_cast<unsigned>(n)), TextLike(n)};
    for (const Bytes& in : inputs) {
      const Bytes chunk = Pack(in);
      ASSERT_LE(chunk.size(), n + 1) << n;
      int got = 0;
      EXPECT_EQ(Unpack(chunk, &got), in) << "size " << n;
      EXPECT_EQ(got, static_cast<int>(n));
    }
  }
}

TEST(QArchiveCodec, EqualBytesBecomeRuns) {
  const Bytes chunk = Pack(Bytes(16384, 'x'));
  ASSERT_GE(chunk.size(), 7u);
  EXPECT_EQ(chunk[0], QArchive::CHUNK_PACKED);
  // Four runs of 4095 lead, each marked by a set control bit.
  EXPECT_EQ(chunk[1] & 0xF0, 0xF0);
  const Bytes run = {0, 15, 239, 'x'};
  for (int i = 0; i < 4; ++i)
    EXPECT_TRUE(std::equal(run.begin(), run.end(), chunk.begin() + 3 + 4 * i)) << i;
  EXPECT_LT(chunk.size(), 40u);
}

TEST(QArchiveCodec, IncompressibleDataIsStored) {
  const Bytes in = RandomBytes(16384, 1);
  const Bytes chunk = Pack(in);
  ASSERT_EQ(chunk.size(), in.size() + 1);
  EXPECT_EQ(chunk[0], QArchive::CHUNK_STORED);
  EXPECT_TRUE(std::equal(in.begin(), in.end(), chunk.begin() + 1));
}

TEST(QArchiveCodec, RefusesBadArguments) {
  uint8_t in[16] = {}, out[64];
  uint16_t table[QArchive::MATCH_TABLE];
  EXPECT_EQ(QArchive::CompressChunk(in, 16, out, 23, table), -1);  // needs n + 8
  EXPECT_EQ(QArchive::CompressChunk(in, QArchive::CHUNK_IN + 1, out, 64, table), -1);
}

TEST(QArchiveCodec, MalformedChunksAreRejected) {
  const std::vector<Bytes> bad = {
      {},                              // nothing
      {7, 1, 2},                       // unknown kind
      {64, 0x80},                      // control word cut
      {64, 0x80, 0x00, 0x00, 0x10},    // match of offset 1 with no output yet
      {64, 0x40, 0x00, 'a', 0x00, 0x20},  // offset 2 after one byte
      {64, 0x80, 0x00, 0x01},          // match cut
      {64, 0x80, 0x00, 0x00, 0x05, 9},  // run cut
  };
  for (const Bytes& chunk : bad) {
    uint8_t out[32];
    const char* why = nullptr;
    EXPECT_EQ(QArchive::DecompressChunk(chunk.data(), static_cast<int>(chunk.size()), out,
                                        sizeof(out), &why),
              -1);
    EXPECT_NE(why, nullptr);
  }
}

TEST(QArchiveCodec, OutputPastCapacityIsCountedNotWritten) {
  // A literal, an overlapping match of 18, and a run of 4111.
  const Bytes chunk = {64, 0x60, 0x00, 'a', 0x00, 0x1F, 0x00, 0x0F, 0xFF, 'z'};
  Bytes out(64, 0xEE);
  const int got = QArchive::DecompressChunk(chunk.data(), static_cast<int>(chunk.size()),
                                            out.data(), 5);
  EXPECT_EQ(got, 1 + 18 + 4111);
  EXPECT_EQ(Bytes(out.begin(), out.begin() + 5), Bytes(5, 'a'));
  EXPECT_EQ(Bytes(out.begin() + 5, out.end()), Bytes(59, 0xEE));
  EXPECT_EQ(QArchive::DecompressChunk(chunk.data(), static_cast<int>(chunk.size()), nullptr, 0),
            got);
}

// ---------------------------------------------------------------------------------------------
// Archive files
// ---------------------------------------------------------------------------------------------

class QArchiveFileTest : public ::testing::Test {
 protected:
  std::string Source(const std::string& name, const Bytes& data) {
    const std::string path = dir_ / name;
    WriteFile(path, data);
    return path;
  }
  TempDir dir_;
};

TEST_F(QArchiveFileTest, NewArchiveIsMagicAndDirectoryOffset) {
  const std::string path = dir_ / "new.ar";
  {
    QArchive ar(path.c_str(), QArchive::CREATE);
    ASSERT_TRUE(ar.IsOpen());
    EXPECT_STREQ(ar.ClassName(), "QArchive");
    EXPECT_STREQ(ar.GetName(), path.c_str());
  }
  Bytes file;
  ASSERT_TRUE(ReadFile(path, &file));
  EXPECT_EQ(file, (Bytes{'A', 'R', '0', '1', 4, 0, 0, 0}));
  QArchive ar(path.c_str(), QArchive::READ);
  EXPECT_TRUE(ar.IsOpen());
  EXPECT_TRUE(ar.IsArchive());
  EXPECT_FALSE(ar.FirstEntry(nullptr, nullptr, nullptr));
}

TEST_F(QArchiveFileTest, MembersRoundTripAndListInOrder) {
  const Bytes big = TextLike(100000), random = RandomBytes(40000, 3);
  const std::string path = dir_ / "a.ar";
  {
    QArchive ar(path.c_str(), QArchive::CREATE);
    ASSERT_TRUE(ar.AddFile(Source("big.txt", big).c_str(), "docs/big.txt"));
    ASSERT_TRUE(ar.AddFile(Source("random.bin", random).c_str(), "random.bin"));
    ASSERT_TRUE(ar.AddFile(Source("empty", {}).c_str(), "empty"));
  }
  QArchive ar(path.c_str(), QArchive::READ);
  ASSERT_TRUE(ar.IsOpen());
  qstring name;
  int offset = 0, size = 0;
  ASSERT_TRUE(ar.FirstEntry(&name, &offset, &size));
  EXPECT_STREQ(name.cstr(), "docs/big.txt");
  EXPECT_EQ(offset, 4);
  EXPECT_EQ(size, 100000);
  ASSERT_TRUE(ar.NextEntry(&name, &offset, &size));
  EXPECT_STREQ(name.cstr(), "random.bin");
  ASSERT_TRUE(ar.NextEntry(&name, &offset, &size));
  EXPECT_EQ(size, 0);
  EXPECT_FALSE(ar.NextEntry(&name, &offset, &size));

  EXPECT_EQ(MemberBytes(&ar, "docs/big.txt"), big);
  EXPECT_EQ(MemberBytes(&ar, "random.bin"), random);
  EXPECT_EQ(ar.OpenFile("empty"), nullptr);
  EXPECT_EQ(ar.OpenFile("missing"), nullptr);

  ASSERT_TRUE(ar.FindFile("docs/big.txt", true));
  EXPECT_EQ(ar.GetFileSize(), 100000);
  EXPECT_EQ(ar.GetFileSize(), 100000);  // the stream stays at the block
  Bytes out;
  ASSERT_TRUE(ar.DecompressFile("random.bin", (dir_ / "out.bin").c_str()));
  ASSERT_TRUE(ReadFile(dir_ / "out.bin", &out));
  EXPECT_EQ(out, random);
  EXPECT_TRUE(ar.DecompressFile("empty", (dir_ / "out.empty").c_str()));
  EXPECT_TRUE(ReadFile(dir_ / "out.empty", &out) && out.empty());
}

TEST_F(QArchiveFileTest, FindIsExactWhileOpenIgnoresCase) {
  const std::string path = dir_ / "case.ar";
  QArchive ar(path.c_str(), QArchive::CREATE);
  ASSERT_TRUE(ar.AddFile(Source("first", {'1'}).c_str(), "Pic.tga"));
  ASSERT_TRUE(ar.AddFile(Source("second", {'2'}).c_str(), "pic.TGA"));
  EXPECT_TRUE(ar.FindFile("Pic.tga"));
  EXPECT_TRUE(ar.FindFile("pic.TGA"));
  EXPECT_FALSE(ar.FindFile("pic.tga"));
  EXPECT_EQ(MemberBytes(&ar, "pic.TGA"), Bytes{'1'});
  EXPECT_EQ(MemberBytes(&ar, "PIC.TGA"), Bytes{'1'});
}

TEST_F(QArchiveFileTest, RemovedMemberIsGoneButItsBytesStay) {
  const std::string path = dir_ / "rm.ar";
  {
    QArchive ar(path.c_str(), QArchive::CREATE);
    ASSERT_TRUE(ar.AddFile(Source("a", TextLike(5000)).c_str(), "a.txt"));
    ASSERT_TRUE(ar.AddFile(Source("b", TextLike(300)).c_str(), "b.txt"));
  }
  const auto before = std::filesystem::file_size(path);
  {
    QArchive ar(path.c_str(), QArchive::UPDATE);
    ASSERT_TRUE(ar.RemoveFile("a.txt"));
    LogCapture log;
    EXPECT_FALSE(ar.RemoveFile("a.txt"));
  }
  EXPECT_EQ(std::filesystem::file_size(path), before);
  QArchive ar(path.c_str(), QArchive::READ);
  EXPECT_FALSE(ar.FindFile("a.txt"));
  EXPECT_EQ(ar.OpenFile("a.txt"), nullptr);
  qstring name;
  int size = -1;
  ASSERT_TRUE(ar.FirstEntry(&name, nullptr, &size));
  EXPECT_STREQ(name.cstr(), "$.txt");
  EXPECT_EQ(size, 0);
  EXPECT_EQ(MemberBytes(&ar, "b.txt"), TextLike(300));
}

TEST_F(QArchiveFileTest, AddingAfterRemovalKeepsEarlierMembers) {
  const std::string path = dir_ / "grow.ar";
  {
    QArchive ar(path.c_str(), QArchive::CREATE);
    ASSERT_TRUE(ar.AddFile(Source("a", {'a'}).c_str(), "a"));
  }
  QArchive ar(path.c_str(), QArchive::UPDATE);
  ASSERT_TRUE(ar.RemoveFile("a"));
  ASSERT_TRUE(ar.AddFile(Source("b", RandomBytes(20000, 9)).c_str(), "b"));
  ar.Close();
  QArchive re(path.c_str(), QArchive::READ);
  EXPECT_EQ(MemberBytes(&re, "b"), RandomBytes(20000, 9));
  EXPECT_TRUE(re.FindFile("$"));
}

TEST_F(QArchiveFileTest, RefusalsLeaveTheArchiveWhole) {
  LogCapture log;
  QArchive missing((dir_ / "none.ar").c_str(), QArchive::READ);
  EXPECT_FALSE(missing.IsOpen());
  EXPECT_TRUE(log.Has("QArchive: can't open '"));

  const std::string plain = Source("plain.txt", TextLike(100));
  QArchive notArchive(plain.c_str(), QArchive::READ);
  EXPECT_FALSE(notArchive.IsOpen());

  const std::string path = dir_ / "r.ar";
  { QArchive create(path.c_str(), QArchive::CREATE); }
  QArchive readOnly(path.c_str(), QArchive::READ);
  EXPECT_FALSE(readOnly.AddFile(plain.c_str(), "x"));
  EXPECT_FALSE(readOnly.RemoveFile("x"));
  readOnly.Close();

  QArchive ar(path.c_str(), QArchive::UPDATE);
  EXPECT_FALSE(ar.AddFile((dir_ / "nowhere").c_str(), "x"));
  EXPECT_TRUE(log.Has("** ERROR: '"));
  EXPECT_FALSE(ar.DecompressFile("x", nullptr));
  ar.Close();
  EXPECT_EQ(std::filesystem::file_size(path), 8u);
}

TEST_F(QArchiveFileTest, ProgressSeesEveryChunkAndCanAbort) {
  const std::string path = dir_ / "p.ar";
  QArchive ar(path.c_str(), QArchive::CREATE);
  ASSERT_TRUE(ar.AddFile(Source("r", RandomBytes(3 * 16384 + 10, 4)).c_str(), "r"));
  struct Seen {
    std::vector<int> bytes;
    bool answer = true;
  } seen;
  ar.SetProgressCallback(
      [](void* user, int done) {
        auto* s = static_cast<Seen*>(user);
        s->bytes.push_back(done);
        return s->answer;
      },
      &seen);
  EXPECT_TRUE(ar.DecompressFile("r", nullptr));
  EXPECT_EQ(seen.bytes, (std::vector<int>{1, 1 + 2 + 16385, 1 + 2 * (2 + 16385),
                                          1 + 3 * (2 + 16385)}));
  seen.answer = false;
  EXPECT_FALSE(ar.DecompressFile("r", nullptr));
  EXPECT_EQ(ar.OpenFile("r"), nullptr);
}

TEST_F(QArchiveFileTest, ForeignBlocksBeforeTheDataAreSkipped) {
  Bytes block = {'X', 3, 0, 0, 0, 'a', 'b', 'c'};
  const Bytes data = Block({{QArchive::CHUNK_STORED, 'h', 'i'}});
  block.insert(block.end(), data.begin(), data.end());
  const std::string path = dir_ / "f.ar";
  WriteFile(path, BuildArchive({{"hi", block, 2}}));
  QArchive ar(path.c_str(), QArchive::READ);
  EXPECT_EQ(MemberBytes(&ar, "HI"), (Bytes{'h', 'i'}));
}

// ---------------------------------------------------------------------------------------------
// Hostile archives
// ---------------------------------------------------------------------------------------------

TEST_F(QArchiveFileTest, DamagedDirectoriesLeaveTheArchiveClosed) {
  const Bytes good = BuildArchive({{"m", Block({{QArchive::CHUNK_STORED, 'x'}}), 1}});
  struct Case {
    const char* what;
    Bytes file;
    const char* message;
  };
  std::vector<Case> cases;
  Bytes lying = good;
  lying[lying.size() - 4] = 0xF0;
  cases.push_back({"offset past the end", lying, "directory offset '"});
  Bytes low = good;
  std::fill(low.end() - 4, low.end(), 0);
  cases.push_back({"offset inside the magic", low, "directory offset '0'"});
  Bytes noTerm = {'A', 'R', '0', '1', 'a', 'b', 'c'};
  Le32(&noTerm, 4);
  cases.push_back({"name without terminator", noTerm, "has no terminator"});
  Bytes cut = {'A', 'R', '0', '1', 'a', 0, 4, 0, 0};
  Le32(&cut, 4);
  cases.push_back({"entry cut short", cut, "is cut short"});
  cases.push_back({"too short", {'A', 'R', '0', '1', 4}, "is no archive's"});
  for (const Case& c : cases) {
    LogCapture log;
    const std::string path = dir_ / "bad.ar";
    WriteFile(path, c.file);
    QArchive ar(path.c_str(), QArchive::READ);
    EXPECT_FALSE(ar.IsOpen()) << c.what;
    EXPECT_TRUE(log.Has(c.message)) << c.what << ": " << LogCapture::text();
  }
}

TEST_F(QArchiveFileTest, DamagedMembersAreReportedAndRefused) {
  Bytes runs = {64, 0xF8, 0x00};  // five runs of 4111: past the chunk limit
  for (int i = 0; i < 5; ++i) runs.insert(runs.end(), {0, 0x0F, 0xFF, 'r'});
  Bytes hugeChunk = {'D', 0x21, 0x4E};  // 20001
  hugeChunk.resize(hugeChunk.size() + 20001, 0);
  struct Case {
    const char* what;
    Member member;
    const char* message;
  };
  const std::vector<Case> cases = {
      {"chunk size over the limit", {"m", hugeChunk, 5},
       "QArchive: attempt to read decompress chunk of size 20001 (max 20000)"},
      {"chunk unpacking past the limit", {"m", Block({runs}), 30000},
       "QArchive: decompressed chunk overflow of size 20555 (max 20000)"},
      {"more data than the size", {"m", Block({{128, 1, 2, 3}}), 2}, "unpacks past its size"},
      {"less data than the size", {"m", Block({{128, 1, 2, 3}}), 4}, "unpacks to '3' bytes"},
      {"block offset outside", {"m", {}, 1}, "outside 4.."},
      {"match before the start", {"m", Block({{64, 0x80, 0, 0, 0x10}}), 3}, "damaged chunk"},
      {"no end mark", {"m", {'D', 2, 0, 128, 'a'}, 1}, "without its end mark"},
      {"foreign block too long", {"m", {'Z', 0xFF, 0xFF, 0, 0, 'D'}, 1}, "runs past"},
      {"lying size", {"m", Block({{128, 1}}), 0x7FFFFFFF}, "more than its block can hold"},
  };
  for (const Case& c : cases) {
    LogCapture log;
    const std::string path = dir_ / "bad.ar";
    WriteFile(path, BuildArchive({c.member}));
    QArchive ar(path.c_str(), QArchive::READ);
    ASSERT_TRUE(ar.IsOpen()) << c.what;
    EXPECT_EQ(ar.OpenFile("m"), nullptr) << c.what;
    EXPECT_TRUE(log.Has(c.message)) << c.what << ": " << LogCapture::text();
  }
}

TEST_F(QArchiveFileTest, TruncatedAndScrambledArchivesNeverCrash) {
  const std::string src = dir_ / "src.ar";
  {
    QArchive ar(src.c_str(), QArchive::CREATE);
    ASSERT_TRUE(ar.AddFile(Source("t", TextLike(40000)).c_str(), "t"));
    ASSERT_TRUE(ar.AddFile(Source("z", Bytes(30000, 0)).c_str(), "z"));
  }
  Bytes good;
  ASSERT_TRUE(ReadFile(src, &good));
  LogCapture log;
  std::mt19937 rng(11);
  const std::string path = dir_ / "bad.ar";
  for (int round = 0; round < 300; ++round) {
    Bytes file = good;
    if (round % 3 == 0) {
      file.resize(rng() % file.size());
    } else {
      for (int k = 0; k < 1 + round % 8; ++k) file[rng() % file.size()] = static_cast<uint8_t>(rng());
    }
    WriteFile(path, file);
    QArchive ar(path.c_str(), QArchive::READ);
    qstring name;
    for (bool more = ar.FirstEntry(&name, nullptr, nullptr); more;
         more = ar.NextEntry(&name, nullptr, nullptr)) {
      delete ar.OpenFile(name.cstr());
      ar.DecompressFile(name.cstr(), nullptr);
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Real data
// ---------------------------------------------------------------------------------------------

// The repository's files and a few hundred documentation files, packed and unpacked again.
TEST_F(QArchiveFileTest, RealFilesRoundTrip) {
  constexpr size_t kCapBytes = 24u << 20;
  constexpr int kDocFiles = 300;
  std::vector<std::pair<std::string, std::string>> files;  // source path, member name
  size_t total = 0;
  auto take = [&](const std::string& path, const std::string& name) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode) || access(path.c_str(), R_OK) != 0)
      return;
    if (total + st.st_size > kCapBytes) return;
    total += st.st_size;
    files.emplace_back(path, name);
  };
  const std::string repo = GLIMRA_SOURCE_DIR;
  if (FILE* git = popen(("git -C '" + repo + "' ls-files 2>/dev/null").c_str(), "r")) {
    char line[4096];
    while (fgets(line, sizeof(line), git)) {
      std::string rel = line;
      rel.erase(rel.find_last_not_of("\r\n") + 1);
      take(repo + "/" + rel, "repo/" + rel);
    }
    pclose(git);
  }
  const size_t repoFiles = files.size();
  std::error_code ec;
  int docs = 0;
  for (auto it = std::filesystem::recursive_directory_iterator(
           "/usr/share/doc", std::filesystem::directory_options::skip_permission_denied, ec);
       !ec && it != std::filesystem::recursive_directory_iterator() && docs < kDocFiles;
       it.increment(ec)) {
    const size_t before = files.size();
    take(it->path().string(), "doc" + it->path().string().substr(strlen("/usr/share/doc")));
    docs += static_cast<int>(files.size() - before);
  }
  ASSERT_GT(repoFiles, 10u);
  ASSERT_GT(docs, 50);

  // Each file is packed from a private copy, so an edit in the work tree meanwhile cannot
  // make the comparison fail.
  const std::string path = dir_ / "real.ar";
  const std::string copy = dir_ / "copy";
  std::vector<Bytes> originals(files.size());
  {
    QArchive ar(path.c_str(), QArchive::CREATE);
    for (size_t i = 0; i < files.size(); ++i) {
      ASSERT_TRUE(ReadFile(files[i].first, &originals[i])) << files[i].first;
      WriteFile(copy, originals[i]);
      ASSERT_TRUE(ar.AddFile(copy.c_str(), files[i].second.c_str())) << files[i].first;
    }
  }
  std::set<std::string> lower;
  std::set<std::string> ambiguous;
  for (const auto& f : files) {
    std::string l = f.second;
    for (char& c : l) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    if (!lower.insert(l).second) ambiguous.insert(l);
  }
  QArchive ar(path.c_str(), QArchive::READ);
  ASSERT_TRUE(ar.IsOpen());
  const std::string out = dir_ / "out";
  for (size_t i = 0; i < files.size(); ++i) {
    const auto& f = files[i];
    const Bytes& want = originals[i];
    Bytes got;
    ASSERT_TRUE(ar.DecompressFile(f.second.c_str(), out.c_str())) << f.second;
    ASSERT_TRUE(ReadFile(out, &got));
    ASSERT_EQ(got, want) << f.second;
    std::string l = f.second;
    for (char& c : l) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    if (!want.empty() && !ambiguous.count(l)) {
      ASSERT_EQ(MemberBytes(&ar, f.second.c_str()), want) << f.second;
    }
  }
  std::printf("[ real data ] %zu files, %zu bytes, archive %ju bytes\n", files.size(), total,
              static_cast<uintmax_t>(std::filesystem::file_size(path)));
}

}  // namespace
