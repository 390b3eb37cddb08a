// glimra: the program's entry. Picks the working directory, and either starts the slideshow or,
// when a copy already runs, hands the argument to it over UDP and ends.
//
// Which start runs is decided by an exclusive lock on "glimra.lock" beside glimra.ini, held for
// the life of the process (the kernel lets go of it however the process ends), so that of
// several starts at the same moment exactly one wins. Only then are copies elsewhere looked for
// by name; those count while they hold their own lock. A start that loses hands its argument to
// the winner once the winner's command port is bound (a datagram to a port nobody has bound is
// lost without a word), and runs itself when the winner ends without listening or nothing
// listens after a few seconds: a blank screen is the worst outcome.
#include <dirent.h>
#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "app/command_channel.h"
#include "app/slideshow.h"
#include "framework/image/qpicturekinds.h"
#include "framework/qapp.h"
#include "framework/qdir.h"
#include "framework/qerror.h"
#include "framework/qevent.h"
#include "framework/qini.h"
#include "framework/qmessage.h"
#include "framework/qstring.h"
#include "net/addr.h"
#include "net/socket.h"

namespace {

constexpr int kMaxPath = PATH_MAX;
constexpr const char* kProgramName = "glimra";
// How long a start that lost waits for the winner's command port before it runs itself.
constexpr int kHandOffWaitMs = 5000;

// The executable's file name of process `pid` (its exe link; its comm when the link cannot be
// read); false when neither can be read.
bool ProcessName(const char* pid, std::string* out) {
  char link[64], target[4096];
  snprintf(link, sizeof(link), "/proc/%s/exe", pid);
  ssize_t n = readlink(link, target, sizeof(target) - 1);
  if (n > 0) {
    target[n] = 0;
    const char* slash = strrchr(target, '/');
    *out = slash ? slash + 1 : target;
    // A program replaced on disk while running still counts as itself.
    const char* deleted = " (deleted)";
    if (out->size() > strlen(deleted) &&
        out->compare(out->size() - strlen(deleted), std::string::npos, deleted) == 0)
      out->resize(out->size() - strlen(deleted));
    return true;
  }
  snprintf(link, sizeof(link), "/proc/%s/comm", pid);
  FILE* f = fopen(link, "r");
  if (!f) return false;
  char comm[64] = {};
  const bool ok = fgets(comm, sizeof(comm), f) != nullptr;
  fclose(f);
  if (!ok) return false;
  comm[strcspn(comm, "\n")] = 0;
  *out = comm;
  return true;
}

bool IsProgram(const char* pid) {
  std::string name;
  return ProcessName(pid, &name) && strcasecmp(name.c_str(), kProgramName) == 0;
}

// True when process `pid` runs as this user and has not ended; `parent` gets its parent's id.
bool IsLiveOwnProcess(const char* pid, std::string* parent) {
  const std::string dir = std::string("/proc/") + pid;
  struct stat st;
  if (stat(dir.c_str(), &st) != 0 || st.st_uid != getuid()) return false;
  FILE* f = fopen((dir + "/stat").c_str(), "r");
  if (!f) return false;
  char line[512] = {};
  const bool ok = fgets(line, sizeof(line), f) != nullptr;
  fclose(f);
  // "pid (name) state ppid ...": the name may hold anything, so read from its last ')'.
  const char* close = ok ? strrchr(line, ')') : nullptr;
  char state = 0;
  long ppid = 0;
  if (!close || sscanf(close + 1, " %c %ld", &state, &ppid) != 2) return false;
  *parent = std::to_string(ppid);
  return state != 'Z' && state != 'X';
}

// The processes that hold a whole-file lock (flock), from the kernel's list; waiters are left
// out. Empty when the list cannot be read.
std::set<std::string> LockHolders() {
  std::set<std::string> holders;
  FILE* f = fopen("/proc/locks", "r");
  if (!f) return holders;
  char line[256];
  while (fgets(line, sizeof(line), f)) {
    // "1: FLOCK  ADVISORY  WRITE 1234 fd:01:5678 0 EOF"; a waiter reads "1: -> FLOCK ...".
    char kind[16] = {}, pid[16] = {};
    if (sscanf(line, "%*d: %15s %*s %*s %15s", kind, pid) == 2 && strcmp(kind, "FLOCK") == 0)
      holders.insert(pid);
  }
  fclose(f);
  return holders;
}

// Running processes (this one included) of this user whose executable file name is the
// program's, compared without regard to case. A child of such a process (the one a message box
// runs in) is no copy of its own, and neither is an ended one nobody has reaped. With
// `lockHoldersOnly` a copy counts only while it holds its lock: one that is still deciding, or
// handing over, does not run. 0 when the process list cannot be read, which means a full start.
int CountRunningCopies(bool lockHoldersOnly) {
  DIR* d = opendir("/proc");
  if (!d) return 0;
  const std::set<std::string> holders = lockHoldersOnly ? LockHolders() : std::set<std::string>();
  int count = 0;
  while (dirent* e = readdir(d)) {
    if (e->d_name[0] < '0' || e->d_name[0] > '9') continue;
    std::string parent;
    if (!IsProgram(e->d_name) || !IsLiveOwnProcess(e->d_name, &parent)) continue;
    if (lockHoldersOnly && !holders.count(e->d_name)) continue;
    if (!IsProgram(parent.c_str())) ++count;
  }
  closedir(d);
  return count;
}

// Opens (creating it when missing) the lock file `name` for reading, which is all a lock needs;
// -1 when that fails. A file that is not the user's own is not trusted: another user could
// hold it for ever.
int OpenLockFile(const std::string& name, bool ownOnly) {
  int fd = open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0 && errno == ENOENT)
    fd = open(name.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
  struct stat st;
  if (fd >= 0 &&
      (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || (ownOnly && st.st_uid != getuid()))) {
    close(fd);
    fd = -1;
  }
  return fd;
}

// The single-instance lock file: "glimra.lock" in the working directory (beside glimra.ini);
// where that folder cannot be written, "glimra.lock" in $XDG_RUNTIME_DIR, else
// "/tmp/glimra-<uid>.lock". -1 when none can be opened: the process names decide alone then.
int OpenInstanceLock() {
  int fd = OpenLockFile("glimra.lock", false);
  if (fd >= 0) return fd;
  const char* runtime = getenv("XDG_RUNTIME_DIR");
  if (runtime && *runtime) fd = OpenLockFile(std::string(runtime) + "/glimra.lock", true);
  if (fd < 0) fd = OpenLockFile("/tmp/glimra-" + std::to_string(getuid()) + ".lock", true);
  if (fd < 0) QWARN("main", "Can't open a lock file (%s); two starts at once may both hand over",
                    strerror(errno));
  return fd;
}

// True when the lock is ours now. A file that cannot be locked at all (some network file
// systems) is given up: `*fd` becomes -1, and the process names decide alone.
bool TakeLock(int* fd) {
  if (*fd < 0) return false;
  if (flock(*fd, LOCK_EX | LOCK_NB) == 0) return true;
  if (errno != EWOULDBLOCK) {
    QWARN("main", "Can't take the lock (%s); two starts at once may both hand over",
          strerror(errno));
    close(*fd);
    *fd = -1;
  }
  return false;
}

// True when some socket of this machine is bound to UDP port `port` (IPv4): a datagram sent
// there is taken, not silently lost.
bool UdpPortBound(int port) {
  FILE* f = fopen("/proc/net/udp", "r");
  if (!f) return false;
  char line[512];
  bool bound = false;
  while (!bound && fgets(line, sizeof(line), f)) {
    // "  12: 0100007F:1388 00000000:0000 07 ..." (local address and port in hex)
    unsigned address = 0, local = 0;
    if (sscanf(line, " %*d: %8x:%4x", &address, &local) == 2 && int(local) == port) bound = true;
  }
  fclose(f);
  return bound;
}

// Removes what a settings write killed in the middle leaves: files beside the glimra.ini that
// is read (a link followed to its target, where the writer puts them) named like it plus "."
// and the six letters or digits of the writer's temporary names. Only for the copy that holds
// the lock, so that no other copy can be writing one right now.
void RemoveStaleIniTemporaries(const char* iniName) {
  char* real = realpath(iniName, nullptr);
  if (!real) return;
  const std::string path = real;
  free(real);
  const size_t slash = path.rfind('/');
  const std::string dir = path.substr(0, slash == 0 ? 1 : slash);
  const std::string prefix = path.substr(slash + 1) + ".";
  DIR* d = opendir(dir.c_str());
  if (!d) return;
  while (dirent* e = readdir(d)) {
    const char* name = e->d_name;
    if (strncmp(name, prefix.c_str(), prefix.size()) != 0 || strlen(name) != prefix.size() + 6)
      continue;
    bool temporary = true;
    for (const char* c = name + prefix.size(); *c; ++c)
      temporary = temporary && ((*c >= 'a' && *c <= 'z') || (*c >= 'A' && *c <= 'Z') ||
                                (*c >= '0' && *c <= '9'));
    const std::string full = dir + "/" + name;
    struct stat st;
    if (!temporary || lstat(full.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
    if (unlink(full.c_str()) == 0)
      QNOTE("main", "Removed the stale temporary file '%s'", full.c_str());
    else
      QWARN("main", "Can't remove the stale temporary file '%s' (%s)", full.c_str(),
            strerror(errno));
  }
  closedir(d);
}

// The directory of the running executable; empty when it cannot be told.
std::string ExeDirectory() {
  char path[kMaxPath + 1] = {};
  ssize_t n = readlink("/proc/self/exe", path, kMaxPath);
  if (n <= 0) return std::string();
  path[n] = 0;
  char* cut = nullptr;
  for (char* p = path; *p; ++p)
    if (*p == '/' || *p == '\\') cut = p;
  if (cut) *cut = 0;
  return path;
}

// The argument as the running copy must see it: that copy works in its own folder, so a
// relative path naming a file of the starting directory goes over made absolute. Anything else
// (absolute, or no such file here) goes over byte for byte.
std::string HandOffPath(const char* arg, const qstring& startDir) {
  struct stat st;
  if (arg[0] == '/' || startDir.IsEmpty()) return arg;
  const std::string joined = std::string(startDir.cstr()) + "/" + arg;
  return stat(joined.c_str(), &st) == 0 ? joined : std::string(arg);
}

// The main loop sleeps until something happens, and a handler may not post the event that wakes
// it: the handler writes a byte here instead, and a thread that waits for that byte wakes the loop.
int g_stopPipe[2] = {-1, -1};

// A stop from outside (systemd, Ctrl+C, a closed terminal): the main loop ends the program
// through its exit procedure at the end of its cycle.
void OnStopSignal(int sig) {
  const int saved = errno;
  RaceManager::RequestStop(sig);
  // A fatal error's box may be up, with the main loop waiting for it.
  qStopMessageBoxes(sig);
  if (g_stopPipe[1] >= 0) {
    const char byte = 0;
    const ssize_t written = write(g_stopPipe[1], &byte, 1);
    (void)written;  // never blocks; a full pipe already holds a wake
  }
  errno = saved;
}

void* WakeOnStopSignal(void*) {
  char byte;
  for (;;) {
    const ssize_t n = read(g_stopPipe[0], &byte, 1);
    if (n > 0)
      QEventWake();
    else if (n == 0 || errno != EINTR)
      return nullptr;
  }
}

// False when the waker could not be made; a stop is then seen at the loop's next wake.
bool StartStopWaker() {
  pthread_t waker;
  if (pipe2(g_stopPipe, O_CLOEXEC) != 0) return false;
  fcntl(g_stopPipe[1], F_SETFL, O_NONBLOCK);
  if (pthread_create(&waker, nullptr, &WakeOnStopSignal, nullptr) != 0) {
    close(g_stopPipe[0]);
    close(g_stopPipe[1]);
    g_stopPipe[0] = g_stopPipe[1] = -1;
    return false;
  }
  pthread_detach(waker);
  return true;
}

// A crash: give the monitor its desktop mode back, then die of the same signal. Leaving full
// screen is not async-signal-safe; the handler runs once (SA_RESETHAND), and the alarm ends a
// process that deadlocks in there, so the worst case is the crash as it would have been.
void OnCrashSignal(int sig) {
  alarm(2);
  QApp::PrepareForBox();
  raise(sig);
}

void InstallSignalHandlers() {
  if (!StartStopWaker())
    QWARN("main", "Can't start the stop-signal waker (%s); a stop waits for the next wake",
          strerror(errno));
  struct sigaction stop {};
  stop.sa_handler = &OnStopSignal;
  sigemptyset(&stop.sa_mask);
  stop.sa_flags = SA_RESTART;
  for (int sig : {SIGTERM, SIGINT, SIGHUP}) sigaction(sig, &stop, nullptr);
  struct sigaction crash {};
  crash.sa_handler = &OnCrashSignal;
  sigemptyset(&crash.sa_mask);
  crash.sa_flags = SA_RESETHAND | SA_NODEFER;
  for (int sig : {SIGSEGV, SIGBUS, SIGFPE, SIGABRT}) sigaction(sig, &crash, nullptr);
}

// The full start; never returns. `holdsLock`: no other copy can be at work in this folder.
[[noreturn]] void RunSlideshow(const char* arg, bool holdsLock) {
  if (holdsLock) RemoveStaleIniTemporaries("glimra.ini");
  InstallSignalHandlers();
  RaceManager* rm = new RaceManager();
  rm->Setup(arg);
  rm->Run();
}

// The help's paragraph on what is shown: the kinds the catalogue lists, named by their table,
// broken at spaces into lines of at most 79 columns.
std::string ShownKindsText() {
  size_t count = 0;
  const QPictureKind* kinds = qPictureKinds(&count);
  std::vector<const char*> names;
  for (size_t i = 0; i < count; ++i)
    if (kinds[i].Listed()) names.push_back(kinds[i].name);
  std::string text = "Shows the";
  for (size_t i = 0; i < names.size(); ++i)
    text += std::string(i == 0 ? " " : i + 1 == names.size() ? " and " : ", ") + names[i];
  text += " pictures of its folder, or of app.startup_directory in glimra.ini, one at a time and "
          "fitted to the screen's height; starts with PICTURE when one is given. When a copy "
          "already runs, hands PICTURE to it (the UDP datagram \"load PICTURE\" to 127.0.0.1, "
          "port network.port) and ends.";
  std::string out;
  size_t lineStart = 0;
  for (size_t at = 0; at < text.size();) {
    size_t end = text.find(' ', at);
    if (end == std::string::npos) end = text.size();
    if (out.size() > lineStart && out.size() - lineStart + 1 + (end - at) > 79) {
      out += '\n';
      lineStart = out.size();
    } else if (out.size() > lineStart) {
      out += ' ';
    }
    out.append(text, at, end - at);
    at = end + 1;
  }
  return out + "\n";
}

}  // namespace

// Sends `text` (without its terminating zero) as one datagram to host:port.
void QuickNetSend(const char* host, int port, const char* text) {
  QNSocket* s = new QNSocket(QNSocket::UDP, "UDPSend");
  s->SetNoBind();
  if (!s->Open(port)) {
    QWARN("QuickNetSend", "Can't open socket");
    delete s;
    return;
  }
  QNAddress to;
  to.GetByName(host);
  to.Set(QNAddress::FAMILY_INET, to.GetAddress(), port);
  s->Write(text, int(strlen(text)), &to);
  s->Close();
  delete s;
}

int main(int argc, char** argv) {
  // --help and --version answer before anything starts (no folder change, log, network or
  // window), so that they work anywhere, even beside a running copy. Any other argument is a
  // picture.
  if (argc > 1 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "--version") == 0)) {
    if (strcmp(argv[1], "--version") == 0) {
      printf("glimra %s\n", GLIMRA_VERSION);
      return 0;
    }
    printf(
        "Usage: glimra [PICTURE]\n"
        "       glimra --help | --version\n"
        "\n"
        "%s"
        "\n"
        "Keys: Left/Right previous/next picture, B black and white, C colour,\n"
        "      I information line on/off, Escape quit.\n"
        "The configuration glimra.ini and the log QLOG.txt lie beside the program.\n"
        "See glimra(1).\n",
        ShownKindsText().c_str());
    return 0;
  }

  const char* arg = argc > 1 ? argv[1] : nullptr;
  // Picture-sized blocks go straight back to the system when freed. Left to itself the C
  // library raises this threshold after the first such free and then keeps later pictures in
  // its heap, so a display that runs for months would hold its largest pictures' worth for good.
  mallopt(M_MMAP_THRESHOLD, 256 * 1024);
  // Taken before the program's folder is entered: a relative argument means a file here.
  qstring startDir;
  QGetCurrentDirectory(&startDir);

  // The program's own folder holds its configuration, font and log, except in a developer's
  // tree ("source" in the path, in any case), where the starting directory is kept. The test
  // looks at a lower-cased copy; the folder itself is entered by its real name, since file names
  // here are case-sensitive.
  const std::string dir = ExeDirectory();
  std::string lower = dir;
  qstrlwr(&lower[0]);
  if (!dir.empty() && lower.find("source") == std::string::npos) QSetCurrentDirectory(dir.c_str());

  // The lock first: process names alone cannot settle a tie, as each start sees the other.
  int lock = OpenInstanceLock();
  bool won = TakeLock(&lock);
  if (lock < 0 ? CountRunningCopies(false) < 2 : won && CountRunningCopies(true) < 2)
    RunSlideshow(arg, won);

  QDBG("main", "Already running; pass arg to existing app");
  if (!arg) return 0;  // nothing to hand over
  QIni* ini = new QIni("glimra.ini");
  qstring text("load ");
  text += HandOffPath(arg, startDir).c_str();
  // The running copy may listen on one address only, and with the developer's port offset; it
  // is reached there.
  qstring listen;
  const bool one = CommandListenAddress(ini, &listen);
  const int offset = ini->GetInt("dev.port_offset", 0);
  const int port = CommandPort(ini) + (offset >= 1 ? offset : 0);
  delete ini;
  // A copy that started a moment ago may not listen yet; one that ended, or never came up,
  // leaves the lock free.
  const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(kHandOffWaitMs);
  for (;;) {
    if (UdpPortBound(port)) {
      QuickNetSend(one ? listen.cstr() : "127.0.0.1", port, text.cstr());
      return 0;
    }
    if (!won && TakeLock(&lock)) won = true;
    if (won && CountRunningCopies(true) < 2) RunSlideshow(arg, true);
    if (std::chrono::steady_clock::now() >= until) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  QWARN("main", "No running copy listens on port %d after %d ms; starting", port, kHandOffWaitMs);
  RunSlideshow(arg, false);
}
