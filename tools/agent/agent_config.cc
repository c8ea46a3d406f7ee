#include "agent_config.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>

#include "human_time.h"

namespace nightjar::agent {
namespace {

std::string_view trimmed(std::string_view text) {
  const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r'; };
  while (!text.empty() && blank(text.front()))
    text.remove_prefix(1);
  while (!text.empty() && blank(text.back()))
    text.remove_suffix(1);
  return text;
}

// The value of `key` in `group`, the last one when it is given twice.
std::string_view valueOf(std::string_view text, std::string_view group, std::string_view key) {
  std::string_view current;
  std::string_view value;
  bool found = false;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    const std::string_view line = trimmed(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
    if (line.empty() || line.front() == '#' || line.front() == ';')
      continue;
    if (line.front() == '[' && line.back() == ']') {
      current = line.substr(1, line.size() - 2);
      continue;
    }
    const std::size_t equals = line.find('=');
    if (current == group && equals != std::string_view::npos &&
        trimmed(line.substr(0, equals)) == key) {
      value = trimmed(line.substr(equals + 1));
      found = true;
    }
  }
  return found ? value : std::string_view();
}

}  // namespace

std::vector<long> defaultDelayChoices() {
  return {600, 3600};
}

std::vector<long> parseDelayChoices(std::string_view text) {
  std::string_view list = valueOf(text, "delay", "choices");
  std::vector<long> choices;
  while (!list.empty() && choices.size() < kMaxDelayChoices) {
    const std::size_t end = std::min(list.find(','), list.size());
    const std::optional<long> seconds = ctl::parseDuration(trimmed(list.substr(0, end)));
    list.remove_prefix(std::min(end + 1, list.size()));
    if (seconds && *seconds >= 1 && *seconds <= kMaxDelaySeconds &&
        std::find(choices.begin(), choices.end(), *seconds) == choices.end())
      choices.push_back(*seconds);
  }
  return choices.empty() ? defaultDelayChoices() : choices;
}

std::string configPath() {
  const char* config = std::getenv("XDG_CONFIG_HOME");
  if (config != nullptr && *config == '/')
    return std::string(config) + "/nightjar/agent.conf";
  const char* home = std::getenv("HOME");
  if (home != nullptr && *home != '\0')
    return std::string(home) + "/.config/nightjar/agent.conf";
  return {};
}

std::vector<long> loadDelayChoices() {
  const std::string path = configPath();
  std::ifstream file(path, std::ios::binary);
  if (path.empty() || !file)
    return defaultDelayChoices();
  std::string text(kMaxConfigBytes, '\0');
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(file.gcount()));
  return parseDelayChoices(text);
}

}  // namespace nightjar::agent
