// A fake /proc for the authorization tests: stat lines whose start time the
// test chooses, and forms that name them.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <fstream>
#include <string>

#include "platform/temporary_root.h"
#include "wire/authorization_form.h"

namespace nightjar::testing {

// A stat line in the kernel's shape; the command name holds ") " to prove the
// fields are counted from its last parenthesis.
inline std::string statLine(pid_t pid, std::uint64_t startTime) {
  std::string line = std::to_string(pid) + " (evil) S 1 2) S 1 1 1 0 -1 4194560 100 0 0 0";
  line += " 1 2 0 0 20 0 1 0 " + std::to_string(startTime) + " 1000 200 18446744073709551615\n";
  return line;
}

struct FakeProc {
  void add(pid_t pid, std::uint64_t startTime) { write(pid, statLine(pid, startTime)); }
  void write(pid_t pid, const std::string& text) {
    const std::string folder = root / ("/" + std::to_string(pid));
    ::mkdir(folder.c_str(), 0755);
    std::ofstream(folder + "/stat", std::ios::trunc) << text;
  }
  TemporaryRoot root;
};

inline plist::Value formValue(std::uint32_t pid, std::uint32_t uid, std::uint64_t startTime) {
  return plist::Value::data(api::encodeExternalForm({pid, uid, startTime}));
}

}  // namespace nightjar::testing
