#include "app/picture_index.h"

#include <sqlite3.h>
#include <stdio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "framework/qmessage.h"

namespace {

// Bumped whenever a table changes; a file of any other version is made anew.
constexpr int kVersion = 1;

const char* const kSchema =
    "CREATE TABLE roots(id INTEGER PRIMARY KEY, folder TEXT NOT NULL UNIQUE);"
    "CREATE TABLE pictures(root INTEGER NOT NULL, path TEXT NOT NULL, size INTEGER NOT NULL,"
    " modified INTEGER NOT NULL, taken INTEGER NOT NULL, orientation INTEGER NOT NULL,"
    " width INTEGER NOT NULL, height INTEGER NOT NULL, PRIMARY KEY(root, path)) WITHOUT ROWID;"
    "CREATE TABLE state(root INTEGER NOT NULL, key TEXT NOT NULL, value TEXT NOT NULL,"
    " PRIMARY KEY(root, key)) WITHOUT ROWID;"
    "CREATE TABLE round(root INTEGER NOT NULL, pos INTEGER NOT NULL, path TEXT NOT NULL,"
    " PRIMARY KEY(root, pos)) WITHOUT ROWID;"
    "PRAGMA user_version=1;";

struct StmtDeleter {
  void operator()(sqlite3_stmt* s) const { sqlite3_finalize(s); }
};
using Stmt = std::unique_ptr<sqlite3_stmt, StmtDeleter>;

struct ConnDeleter {
  void operator()(sqlite3* c) const { sqlite3_close_v2(c); }
};
using Conn = std::unique_ptr<sqlite3, ConnDeleter>;

bool Damaged(int code) {
  code &= 0xff;
  return code == SQLITE_CORRUPT || code == SQLITE_NOTADB;
}

void Bind(sqlite3_stmt* s, int i, const std::string& text) {
  sqlite3_bind_text(s, i, text.data(), int(text.size()), SQLITE_STATIC);
}

std::string Text(sqlite3_stmt* s, int col) {
  const char* t = reinterpret_cast<const char*>(sqlite3_column_text(s, col));
  return t ? std::string(t, size_t(sqlite3_column_bytes(s, col))) : std::string();
}

// Steps a statement that returns no rows and makes it ready for the next use.
int Run(sqlite3_stmt* s) {
  int rc = sqlite3_step(s);
  int reset = sqlite3_reset(s);
  return rc == SQLITE_DONE || rc == SQLITE_ROW ? reset : rc;
}

// Removes the file and its journals; false when the file itself stays.
bool RemoveFiles(const std::string& file) {
  unlink((file + "-wal").c_str());
  unlink((file + "-shm").c_str());
  return unlink(file.c_str()) == 0 || access(file.c_str(), F_OK) != 0;
}

// Warns that `file` is damaged and moves it to `file` + ".broken" (replacing an older one), its
// journals dropped; false, warned, when it cannot be moved.
bool SetAside(const char* method, const std::string& file, const std::string& why) {
  const std::string aside = file + ".broken";
  QWARN(method, "Index '%s' is damaged ('%s'); set aside as '%s' and made anew", file.c_str(),
        why.c_str(), aside.c_str());
  if (rename(file.c_str(), aside.c_str()) == 0 && RemoveFiles(file)) return true;
  QWARN(method, "Can't set the index '%s' aside (%s); going on without an index", file.c_str(),
        strerror(errno));
  return false;
}

}  // namespace

struct PictureIndex::Db {
  Conn conn;  // declared first: closed after the statements are finalised
  int64_t root = 0;
  Stmt begin, commit, rollback;
  Stmt put, remove, load, getState, setState, roundClear, roundAdd, roundGet;

  int Exec(const char* sql) { return sqlite3_exec(conn.get(), sql, nullptr, nullptr, nullptr); }
  int Prepare(Stmt* out, const char* sql) {
    sqlite3_stmt* s = nullptr;
    int rc = sqlite3_prepare_v3(conn.get(), sql, -1, SQLITE_PREPARE_PERSISTENT, &s, nullptr);
    out->reset(s);
    return rc;
  }
  // The first column of the query's first row (`text` bound to ?1 when given); `value`
  // untouched when there is none.
  int Integer(const char* sql, int64_t* value, const std::string* text = nullptr) {
    Stmt s;
    int rc = Prepare(&s, sql);
    if (rc != SQLITE_OK) return rc;
    if (text) Bind(s.get(), 1, *text);
    rc = sqlite3_step(s.get());
    if (rc == SQLITE_ROW) *value = sqlite3_column_int64(s.get(), 0);
    return rc == SQLITE_ROW || rc == SQLITE_DONE ? SQLITE_OK : rc;
  }
  // Runs `body` (answering an SQLite code) between BEGIN and COMMIT, rolling back on failure.
  template <class F>
  int Transaction(F&& body) {
    int rc = Run(begin.get());
    if (rc != SQLITE_OK) return rc;
    rc = body();
    if (rc == SQLITE_OK) rc = Run(commit.get());
    if (rc != SQLITE_OK) Run(rollback.get());
    return rc;
  }
};

PictureIndex::PictureIndex() = default;

PictureIndex::~PictureIndex() { Close(); }

bool PictureIndex::IsOpen() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return db_ != nullptr;
}

void PictureIndex::Close() {
  std::lock_guard<std::mutex> lock(mutex_);
  CloseLocked();
}

void PictureIndex::CloseLocked() { db_.reset(); }

bool PictureIndex::Open(const std::string& file, const std::string& root) {
  std::lock_guard<std::mutex> lock(mutex_);
  CloseLocked();
  file_ = file;
  root_ = root;
  return OpenLocked();
}

// Opens file_ for root_; damage or another version is dealt with once, then any failure warns.
bool PictureIndex::OpenLocked() {
  for (int attempt = 0; attempt < 2; ++attempt) {
    auto db = std::make_unique<Db>();
    sqlite3* conn = nullptr;
    int rc = sqlite3_open_v2(file_.c_str(), &conn, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE |
                             SQLITE_OPEN_NOMUTEX, nullptr);
    db->conn.reset(conn);
    if (rc == SQLITE_OK) {
      sqlite3_extended_result_codes(conn, 1);
      sqlite3_busy_timeout(conn, 2000);
    }
    int64_t version = 0, tables = 0;
    // The first statement reads the header: a file that is no database fails here.
    if (rc == SQLITE_OK) rc = db->Integer("PRAGMA user_version", &version);
    if (rc == SQLITE_OK) rc = db->Integer("SELECT count(*) FROM sqlite_master", &tables);
    if (rc == SQLITE_OK && attempt == 0 && version != kVersion && (version != 0 || tables != 0)) {
      QNOTE("PictureIndex::Open", "Index '%s' has version '%lld', not %d; made anew",
            file_.c_str(), static_cast<long long>(version), kVersion);
      db.reset();
      if (!RemoveFiles(file_)) {
        QWARN("PictureIndex::Open", "Can't remove the index '%s' of another version (%s); going on"
              " without an index", file_.c_str(), strerror(errno));
        return false;
      }
      continue;
    }
    if (rc == SQLITE_OK) rc = db->Exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL");
    if (rc == SQLITE_OK && tables == 0) rc = db->Exec(kSchema);
    // Also the test that the file can be written: a read-only one fails here, not later.
    if (rc == SQLITE_OK)
      rc = db->Integer("INSERT OR IGNORE INTO roots(folder) VALUES(?1)", &db->root, &root_);
    if (rc == SQLITE_OK)
      rc = db->Integer("SELECT id FROM roots WHERE folder=?1", &db->root, &root_);
    const struct {
      Stmt* stmt;
      const char* sql;
    } statements[] = {
        {&db->begin, "BEGIN IMMEDIATE"},
        {&db->commit, "COMMIT"},
        {&db->rollback, "ROLLBACK"},
        {&db->put, "INSERT OR REPLACE INTO pictures VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)"},
        {&db->remove, "DELETE FROM pictures WHERE root=?1 AND path=?2"},
        {&db->load, "SELECT path, size, modified, taken, orientation, width, height"
                    " FROM pictures WHERE root=?1"},
        {&db->getState, "SELECT value FROM state WHERE root=?1 AND key=?2"},
        {&db->setState, "INSERT OR REPLACE INTO state VALUES(?1, ?2, ?3)"},
        {&db->roundClear, "DELETE FROM round WHERE root=?1"},
        {&db->roundAdd, "INSERT INTO round VALUES(?1, ?2, ?3)"},
        {&db->roundGet, "SELECT path FROM round WHERE root=?1 ORDER BY pos"},
    };
    for (const auto& s : statements)
      if (rc == SQLITE_OK) rc = db->Prepare(s.stmt, s.sql);
    if (rc == SQLITE_OK) {
      db_ = std::move(db);
      return true;
    }
    const std::string why = conn ? sqlite3_errmsg(conn) : sqlite3_errstr(rc);
    db.reset();
    if (attempt == 0 && Damaged(rc)) {
      if (SetAside("PictureIndex::Open", file_, why)) continue;
      return false;
    }
    QWARN("PictureIndex::Open", "Can't open the index '%s' ('%s'); going on without an index",
          file_.c_str(), why.c_str());
    return false;
  }
  return false;
}

bool PictureIndex::Fail(const char* method, const char* what, int code) {
  const std::string why = sqlite3_errmsg(db_->conn.get());
  // Another process holding the file past the busy time-out is no reason to give the index up.
  if ((code & 0xff) == SQLITE_BUSY) {
    QWARN(method, "Can't %s in the index '%s' ('%s'); trying again next time", what,
          file_.c_str(), why.c_str());
    return false;
  }
  CloseLocked();
  if (Damaged(code)) {
    if (SetAside(method, file_, why)) OpenLocked();
    return false;
  }
  QWARN(method, "Can't %s in the index '%s' ('%s'); going on without an index", what,
        file_.c_str(), why.c_str());
  return false;
}

bool PictureIndex::Load(std::vector<IndexedPicture>* out) {
  std::lock_guard<std::mutex> lock(mutex_);
  out->clear();
  if (!db_) return false;
  sqlite3_stmt* s = db_->load.get();
  sqlite3_bind_int64(s, 1, db_->root);
  int rc;
  while ((rc = sqlite3_step(s)) == SQLITE_ROW) {
    IndexedPicture p;
    p.path = Text(s, 0);
    p.size = sqlite3_column_int64(s, 1);
    p.modified = sqlite3_column_int64(s, 2);
    p.taken = sqlite3_column_int64(s, 3);
    p.orientation = sqlite3_column_int(s, 4);
    p.width = sqlite3_column_int(s, 5);
    p.height = sqlite3_column_int(s, 6);
    out->push_back(std::move(p));
  }
  sqlite3_reset(s);
  if (rc == SQLITE_DONE) return true;
  out->clear();
  return Fail("PictureIndex::Load", "read the pictures", rc);
}

bool PictureIndex::Put(const std::vector<IndexedPicture>& rows) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!db_) return false;
  sqlite3_stmt* s = db_->put.get();
  int rc = db_->Transaction([&] {
    sqlite3_bind_int64(s, 1, db_->root);
    for (const IndexedPicture& p : rows) {
      Bind(s, 2, p.path);
      sqlite3_bind_int64(s, 3, p.size);
      sqlite3_bind_int64(s, 4, p.modified);
      sqlite3_bind_int64(s, 5, p.taken);
      sqlite3_bind_int(s, 6, p.orientation);
      sqlite3_bind_int(s, 7, p.width);
      sqlite3_bind_int(s, 8, p.height);
      int step = Run(s);
      if (step != SQLITE_OK) return step;
    }
    return SQLITE_OK;
  });
  return rc == SQLITE_OK || Fail("PictureIndex::Put", "store pictures", rc);
}

bool PictureIndex::Remove(const std::vector<std::string>& paths) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!db_) return false;
  sqlite3_stmt* s = db_->remove.get();
  int rc = db_->Transaction([&] {
    sqlite3_bind_int64(s, 1, db_->root);
    for (const std::string& path : paths) {
      Bind(s, 2, path);
      int step = Run(s);
      if (step != SQLITE_OK) return step;
    }
    return SQLITE_OK;
  });
  return rc == SQLITE_OK || Fail("PictureIndex::Remove", "remove pictures", rc);
}

bool PictureIndex::SetState(const std::string& key, const std::string& value) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!db_) return false;
  sqlite3_stmt* s = db_->setState.get();
  int rc = db_->Transaction([&] {
    sqlite3_bind_int64(s, 1, db_->root);
    Bind(s, 2, key);
    Bind(s, 3, value);
    return Run(s);
  });
  return rc == SQLITE_OK || Fail("PictureIndex::SetState", "store a state", rc);
}

bool PictureIndex::GetState(const std::string& key, std::string* value) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!db_) return false;
  sqlite3_stmt* s = db_->getState.get();
  sqlite3_bind_int64(s, 1, db_->root);
  Bind(s, 2, key);
  int rc = sqlite3_step(s);
  if (rc == SQLITE_ROW) *value = Text(s, 0);
  sqlite3_reset(s);
  if (rc == SQLITE_ROW) return true;
  return rc == SQLITE_DONE ? false : Fail("PictureIndex::GetState", "read a state", rc);
}

bool PictureIndex::SetRound(const std::vector<std::string>& paths) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!db_) return false;
  int rc = db_->Transaction([&] {
    sqlite3_stmt* clear = db_->roundClear.get();
    sqlite3_bind_int64(clear, 1, db_->root);
    int step = Run(clear);
    sqlite3_stmt* add = db_->roundAdd.get();
    sqlite3_bind_int64(add, 1, db_->root);
    for (size_t i = 0; i < paths.size() && step == SQLITE_OK; ++i) {
      sqlite3_bind_int64(add, 2, int64_t(i));
      Bind(add, 3, paths[i]);
      step = Run(add);
    }
    return step;
  });
  return rc == SQLITE_OK || Fail("PictureIndex::SetRound", "store the round", rc);
}

bool PictureIndex::GetRound(std::vector<std::string>* paths) {
  std::lock_guard<std::mutex> lock(mutex_);
  paths->clear();
  if (!db_) return false;
  sqlite3_stmt* s = db_->roundGet.get();
  sqlite3_bind_int64(s, 1, db_->root);
  int rc;
  while ((rc = sqlite3_step(s)) == SQLITE_ROW) paths->push_back(Text(s, 0));
  sqlite3_reset(s);
  if (rc == SQLITE_DONE) return true;
  paths->clear();
  return Fail("PictureIndex::GetRound", "read the round", rc);
}
