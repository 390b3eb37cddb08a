// TempDir: a private directory under /tmp, removed with everything below it when it goes;
// TempDirTest gives each test a fresh `dir_`. The file helpers work on whole files, any path.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

class TempDir {
 public:
  // A failed mkdtemp fails the running test and leaves Path() empty.
  explicit TempDir(const char* prefix = "glimra_test");
  // A tree that cannot be removed fails the running test.
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& Path() const { return path_; }
  // `name` below the directory.
  std::string File(const std::string& name) const { return path_ + "/" + name; }
  // Writes `name` below the directory and answers its path; a failed write fails the test.
  std::string Write(const std::string& name, const std::string& content) const;

 private:
  std::string path_;
};

class TempDirTest : public ::testing::Test {
 protected:
  explicit TempDirTest(const char* prefix = "glimra_test") : tmp_(prefix), dir_(tmp_.Path()) {}
  std::string Tmp(const std::string& name) const { return tmp_.File(name); }
  std::string MakeFile(const std::string& name, const std::string& content) const {
    return tmp_.Write(name, content);
  }

  TempDir tmp_;
  const std::string dir_;
};

// False when the file cannot be created or written whole.
bool WriteFile(const std::string& path, const std::string& content);
bool WriteFile(const std::string& path, const std::vector<uint8_t>& bytes);
// The whole file; empty when it cannot be read.
std::string ReadFile(const std::string& path);
std::vector<uint8_t> ReadBytes(const std::string& path);
// The committed test pictures, and one of them whole (a failure when it is missing or empty).
const std::string kTestImages = std::string(GLIMRA_SOURCE_DIR) + "/tests/data/images/";
inline std::vector<uint8_t> ImageFixture(const std::string& name) {
  std::vector<uint8_t> b = ReadBytes(kTestImages + name);
  EXPECT_FALSE(b.empty()) << name;
  return b;
}
// Removes a file or a directory with everything below it; false when anything stays.
bool RemoveTree(const std::string& path);

// Sets (or with null unsets) an environment variable for one scope.
struct ScopedEnv {
  ScopedEnv(const char* name, const char* value) : name_(name), had_(getenv(name) != nullptr) {
    if (had_) old_ = getenv(name);
    value ? setenv(name, value, 1) : unsetenv(name);
  }
  ~ScopedEnv() { had_ ? setenv(name_.c_str(), old_.c_str(), 1) : unsetenv(name_.c_str()); }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;
  std::string name_, old_;
  bool had_;
};
