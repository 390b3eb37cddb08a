// Reads arbitrary bytes as a configuration, looks up a few keys and writes the tree back; the
// written text must read back to the same text.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "framework/qini.h"
#include "fuzz/fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz_util::SilenceLog();
  QIni ini("fuzz.ini", QIni::NO_READ);
  ini.ReadFromMemory(reinterpret_cast<const char*>(data), size);

  char buf[QIni::MAX_TEXT];
  static const char* const kKeys[] = {"a", "a.b", "resolution.width", "x.y.z", "ref_a.b",
                                      "root", "", "a.b.c.d.e.f.g.h.i.j.k"};
  for (const char* key : kKeys) {
    ini.GetString(key, buf, "def");
    ini.GetInt(key, 1);
    ini.GetFloat(key, 1.0);
    int v[3];
    ini.GetInts(key, 3, v, 0);
    qstring host;
    ini.GetHost(key, &host);
    ini.CountChildren(key);
  }
  // Every key the input defines, looked up by its own path.
  QIniIterator it(&ini);
  int visited = 0;
  // Groups named "root" are written without their line and braces, and a group referring to
  // itself cannot be written as one line: both may change the tree, so skip the comparison.
  bool comparable = true;
  while (const QIniNode* n = it.GetNextAny()) {
    if (++visited > 2000) {
      comparable = false;
      break;
    }
    if (n->GetReference() == n || strcmp(n->GetName(), "root") == 0) comparable = false;
    qstring path;
    n->GetFullPath(&path);
    ini.GetString(path.cstr(), buf);
  }

  qstring text;
  ini.WriteToString(&text);
  QIni back("fuzz.ini", QIni::NO_READ);
  back.ReadFromMemory(text.cstr(), static_cast<size_t>(text.Length()));
  qstring again;
  back.WriteToString(&again);
  if (comparable && strcmp(text.cstr(), again.cstr()) != 0) abort();
  return 0;
}
