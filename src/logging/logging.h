// The daemon's log: printf-style lines with "%@" for property-list values,
// written through a LogSink (syslog by default).
#pragma once

#include <syslog.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

#include "plist/value.h"

namespace nightjar::logging {

// Where finished log lines go. Ports do not log; modules do, through here.
class LogSink {
 public:
  virtual ~LogSink() = default;
  // `line` is the finished text: nothing in it is a directive any more.
  virtual void write(int priority, std::string_view line) = 0;
};

// syslog(3) with ident "nightjard", LOG_PID, LOG_DAEMON (opened by openLog).
std::unique_ptr<LogSink> makeSyslogSink();
// Standard error, each line prefixed "<N>" with its priority.
std::unique_ptr<LogSink> makeStderrSink();

// Installs the process-wide sink; nullptr restores the syslog sink. The caller
// keeps ownership and must uninstall before destroying it.
void setLogSink(LogSink* sink);
LogSink& logSink();

// Opens the log as the daemon does: standard error when NIGHTJAR_LOG=stderr and
// descriptor 2 is open, else syslog.
void openLog();
// Opens syslog whatever NIGHTJAR_LOG says: for a detached daemon, whose
// descriptor 2 is closed and soon reused for something else.
void openSystemLog();
void closeLog();

// One formatting argument. "%@" takes a Value (a string inserts its text
// without quotes, any other kind its description) or a C string; every other
// directive takes the matching number or C string as printf would.
using LogArg =
    std::variant<std::int64_t, std::uint64_t, double, const char*, const void*, plist::Value>;

// Expands `format` with `args`. "%m" takes no argument and inserts the text of
// `errorNumber`, as syslog does with errno. A directive without a matching
// argument, or with one of the wrong kind, expands to nothing: formatting never
// crashes.
std::string formatLogLine(std::string_view format, const std::vector<LogArg>& args,
                          int errorNumber);
// The same, with "%m" naming errno as it is now.
inline std::string formatLogLine(std::string_view format, const std::vector<LogArg>& args) {
  return formatLogLine(format, args, errno);
}

namespace detail {
template <typename T>
LogArg toLogArg(const T& value) {
  using D = std::decay_t<T>;
  if constexpr (std::is_same_v<D, plist::Value>) {
    return value;
  } else if constexpr (std::is_same_v<D, std::string>) {
    return plist::Value::string(value);
  } else if constexpr (std::is_same_v<D, std::string_view>) {
    return plist::Value::string(std::string(value));
  } else if constexpr (std::is_same_v<D, bool>) {
    return static_cast<std::int64_t>(value);
  } else if constexpr (std::is_floating_point_v<D>) {
    return static_cast<double>(value);
  } else if constexpr (std::is_integral_v<D> && std::is_signed_v<D>) {
    return static_cast<std::int64_t>(value);
  } else if constexpr (std::is_integral_v<D>) {
    return static_cast<std::uint64_t>(value);
  } else if constexpr (std::is_convertible_v<D, const char*>) {
    return static_cast<const char*>(value);
  } else {
    static_assert(std::is_pointer_v<D>, "unsupported log argument");
    return static_cast<const void*>(value);
  }
}
}  // namespace detail

// Logs one line at `priority` (LOG_ERR, LOG_NOTICE, LOG_INFO, LOG_DEBUG). As
// with syslog, "%m" names errno as it was at the call, and errno is kept.
template <typename... Args>
void logMessage(int priority, std::string_view format, const Args&... args) {
  const int callerErrno = errno;  // before building the arguments can touch it
  logSink().write(priority, formatLogLine(format, {detail::toLogArg(args)...}, callerErrno));
  errno = callerErrno;
}

// Logs `value`'s description through a format with one "%@"; a format without
// "%@" is logged as logMessage logs it without arguments.
void logValue(int priority, std::string_view format, const plist::Value& value);

}  // namespace nightjar::logging
