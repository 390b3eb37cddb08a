// Fuzzes the tagged language reader (8-bit and 16-bit) and the simple reader over a memory file,
// then the line and word readers of QFile on the same bytes.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "framework/qfile.h"
#include "framework/qlanguage.h"
#include "framework/qmem.h"
#include "fuzz/fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz_util::SilenceLog();
  if (size > (1u << 20)) return 0;
  // An exact-size copy, so that any read past the block is caught.
  void* block = qmalloc(size ? size : 1);
  if (!block) return 0;
  if (size) memcpy(block, data, size);
  int n = static_cast<int>(size);
  {
    QFile file(block, n, QFile::READ);
    QLanguage lang;
    lang.Read(&file, QLanguage::TAGGED);
    for (int i = 0; i < lang.GetCount(); ++i) lang.GetString(i);
    lang.GetString("misc.ok", nullptr);
    lang.GetStringUC("misc.ok");
  }
  {
    QFile file(block, n, QFile::READ);
    QLanguage lang;
    lang.Read(&file, QLanguage::SIMPLE);
  }
  {
    QFile file(block, n, QFile::READ);
    char word[16];
    qstring s;
    while (!file.IsEOF()) {
      file.ReadWord(word, sizeof(word));
      file.ReadLine(&s);
      file.ReadString(&s);
    }
  }
  qfree(block);
  return 0;
}
