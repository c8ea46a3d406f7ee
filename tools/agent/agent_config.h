// The agent's settings: an optional key file, "$XDG_CONFIG_HOME/nightjar/
// agent.conf" (XDG_CONFIG_HOME defaults to "~/.config"). One key is read:
//   [delay]
//   choices=10m,1h
// the delays offered on each warning, in the order given.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace nightjar::agent {

// The file is small by nature: a longer one is read up to this many bytes.
inline constexpr std::size_t kMaxConfigBytes = 4096;
// A notice has room for a few buttons, Cancel among them.
inline constexpr std::size_t kMaxDelayChoices = 4;
// The daemon takes delays of at most one day.
inline constexpr long kMaxDelaySeconds = 86400;

// 10 minutes and 1 hour.
std::vector<long> defaultDelayChoices();

// The choices of "[delay] choices" in `text`: durations as nightjarctl reads
// them ("90", "10m", "1h30m"), from 1 s to one day, each once, at most
// kMaxDelayChoices; items that are not such a duration are skipped. The
// defaults when the key is absent or leaves nothing.
std::vector<long> parseDelayChoices(std::string_view text);

// The file's path; empty when neither XDG_CONFIG_HOME nor HOME is set.
std::string configPath();

// parseDelayChoices of the file; the defaults when it cannot be read.
std::vector<long> loadDelayChoices();

}  // namespace nightjar::agent
