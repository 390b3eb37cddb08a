// glimra-ar: creates, lists, extracts and edits the slideshow's data archives from a shell.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "framework/qarchive.h"

namespace {

const char kUsage[] =
    "usage: glimra-ar COMMAND ARCHIVE [ARGUMENTS]\n"
    "\n"
    "  create ARCHIVE                   make a new, empty archive (replaces an existing file)\n"
    "  add ARCHIVE FILE [NAME]          pack FILE as member NAME (default: FILE as given)\n"
    "  add-all ARCHIVE FILE...          pack every FILE under its own path\n"
    "  list ARCHIVE                     print size, offset and name of every member;\n"
    "                                   removed members show as \"$...\" with size 0\n"
    "  extract ARCHIVE                  unpack every member to its name below the current\n"
    "                                   directory, making directories as needed (names that\n"
    "                                   are absolute or contain \"..\" are refused)\n"
    "  extract ARCHIVE MEMBER [OUTPUT]  unpack one member (exact name) to OUTPUT or its name\n"
    "  remove ARCHIVE MEMBER            mark a member removed (its bytes stay in the file)\n"
    "\n"
    "Names are compared exactly. add, add-all and remove edit a copy beside the archive and\n"
    "rename it over the archive when done, so an interrupted edit leaves the old archive.\n"
    "The exit status is 0 on success and 1 on any failure.\n";

// Member names become paths on extraction; refuse any that would leave the current directory.
bool SafeOutputName(const std::string& name) {
  if (name.empty() || name[0] == '/' || name[0] == '\\') return false;
  size_t start = 0;
  while (start <= name.size()) {
    size_t end = name.find_first_of("/\\", start);
    if (end == std::string::npos) end = name.size();
    if (name.compare(start, end - start, "..") == 0) return false;
    start = end + 1;
  }
  return true;
}

// Makes every directory on the way to path.
bool MakeParents(const std::string& path) {
  for (size_t i = 1; i < path.size(); ++i) {
    if (path[i] != '/' && path[i] != '\\') continue;
    const std::string dir = path.substr(0, i);
    if (mkdir(dir.c_str(), 0777) != 0 && errno != EEXIST) {
      fprintf(stderr, "glimra-ar: can't make directory '%s'\n", dir.c_str());
      return false;
    }
  }
  return true;
}

bool Extract(QArchive* ar, const char* member, const char* output) {
  const std::string out = output ? output : member;
  if (!output && !SafeOutputName(out)) {
    fprintf(stderr, "glimra-ar: refusing to write member '%s' outside this directory\n", member);
    return false;
  }
  return MakeParents(out) && ar->DecompressFile(member, out.c_str());
}

int ExtractAll(QArchive* ar) {
  bool ok = true;
  qstring name;
  int size = 0;
  for (bool more = ar->FirstEntry(&name, nullptr, &size); more;
       more = ar->NextEntry(&name, nullptr, &size)) {
    if (name.GetFirstChar() == '$' && size == 0) continue;  // removed
    if (!Extract(ar, name.cstr(), nullptr)) ok = false;
  }
  return ok ? 0 : 1;
}

int List(QArchive* ar) {
  qstring name;
  int offset = 0, size = 0;
  for (bool more = ar->FirstEntry(&name, &offset, &size); more;
       more = ar->NextEntry(&name, &offset, &size))
    printf("%10d %10d  %s\n", size, offset, name.cstr());
  return 0;
}

// An edit made on a copy beside the archive that replaces it only once whole: an interruption
// or a failure at any point leaves the old archive as it was (and at worst a stray copy).
class EditCopy {
 public:
  // Copies `path` to a new file beside it; Path() is empty when that fails (reported).
  explicit EditCopy(const char* path) : target_(path) {
    struct stat st;
    if (stat(path, &st) != 0 || !S_ISREG(st.st_mode)) {
      fprintf(stderr, "glimra-ar: can't open '%s'\n", path);
      return;
    }
    std::string temp = target_ + ".XXXXXX";
    const int out = mkstemp(&temp[0]);
    if (out < 0) {
      fprintf(stderr, "glimra-ar: can't write beside '%s' (%s)\n", path, strerror(errno));
      return;
    }
    temp_ = temp;
    const int in = open(path, O_RDONLY);
    bool ok = in >= 0 && fchmod(out, st.st_mode & 07777) == 0;
    char buf[65536];
    for (ssize_t n; ok && (n = read(in, buf, sizeof(buf))) != 0;) {
      if (n < 0 && errno == EINTR) continue;
      ok = n > 0 && write(out, buf, size_t(n)) == n;
    }
    if (in >= 0) close(in);
    if (close(out) != 0) ok = false;
    if (!ok) {
      fprintf(stderr, "glimra-ar: can't copy '%s' (%s)\n", path, strerror(errno));
      Discard();
    }
  }
  ~EditCopy() { Discard(); }

  const std::string& Path() const { return temp_; }
  // Flushes the edited copy to the disk and renames it over the archive.
  bool Commit() {
    if (temp_.empty()) return false;
    const int fd = open(temp_.c_str(), O_RDONLY);
    const bool synced = fd >= 0 && fsync(fd) == 0;
    if (fd >= 0) close(fd);
    if (!synced || rename(temp_.c_str(), target_.c_str()) != 0) {
      fprintf(stderr, "glimra-ar: can't replace '%s' (%s)\n", target_.c_str(), strerror(errno));
      return false;
    }
    temp_.clear();
    return true;
  }

 private:
  void Discard() {
    if (!temp_.empty()) unlink(temp_.c_str());
    temp_.clear();
  }
  std::string target_;
  std::string temp_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || !strcmp(argv[1], "--help") || !strcmp(argv[1], "-h")) {
    fputs(kUsage, argc < 2 ? stderr : stdout);
    return argc < 2 ? 1 : 0;
  }
  const std::string cmd = argv[1];
  if (argc < 3) {
    fprintf(stderr, "glimra-ar: '%s' needs an archive\n\n%s", cmd.c_str(), kUsage);
    return 1;
  }
  const char* path = argv[2];
  const int rest = argc - 3;
  char** args = argv + 3;

  if (cmd == "create" && rest == 0) {
    QArchive ar(path, QArchive::CREATE);
    return ar.IsOpen() ? 0 : 1;
  }
  if ((cmd == "add" && (rest == 1 || rest == 2)) || (cmd == "add-all" && rest >= 1)) {
    EditCopy copy(path);
    if (copy.Path().empty()) return 1;
    bool ok;
    {
      QArchive ar(copy.Path().c_str(), QArchive::UPDATE);
      if (!ar.IsOpen()) return 1;
      ar.SetPrintProgress(true);
      if (cmd == "add") {
        ok = ar.AddFile(args[0], rest == 2 ? args[1] : nullptr);
      } else {
        ok = true;
        for (int i = 0; i < rest; ++i) ok = ar.AddFile(args[i], nullptr) && ok;
      }
    }
    // A failed add leaves the archive as it was. add-all keeps the members that went in, as it
    // always has, as long as the copy still opens.
    bool keep = ok;
    if (!ok && cmd == "add-all") keep = QArchive(copy.Path().c_str(), QArchive::READ).IsOpen();
    const bool committed = keep && copy.Commit();
    return committed && ok ? 0 : 1;
  }
  if ((cmd == "list" && rest == 0) || (cmd == "extract" && rest <= 2)) {
    QArchive ar(path, QArchive::READ);
    if (!ar.IsOpen()) {
      fprintf(stderr, "glimra-ar: '%s' is not an archive\n", path);
      return 1;
    }
    if (cmd == "list") return List(&ar);
    if (rest == 0) return ExtractAll(&ar);
    return Extract(&ar, args[0], rest == 2 ? args[1] : nullptr) ? 0 : 1;
  }
  if (cmd == "remove" && rest == 1) {
    EditCopy copy(path);
    if (copy.Path().empty()) return 1;
    bool ok;
    {
      QArchive ar(copy.Path().c_str(), QArchive::UPDATE);
      ok = ar.IsOpen() && ar.RemoveFile(args[0]);
    }
    return ok && copy.Commit() ? 0 : 1;
  }
  fprintf(stderr, "glimra-ar: bad command or arguments\n\n%s", kUsage);
  return 1;
}
