// Puts the system to sleep now.
#pragma once

#include <functional>

namespace nightjar::platform {

class SystemSleep {
 public:
  virtual ~SystemSleep() = default;
  SystemSleep() = default;
  SystemSleep(const SystemSleep&) = delete;
  SystemSleep& operator=(const SystemSleep&) = delete;

  // 0, or a positive error number saying why the sleep was refused.
  using Completion = std::function<void(int error)>;
  // Asks for system sleep without waiting for it: the request goes out and
  // `completion` is called later from the run loop with its answer (the power
  // manager first announces the sleep, and waits for its listeners, this
  // daemon among them, before it answers). `completion` may be empty.
  // Run-loop thread only.
  virtual void sleepNow(Completion completion) = 0;
};

}  // namespace nightjar::platform
