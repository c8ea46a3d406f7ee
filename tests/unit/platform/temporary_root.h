// A temporary folder standing in for the daemon's root, removed when it goes,
// and the file helpers of the tests that use one.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

namespace nightjar::testing {

struct TemporaryRoot {
  TemporaryRoot() {
    char pattern[] = "/tmp/nightjar-root-XXXXXX";
    if (mkdtemp(pattern) != nullptr)
      path = pattern;
  }
  ~TemporaryRoot() {
    std::error_code ignored;
    if (!path.empty())
      std::filesystem::remove_all(path, ignored);
  }
  // `absolutePath` ("/etc/x") under the root.
  std::string operator/(const std::string& absolutePath) const { return path + absolutePath; }

  std::string path;
};

// The whole content of the file at `path`; empty when it cannot be read.
inline std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// Replaces the file at `path` with `text`, making its folders first.
inline void writeFile(const std::filesystem::path& path, const std::string& text) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

// The texts of the files kept aside as unreadable beside `path` ("" for a
// folder).
inline std::multiset<std::string> keptAside(const std::filesystem::path& path) {
  std::multiset<std::string> kept;
  for (const auto& entry : std::filesystem::directory_iterator(path.parent_path())) {
    if (entry.path().filename().string().starts_with(path.filename().string() + ".unreadable-"))
      kept.insert(entry.is_regular_file() ? readFile(entry.path()) : "");
  }
  return kept;
}

}  // namespace nightjar::testing
