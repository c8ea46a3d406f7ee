// A short notice shown to the user at the console, if one can be reached.
#pragma once

#include <functional>
#include <string>

namespace nightjar::platform {

class ConsoleNotice {
 public:
  virtual ~ConsoleNotice() = default;
  ConsoleNotice() = default;
  ConsoleNotice(const ConsoleNotice&) = delete;
  ConsoleNotice& operator=(const ConsoleNotice&) = delete;

  // Shows `header` and `message` with one "OK" button, closing it again after
  // `seconds`. Never blocks: answers false at once when no console user's
  // desktop can be reached (nothing is shown), else true. The closing is the
  // caller's to time; close() ends the notice early or is harmless.
  // Run-loop thread only.
  virtual bool show(const std::string& header, const std::string& message, double seconds) = 0;
  virtual void close() = 0;
};

}  // namespace nightjar::platform
