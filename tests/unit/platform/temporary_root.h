// A temporary folder standing in for the daemon's root; removed when it goes.
#pragma once

#include <stdlib.h>

#include <filesystem>
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

}  // namespace nightjar::testing
