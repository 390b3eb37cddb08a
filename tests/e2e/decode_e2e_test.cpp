// Huge but legal PNGs: shown within the README's memory figure, and a stop during their decode
// (main loop or prefetch worker) ends the program within a second with status 0.
#include <signal.h>
#include <sys/stat.h>
#include <zlib.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "support/e2e.h"

namespace {

using namespace e2e;

// The README's figure for the program's peak while it shows such a picture.
constexpr long long kPeakLimitKb = 300 << 10;

void Put32(std::string* s, uint32_t v) {
  for (int k = 3; k >= 0; --k) *s += char(v >> (8 * k));
}
void Chunk(std::string* png, const char* type, const std::string& data) {
  const std::string body = type + data;
  Put32(png, uint32_t(data.size()));
  *png += body;
  Put32(png, uint32_t(crc32(0, reinterpret_cast<const Bytef*>(body.data()), uInt(body.size()))));
}

// A w x h RGBA PNG of `depth` bits whose rows repeat the first: gigabytes in a megabyte or two.
std::string RepeatedRowsPng(int w, int h, int depth) {
  std::string png = "\x89PNG\r\n\x1a\n", ihdr;
  Put32(&ihdr, uint32_t(w)), Put32(&ihdr, uint32_t(h));
  ihdr += {char(depth), 6, 0, 0, 0};
  Chunk(&png, "IHDR", ihdr);
  const size_t rowBytes = size_t(w) * 4 * depth / 8;
  std::vector<Bytef> first(rowBytes + 1), up(rowBytes + 1, 0), out(1 << 20);
  for (size_t i = 1; i <= rowBytes; ++i) first[i] = Bytef(i * 7 / 4);
  up[0] = 2;
  z_stream z{};
  deflateInit2(&z, 9, Z_DEFLATED, 15, 9, Z_RLE);
  std::string idat;
  for (int y = 0; y < h; ++y) {
    std::vector<Bytef>& row = y ? up : first;
    z.next_in = row.data(), z.avail_in = uInt(row.size());
    const int flush = y == h - 1 ? Z_FINISH : Z_NO_FLUSH;
    int rc;
    do {
      z.next_out = out.data(), z.avail_out = uInt(out.size());
      rc = deflate(&z, flush);
      idat.append(reinterpret_cast<char*>(out.data()), out.size() - z.avail_out);
    } while (z.avail_in > 0 || (flush == Z_FINISH && rc != Z_STREAM_END));
  }
  deflateEnd(&z);
  Chunk(&png, "IDAT", idat);
  Chunk(&png, "IEND", "");
  return png;
}

class DecodeE2E : public ScreenTest<800, 600> {
 protected:
  // SIGTERM: the slideshow released within a second (timed there, as the sanitizers' leak scan
  // at exit alone takes half a second), then status 0.
  static void ExpectStopWithinASecond(Program* p) {
    const auto sent = std::chrono::steady_clock::now();
    ASSERT_EQ(kill(p->Pid(), SIGTERM), 0);
    EXPECT_TRUE(p->WaitForLog("RaceManager: released", kStartMs)) << p->Log();
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - sent);
    EXPECT_LT(ms.count(), 1000) << p->Log();
    EXPECT_EQ(p->WaitExit(kStartMs), 0);
    EXPECT_EQ(p->Log().find("Can't load image"), std::string::npos) << p->Log();
  }
};

TEST_F(DecodeE2E, HugePngsStayInTheMemoryLimitAndAStopDuringTheirDecodeEndsWithinASecond) {
  const std::string big = RepeatedRowsPng(16000, 16000, 8);
  const std::string slow = RepeatedRowsPng(16384, 16384, 16);
  ASSERT_LT(big.size() + slow.size(), 4u << 20);

  // The main loop's decode: a.jpg alone in the catalogue (nothing to prefetch).
  Program p;
  ASSERT_TRUE(p.Prepare() && Uniform(p.Path("a.jpg"), kRed));
  ASSERT_EQ(mkdir(p.Path("sub").c_str(), 0755), 0);
  ASSERT_TRUE(WriteFile(p.Path("sub/big.png"), big) && WriteFile(p.Path("sub/slow.png"), slow));
  ASSERT_TRUE(p.Start("a.jpg") && Shows(kRed, kStartMs)) << p.Log();
  ASSERT_TRUE(p.Send("load sub/big.png"));
  ASSERT_TRUE(p.WaitForLog("Load times (sub/big.png", 60000)) << p.Log();
  const long long peak = ProcValue(p.Pid(), "status", "VmHWM:");
  EXPECT_GT(peak, 0);
  EXPECT_LT(peak, kPeakLimitKb) << "kB at the peak";
  // The 16-bit one takes seconds to decode; the stop comes a moment into it.
  ASSERT_TRUE(p.Send("load sub/slow.png"));
  std::this_thread::sleep_for(std::chrono::milliseconds(700));
  ExpectStopWithinASecond(&p);

  // The prefetch worker's decode: b.png is a.jpg's neighbour, decoded once a.jpg is on screen.
  Program q;
  ASSERT_TRUE(q.Prepare() && Uniform(q.Path("a.jpg"), kRed) && WriteFile(q.Path("b.png"), slow));
  ASSERT_TRUE(q.Start("a.jpg") && Shows(kRed, kStartMs)) << q.Log();
  std::this_thread::sleep_for(std::chrono::milliseconds(700));
  ExpectStopWithinASecond(&q);
}

}  // namespace
