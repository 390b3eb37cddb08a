// Drives the string helpers with arbitrary text: no input may read or write outside the buffer.
#include <cstddef>
#include <cstdint>
#include <string>

#include "framework/qmessage.h"
#include "framework/qstring.h"

namespace {
void Quiet(const char*, const char*) {}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qSetWarnHandler(Quiet);
  qSetErrHandler(Quiet);
  // The first zero byte separates the text from a pattern for the search helpers.
  std::string all(reinterpret_cast<const char*>(data), size);
  size_t zero = all.find('\0');
  std::string text = all.substr(0, zero);
  std::string pattern = zero == std::string::npos ? "" : all.substr(zero + 1);
  pattern = pattern.substr(0, pattern.find('\0'));

  qstring s(text.c_str());
  qstring work;
  qstring out;
  work = s;
  work.CutPath();
  work = s;
  work.CutFile();
  work = s;
  work.CutFirstDirectory();
  work = s;
  work.CutExtension();
  work = s;
  work.CutUnderscoredNumber();
  work = s;
  work.CutLeadingSpaces();
  work.CutTrailingSpaces();
  work.CutTrailingLF();
  work = s;
  work.ConvertEnv();
  work = s;
  work.ReplaceAll(pattern.c_str(), "<>");
  work = s;
  work.Capitalize();
  work.MakeID();
  work = s;
  if (!pattern.empty()) work.LeavePostfix(pattern[0]);
  s.Find(pattern.c_str(), static_cast<int>(pattern.size()) - 2);
  s.FindLast(pattern.c_str());
  s.BeginsWith(pattern.c_str());
  s.EndsWith(pattern.c_str());
  s.GetSubstring(static_cast<int>(pattern.size()), static_cast<int>(text.size()) / 2, &out);
  for (int i = 0; i < 4; ++i) s.GetLine(i, &out);
  s.IsFileName();
  s.IsNumber();
  s.IsFloat();
  s.ValidateInt(&out);
  s.ValidateFloat(&out);
  work = s;
  work.QC2UC();
  work.CutPath();
  return 0;
}
