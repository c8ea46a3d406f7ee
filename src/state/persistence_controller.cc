// The module's process-wide marker: only its name, kept while it exists.
#include <optional>
#include <string>

#include "state/saved_state.h"

namespace nightjar::state {

namespace {
std::optional<std::string> gControllerName;
}  // namespace

void persistenceControllerCreate() {
  if (!gControllerName)
    gControllerName = "persistenceController";
}

void persistenceControllerDestroy() {
  gControllerName.reset();
}

std::string_view persistenceControllerName() {
  return gControllerName ? std::string_view(*gControllerName) : std::string_view();
}

}  // namespace nightjar::state
