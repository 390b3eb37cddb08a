#include "support/tempdir.h"

#include <ftw.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <vector>

TempDir::TempDir(const char* prefix) {
  std::string tmpl = std::string("/tmp/") + prefix + "_XXXXXX";
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back('\0');
  if (mkdtemp(buf.data()))
    path_ = buf.data();
  else
    ADD_FAILURE() << "mkdtemp '" << tmpl << "' failed";
}

TempDir::~TempDir() {
  if (!path_.empty() && !RemoveTree(path_)) ADD_FAILURE() << "could not remove '" << path_ << "'";
}

std::string TempDir::Write(const std::string& name, const std::string& content) const {
  const std::string path = File(name);
  if (!WriteFile(path, content)) ADD_FAILURE() << "could not write '" << path << "'";
  return path;
}

namespace {

bool WriteBytes(const std::string& path, const void* data, size_t size) {
  unlink(path.c_str());  // a fresh file: truncating one in place makes ext4 flush it to disk
  FILE* f = fopen(path.c_str(), "wb");
  if (!f) return false;
  const bool ok = size == 0 || fwrite(data, 1, size, f) == size;
  return fclose(f) == 0 && ok;
}

// Children come first (FTW_DEPTH), so every directory is empty when its turn comes.
int RemoveOne(const char* path, const struct stat*, int, struct FTW*) {
  return remove(path) == 0 ? 0 : -1;
}

}  // namespace

bool WriteFile(const std::string& path, const std::string& content) {
  return WriteBytes(path, content.data(), content.size());
}

bool WriteFile(const std::string& path, const std::vector<uint8_t>& bytes) {
  return WriteBytes(path, bytes.data(), bytes.size());
}

std::string ReadFile(const std::string& path) {
  std::string out;
  FILE* f = fopen(path.c_str(), "rb");
  if (!f) return out;
  char buf[65536];
  for (size_t n; (n = fread(buf, 1, sizeof(buf), f)) > 0;) out.append(buf, n);
  fclose(f);
  return out;
}

std::vector<uint8_t> ReadBytes(const std::string& path) {
  const std::string s = ReadFile(path);
  return std::vector<uint8_t>(s.begin(), s.end());
}

bool RemoveTree(const std::string& path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return true;  // nothing there
  nftw(path.c_str(), RemoveOne, 16, FTW_DEPTH | FTW_PHYS);
  return lstat(path.c_str(), &st) != 0;
}
