// QIni: the reader's quirks, lookups, getters, writing and the iterator.
#include "framework/qini.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "framework/qmessage.h"
#include "support/logcapture.h"
#include "support/tempdir.h"

namespace {

// A reported line that is exactly `text` (errors end in a newline).
bool Has(const LogCapture& log, const std::string& text) {
  for (const auto& l : log.Lines())
    if (l == text || l == text + "\n") return true;
  return false;
}

// A QIni over text, as if read from "mem.ini".
struct MemIni {
  explicit MemIni(const std::string& text, int flags = 0) : ini("mem.ini", flags | QIni::NO_READ) {
    ini.ReadFromMemory(text.data(), text.size());
  }
  std::string Get(const char* key) {
    char buf[QIni::MAX_TEXT];
    return ini.GetString(key, buf, "<none>") ? buf : std::string("<missing:") + buf + ">";
  }
  std::string Text() {
    qstring s;
    ini.WriteToString(&s);
    return s.cstr();
  }
  QIni ini;
};

}  // namespace

TEST(QIniLookup, FirstBlockWinsValuesStayUntrimmedGroupsAreNoKeysAndNumbersAreValidated) {
  MemIni m("resolution\n{\n  width=800\n  fullscreen= 1\n}\nresolution\n{\n  width=1024\n  depth=32\n}\n");
  EXPECT_EQ(m.Get("resolution.width"), "800");
  EXPECT_EQ(m.Get("resolution.depth"), "32");  // keys only the second block has still count
  EXPECT_EQ(m.Get("resolution.fullscreen"), " 1");
  EXPECT_EQ(m.ini.GetInt("resolution.fullscreen", 7), 1);
  EXPECT_TRUE(m.ini.GetBool("resolution.fullscreen", false));
  for (const char* key : {"resolution", "resolution.width.x", ""})
    EXPECT_EQ(m.Get(key), "<missing:<none>>") << key;
  EXPECT_EQ(m.ini.GetInt("resolution", 5), 5);

  // Numbers are validated, then evaluated or read (the evaluator's own rules are qeval_test's).
  LogCapture log;
  MemIni n("v=1024.0\ne=2*512\nz=\nf=2.5\nbad=1,5\n");
  EXPECT_EQ(n.ini.GetInt("v", 0), 1024);
  EXPECT_TRUE(Has(log, "v value '1024.0' (in mem.ini) is not a valid integer: a '.' is not allowed (floating point)"));
  EXPECT_EQ(n.ini.GetInt("e", 0), 1024);
  EXPECT_EQ(n.ini.GetInt("z", 5), 0);
  EXPECT_EQ(n.ini.GetInt("missing", 5), 5);
  EXPECT_FALSE(n.ini.GetBool("z", true));
  EXPECT_DOUBLE_EQ(n.ini.GetFloat("f", 0), 2.5);
  EXPECT_DOUBLE_EQ(n.ini.GetFloat("bad", 0), 1.0);
  EXPECT_TRUE(Has(log, "bad value '1,5' (in mem.ini) is not a valid float: character ',' is not allowed"));
}

TEST(QIniLookup, ReferencesAnswerKeysOfTheReferencedGroupAndCyclesTerminate) {
  LogCapture log;
  MemIni r("ref_car\n{\n wheels=4\n color=red\n}\nmycar~ref_car\n{\n color=blue\n}\nbad~nowhere\n");
  EXPECT_EQ(r.Get("mycar.color"), "blue");
  EXPECT_EQ(r.Get("mycar.wheels"), "4");
  EXPECT_EQ(r.Get("mycar.doors"), "<missing:<none>>");
  EXPECT_TRUE(Has(log, "QIni(mem.ini): reference (~) to unknown tree 'nowhere' in line 10"));

  // "~" keeps the current symbol, so the second reference makes t refer to itself.
  MemIni m("g\n{\n x=1\n}\nt~g\n~t\na\n{\n x=2\n b~a\n}\n");
  EXPECT_TRUE(Has(log, "QIni(mem.ini): ref to tree 't' without child in line 6"));
  EXPECT_EQ(m.Get("t.x"), "<missing:<none>>");
  EXPECT_EQ(m.Get("a.b.b.b.x"), "2");
  EXPECT_EQ(m.Get("a.b.b.b.nothing"), "<missing:<none>>");
  EXPECT_EQ(m.ini.CountChildren("t"), 0);
  EXPECT_EQ(m.Text(), "g\n{\n  x=1\n}\nt~t\n{\n}\na\n{\n  x=2\n  b~a\n  {\n  }\n}\n");
}

TEST(QIniRead, SyntaxFaultsAreReportedReadingGoesOnAndHugeInputStaysBounded) {
  LogCapture log;
  MemIni m("resolution.width=800\nx=1\n}\n{\ny=2\n= 3\n");
  EXPECT_TRUE(Has(log, "QIni(mem.ini): key with '.' found (resolution.width) - won't work; use { } to define subtrees (line 1)"));
  EXPECT_TRUE(Has(log, "QIni: assign without symbol in line 1"));
  EXPECT_TRUE(Has(log, "QIni(mem.ini); more '}' brackets than '{' near line 3"));
  EXPECT_TRUE(Has(log, "QIni: { without groupname"));
  EXPECT_EQ(m.Get("resolution.width"), "<missing:<none>>");
  EXPECT_EQ(m.Get("y"), " 3");  // the current symbol stays until the next word or bracket
  EXPECT_EQ(m.Get("x"), "1");

  // Tabs stay in words, and ';' starts a comment only as a token of its own.
  MemIni t("a\tb=1 ;x\n;note\n");
  EXPECT_EQ(t.Get("a\tb"), "1 ;x");
  EXPECT_EQ(t.Text(), "a\tb=1 ;x\n;note\n");

  // Huge and hostile input stays bounded.
  std::string big(1 << 20, 'v');
  MemIni huge("k=" + big + "\n" + big + "=1\nnext=ok\n");
  EXPECT_EQ(huge.Get("k"), big.substr(0, QIni::MAX_WORD));
  EXPECT_EQ(huge.Get(big.substr(0, QIni::MAX_WORD).c_str()), "1");
  EXPECT_EQ(huge.Get("next"), "ok");

  std::string deep;
  for (int i = 0; i < 100000; ++i) deep += "a\n{\n";
  MemIni d(deep + "z=1\n");
  EXPECT_TRUE(Has(log, "QIni: 'a' nests too deep (max 10 levels)"));
  EXPECT_TRUE(Has(log, "QIni(mem.ini); brackets don't match; still 100000 closing bracket(s) expected at end of file."));
  EXPECT_EQ(d.Get("a.a.a.a.a.a.a.a.a.z"), "1");
  EXPECT_EQ(d.ini.CountChildren(nullptr), 1);

  // Keys of high bytes and long keys whose byte-weighted sum wraps still find their bucket.
  std::string hi(1000, '\xff'), lo(1000, 'z');
  MemIni h(hi + "=neg\n" + lo + "=pos\n");
  EXPECT_EQ(h.Get(hi.c_str()), "neg");
  EXPECT_EQ(h.Get(lo.c_str()), "pos");
}

TEST(QIniIterator, WalksInFileOrderWithinTheDepthLimit) {
  MemIni m("a=1\n;c\ng\n{\n  b=2\n  h\n  {\n    c=3\n  }\n}\n");
  QIniIterator top(&m.ini);
  std::string names;
  while (const QIniNode* n = top.GetNext()) names += std::string(n->GetName()) + " ";
  EXPECT_EQ(names, "a g ");
  QIniIterator all(&m.ini);
  names.clear();
  while (const QIniNode* n = all.GetNextAny()) names += std::string(n->GetName()) + " ";
  EXPECT_EQ(names, "a ; g b h c ");
  QIniIterator sub(&m.ini, "g.h");
  const QIniNode* c = sub.GetNext();
  ASSERT_NE(c, nullptr);
  qstring path;
  c->GetFullPath(&path);
  EXPECT_STREQ(path.cstr(), "g.h.c");

  // Groups past the nesting limit stay empty and their content joins the deepest open group,
  // so a read tree always fits the iterator's stack.
  std::string deep;
  for (int i = 0; i < 12; ++i) deep += "n\n{\n";
  LogCapture log;
  MemIni d(deep + "leaf=1\n");
  QIniIterator it(&d.ini);
  int count = 0;
  while (it.GetNextAny()) ++count;
  EXPECT_EQ(count, 13);
  EXPECT_EQ(log.Count("nests too deep"), 3);
  EXPECT_EQ(log.Count("nestLevel"), 0);
}

using QIniFile = TempDirTest;

TEST_F(QIniFile, WrittenFileReadsBackToTheSameTreeAndKeepsAByteOrderMark) {
  const std::string text =
      ";head comment\nref_base\n{\n  size=3\n  ;inner\n  deep\n  {\n    x= spaced \n  }\n}\n"
      "item~ref_base\n=tagged\n{\n  size=4\n}\nplain~ref_base\n{\n}\nv=2*512\nv=second\n";
  MemIni m(text);
  EXPECT_EQ(m.Text(), text);
  ASSERT_TRUE(m.ini.Write(Tmp("out.ini").c_str(), false));
  QIni back(Tmp("out.ini").c_str());
  qstring again;
  back.WriteToString(&again);
  EXPECT_EQ(std::string(again.cstr()), text);
  EXPECT_EQ(back.GetStringDirect("plain.deep.x"), std::string(" spaced "));
  EXPECT_EQ(back.GetStringDirect("item"), std::string("tagged"));
  EXPECT_EQ(back.GetInt("v", 0), 1024);

  // A byte order mark is skipped on read and kept on write.
  const std::string name = MakeFile("bom.ini", "\xEF\xBB\xBFgroup\n{\n  a=1\n}\n");
  QIni bom(name.c_str());
  EXPECT_EQ(bom.GetInt("group.a", 0), 1);
  bom.SetInt("group.b", 2);
  ASSERT_TRUE(bom.Write(nullptr, false));
  EXPECT_EQ(ReadFile(name), "\xEF\xBB\xBFgroup\n{\n  a=1\n  b=2\n}\n");

  // Not at the start, the same bytes are part of a name, which must survive a write and read.
  MemIni named("=\n\xEF\xBB\xBFk=1\n");
  EXPECT_EQ(named.Get("\xEF\xBB\xBFk"), "1");
  MemIni reread(named.Text());
  EXPECT_EQ(reread.Get("\xEF\xBB\xBFk"), "1");
}

TEST_F(QIniFile, ChangedFileIsOnlyOverwrittenWithoutTheQuestion) {
  setenv("GLIMRA_NO_MESSAGEBOX", "1", 1);  // every question is answered "no" at once
  const std::string name = MakeFile("glimra.ini", "a=1\n");
  {
    QIni ini(name.c_str());
    WriteFile(name, "a=2\n");
    auto t = std::filesystem::last_write_time(name);
    std::filesystem::last_write_time(name, t + std::chrono::seconds(5));
    ini.SetInt("a", 3);
    EXPECT_FALSE(ini.Write());
    EXPECT_FALSE(ini.IsModified());
    EXPECT_TRUE(ini.Write());  // nothing modified: nothing to do
    EXPECT_EQ(ReadFile(name), "a=2\n");
  }
  {
    QIni ini(name.c_str(), QIni::NO_READ);
    ini.SetInt("b", 4);
    EXPECT_TRUE(ini.Write());
    EXPECT_EQ(ReadFile(name), "b=4\n");
    ini.SetInt("b", 5);  // the time written is remembered: no question this time either
    EXPECT_TRUE(ini.Write());
    EXPECT_EQ(ReadFile(name), "b=5\n");
  }
  LogCapture log;
  QIni missing(Tmp("none.ini").c_str());
  EXPECT_FALSE(missing.IsFound());
  EXPECT_EQ(log.Count("can't open ini file '" + Tmp("none.ini") + "', current directory is '"), 1);
}

TEST_F(QIniFile, WriteReplacesTheTargetOfALinkAndLeavesAReadOnlyFileAlone) {
  namespace fs = std::filesystem;
  const std::string real = MakeFile("real.ini", "a=1\n");
  const std::string link = Tmp("glimra.ini");
  fs::create_symlink("real.ini", link);
  {
    QIni ini(link.c_str());
    ini.SetInt("a", 2);
    EXPECT_TRUE(ini.Write(nullptr, false));
  }
  EXPECT_TRUE(fs::is_symlink(link));
  EXPECT_EQ(ReadFile(real), "a=2\n");
  // Nothing but the two names is left in the folder (no temporary file).
  EXPECT_EQ(std::distance(fs::directory_iterator(dir_), fs::directory_iterator()), 2);

  fs::permissions(real, fs::perms::owner_read | fs::perms::group_read);
  LogCapture log;
  QIni ini(link.c_str());
  ini.SetInt("a", 3);
  EXPECT_FALSE(ini.Write(nullptr, false));
  EXPECT_TRUE(Has(log, "Can't write " + link + " (Permission denied)"));
  EXPECT_TRUE(ini.IsModified());
  EXPECT_EQ(ini.GetInt("a", 0), 3);  // the change holds for this run
  EXPECT_EQ(ReadFile(real), "a=2\n");
  EXPECT_EQ(std::distance(fs::directory_iterator(dir_), fs::directory_iterator()), 2);
}
