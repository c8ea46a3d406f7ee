#include "platform/linux/daemon_root.h"

#include <cstdlib>

namespace nightjar::platform::linux_adapter {

std::string daemonRoot() {
  const char* root = std::getenv("NIGHTJAR_ROOT");
  if (root == nullptr || *root == '\0')
    return "/";
  return root;
}

std::string underRoot(std::string_view root, std::string_view absolutePath) {
  std::string result(root);
  while (!result.empty() && result.back() == '/')
    result.pop_back();
  if (absolutePath.empty() || absolutePath.front() != '/')
    result += '/';
  result += absolutePath;
  return result;
}

}  // namespace nightjar::platform::linux_adapter
