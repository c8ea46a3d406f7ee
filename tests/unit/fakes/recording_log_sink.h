// Captures log lines for tests; installs itself for its lifetime.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "logging/logging.h"

namespace nightjar::testing {

class RecordingLogSink final : public logging::LogSink {
 public:
  RecordingLogSink() { logging::setLogSink(this); }
  ~RecordingLogSink() override { logging::setLogSink(nullptr); }

  void write(int priority, std::string_view line) override {
    lines.emplace_back(priority, std::string(line));
  }
  std::vector<std::string> texts() const {
    std::vector<std::string> out;
    for (const auto& [priority, text] : lines)
      out.push_back(text);
    return out;
  }
  bool logged(const std::string& line) const {
    const std::vector<std::string> all = texts();
    return std::find(all.begin(), all.end(), line) != all.end();
  }
  // The names of the events performed so far, from the notices "Performing: "
  // and the name's description, in quotes.
  std::vector<std::string> performed() const {
    std::vector<std::string> names;
    for (const auto& [priority, line] : lines) {
      if (priority == LOG_NOTICE && line.starts_with("Performing: \""))
        names.push_back(line.substr(13, line.size() - 14));
    }
    return names;
  }

  std::vector<std::pair<int, std::string>> lines;
};

}  // namespace nightjar::testing
