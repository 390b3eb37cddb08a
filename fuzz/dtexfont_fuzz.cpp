// Reads arbitrary bytes as a texture font description (without OpenGL) and measures with it.
// Inputs with more than five runs of codes are skipped: they end the program on purpose.
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "d3/dtexfont.h"
#include "framework/qbitmap.h"
#include "framework/qini.h"
#include "fuzz/fuzz_util.h"

namespace {

// The loader's run rule, counted up to the first entry without ".x".
int CountRuns(const char* file) {
  QIni ini(file, QIni::SILENT);
  QIniIterator it(&ini, "chars");
  qstring key, field;
  long long last = 0;
  int runs = 0;
  while (const QIniNode* n = it.GetNext()) {
    n->GetFullPath(&key);
    field.Format("%s.x", key.cstr());
    if (ini.GetInt(field.cstr(), -1) == -1) break;
    long v = key.Length() > 10 ? strtol(key.cstr() + 10, nullptr, 10) : 0;
    const long long code = v > INT_MAX ? INT_MAX : v < INT_MIN ? INT_MIN : v;
    if (runs == 0 || code != last + 1) ++runs;
    last = code;
  }
  return runs;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz_util::SilenceLog();
  static const bool sheetWritten = [] {
    QBitMap sheet(32, 32, 16);
    sheet.Fill(nullptr, QColor(255, 255, 255, 0));
    return sheet.Write((fuzz_util::ScratchDir() + "/f.tga").c_str(), 1);
  }();
  if (!sheetWritten) abort();
  const std::string base = fuzz_util::ScratchDir() + "/f";
  if (fuzz_util::WriteInput("f.dtf", data, size).empty()) abort();
  if (CountRuns((base + ".dtf").c_str()) > DTexFont::MAX_RANGES) return 0;

  DTexFont font;
  font.Load(base.c_str(), false);
  font.SetSpacing(1.0f);
  for (int c : {0, 31, 32, 65, 150, 255, 256, 1600, 65535, INT_MAX, INT_MIN}) {
    font.FindGlyph(c);
    font.FindGlyph(c, true);
  }
  const size_t n = size < 64 ? size : 64;
  font.GetStringWidth(reinterpret_cast<const char*>(data), int(n));
  uint16_t wide[33] = {};
  for (size_t i = 0; i + 1 < n && i / 2 < 32; i += 2)
    wide[i / 2] = uint16_t(data[i] | data[i + 1] << 8);
  font.GetStringWidth(wide);
  for (size_t i = 0; i < n; ++i) font.GetCharWidth(char(data[i]));
  font.GetHeight();
  font.HasArabicChars();
  return 0;
}
