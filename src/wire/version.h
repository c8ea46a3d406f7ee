// The daemon's name and version, "nightjard v3.7.3", taken from the build's
// project version: the answer of "build.version" and the line of -v. Kept
// with the wire so the daemon's API, its start and the tools read one text.
#pragma once

#include <string_view>

namespace nightjar::wire {

std::string_view versionText();

}  // namespace nightjar::wire
