#include "wire/version.h"

namespace nightjar::wire {

std::string_view versionText() {
  return "nightjard v" NIGHTJAR_VERSION;
}

}  // namespace nightjar::wire
