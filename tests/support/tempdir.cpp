#include "support/tempdir.h"

#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

TempDir::TempDir(const char* prefix) {
  std::string tmpl = std::string("/tmp/") + prefix + "_XXXXXX";
  if (mkdtemp(tmpl.data()))
    path_ = tmpl;
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

}  // namespace

bool WriteFile(const std::string& path, const std::string& content) {
  return WriteBytes(path, content.data(), content.size());
}

bool WriteFile(const std::string& path, const std::vector<uint8_t>& bytes) {
  return WriteBytes(path, bytes.data(), bytes.size());
}

std::string ReadFile(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

std::vector<uint8_t> ReadBytes(const std::string& path) {
  const std::string s = ReadFile(path);
  return std::vector<uint8_t>(s.begin(), s.end());
}

bool RemoveTree(const std::string& path) {
  std::error_code ec;
  std::filesystem::remove_all(path, ec);  // links are removed, not followed
  return !ec;
}
