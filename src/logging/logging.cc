#include "logging/logging.h"

#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "plist/describe.h"

namespace nightjar::logging {
namespace {

constexpr char kIdent[] = "nightjard";

class SyslogSink final : public LogSink {
 public:
  void write(int priority, std::string_view line) override {
    syslog(priority, "%.*s", static_cast<int>(line.size()), line.data());
  }
};

class StderrSink final : public LogSink {
 public:
  void write(int priority, std::string_view line) override {
    // One write per line, so that lines of concurrent writers never interleave.
    char prefix[16];
    int prefixLength = std::snprintf(prefix, sizeof prefix, "<%d>", priority & LOG_PRIMASK);
    std::string text;
    text.reserve(static_cast<std::size_t>(prefixLength) + line.size() + 1);
    text.append(prefix, static_cast<std::size_t>(prefixLength));
    text.append(line);

    text.push_back('\n');
    std::size_t done = 0;
    while (done < text.size()) {
      ssize_t n = ::write(STDERR_FILENO, text.data() + done, text.size() - done);
      if (n <= 0)
        return;
      done += static_cast<std::size_t>(n);
    }
  }
};

SyslogSink& defaultSink() {
  static SyslogSink sink;
  return sink;
}

std::unique_ptr<LogSink>& openedSink() {
  static std::unique_ptr<LogSink> sink;
  return sink;
}

LogSink*& installedSink() {
  static LogSink* sink = nullptr;
  return sink;
}

// One printf directive, split into the parts we rebuild for snprintf.
struct Directive {
  std::string flags;
  std::string width;
  std::string precision;  // including the '.'
  char conversion = 0;
};

bool isFlag(char c) {
  return std::strchr("-+ #0'", c) != nullptr && c != '\0';
}
bool isLength(char c) {
  return std::strchr("hljztLq", c) != nullptr && c != '\0';
}

class ArgCursor {
 public:
  explicit ArgCursor(const std::vector<LogArg>& args) : args_(args) {}
  const LogArg* next() { return index_ < args_.size() ? &args_[index_++] : nullptr; }

 private:
  const std::vector<LogArg>& args_;
  std::size_t index_ = 0;
};

std::optional<long long> asSigned(const LogArg* arg) {
  if (arg == nullptr)
    return std::nullopt;
  if (auto v = std::get_if<std::int64_t>(arg))
    return *v;
  if (auto v = std::get_if<std::uint64_t>(arg))
    return static_cast<long long>(*v);
  return std::nullopt;
}

// Reads a '*' width or precision from the arguments.
std::string starArgument(ArgCursor& cursor) {
  auto value = asSigned(cursor.next());
  return value ? std::to_string(*value) : std::string();
}

template <typename T>
std::string printfOne(const std::string& directive, T value) {
  char small[128];
  int n = std::snprintf(small, sizeof small, directive.c_str(), value);
  if (n < 0)
    return {};
  if (static_cast<std::size_t>(n) < sizeof small)
    return std::string(small, static_cast<std::size_t>(n));
  std::string big(static_cast<std::size_t>(n) + 1, '\0');
  std::snprintf(big.data(), big.size(), directive.c_str(), value);
  big.resize(static_cast<std::size_t>(n));
  return big;
}

std::string objectText(const LogArg* arg) {
  if (arg == nullptr)
    return {};
  if (auto text = std::get_if<const char*>(arg))
    return *text ? *text : "(null)";
  if (auto value = std::get_if<plist::Value>(arg)) {
    if (auto s = value->asString())
      return *s;
    return plist::describeValue(*value);
  }
  return {};
}

std::string expand(const Directive& d, ArgCursor& cursor, int errorNumber) {
  const std::string head = "%" + d.flags + d.width + d.precision;
  const LogArg* arg = nullptr;
  switch (d.conversion) {
    case '@':
      return objectText(cursor.next());
    case 'm':  // takes no argument
      return printfOne(head + "s", std::strerror(errorNumber));
    case 'd':
    case 'i':
      if (auto v = asSigned(cursor.next()))
        return printfOne(head + "lld", *v);
      return {};
    case 'u':
    case 'o':
    case 'x':
    case 'X':
      if (auto v = asSigned(cursor.next())) {
        return printfOne(head + "ll" + d.conversion, static_cast<unsigned long long>(*v));
      }
      return {};
    case 'c':
      if (auto v = asSigned(cursor.next()))
        return printfOne(head + "c", static_cast<int>(*v));
      return {};
    case 'f':
    case 'F':
    case 'e':
    case 'E':
    case 'g':
    case 'G':
    case 'a':
    case 'A':
      arg = cursor.next();
      if (auto v = arg ? std::get_if<double>(arg) : nullptr) {
        return printfOne(head + d.conversion, *v);
      }
      if (auto v = asSigned(arg))
        return printfOne(head + d.conversion, static_cast<double>(*v));
      return {};
    case 's':
      arg = cursor.next();
      if (arg == nullptr)
        return {};
      if (auto text = std::get_if<const char*>(arg)) {
        return printfOne(head + "s", *text ? *text : "(null)");
      }
      if (auto value = std::get_if<plist::Value>(arg); value && value->asString()) {
        return printfOne(head + "s", value->asString()->c_str());
      }
      return {};
    case 'p':
      arg = cursor.next();
      if (auto p = arg ? std::get_if<const void*>(arg) : nullptr)
        return printfOne(head + "p", *p);
      return {};
    default:  // %n and unknown conversions write nothing and consume nothing
      return {};
  }
}

// A closed descriptor 2 is soon reused (by the next socket or inotify
// descriptor), and log lines written there would be lost or corrupt it.
bool standardErrorIsOpen() {
  return fcntl(STDERR_FILENO, F_GETFD) != -1;
}

}  // namespace

std::unique_ptr<LogSink> makeSyslogSink() {
  return std::make_unique<SyslogSink>();
}
std::unique_ptr<LogSink> makeStderrSink() {
  return std::make_unique<StderrSink>();
}

void setLogSink(LogSink* sink) {
  installedSink() = sink;
}

LogSink& logSink() {
  if (installedSink() != nullptr)
    return *installedSink();
  if (openedSink() != nullptr)
    return *openedSink();
  return defaultSink();
}

void openLog() {
  const char* mode = std::getenv("NIGHTJAR_LOG");
  if (mode != nullptr && std::strcmp(mode, "stderr") == 0 && standardErrorIsOpen()) {
    openedSink() = makeStderrSink();
    return;
  }
  openSystemLog();
}

void openSystemLog() {
  openlog(kIdent, LOG_PID, LOG_DAEMON);
  openedSink().reset();
}

void closeLog() {
  if (openedSink() == nullptr)
    closelog();
}

std::string formatLogLine(std::string_view format, const std::vector<LogArg>& args,
                          int errorNumber) {
  std::string out;
  out.reserve(format.size());
  ArgCursor cursor(args);
  std::size_t i = 0;
  while (i < format.size()) {
    char c = format[i++];
    if (c != '%') {
      out.push_back(c);
      continue;
    }
    if (i < format.size() && format[i] == '%') {
      out.push_back('%');
      ++i;
      continue;
    }
    Directive d;
    while (i < format.size() && isFlag(format[i]))
      d.flags.push_back(format[i++]);
    if (i < format.size() && format[i] == '*') {
      ++i;
      d.width = starArgument(cursor);
    } else {
      while (i < format.size() && std::isdigit(static_cast<unsigned char>(format[i]))) {
        d.width.push_back(format[i++]);
      }
    }
    if (i < format.size() && format[i] == '.') {
      d.precision.push_back(format[i++]);
      if (i < format.size() && format[i] == '*') {
        ++i;
        d.precision += starArgument(cursor);
      } else {
        while (i < format.size() && std::isdigit(static_cast<unsigned char>(format[i]))) {
          d.precision.push_back(format[i++]);
        }
      }
    }
    while (i < format.size() && isLength(format[i]))
      ++i;  // lengths are normalised
    if (i >= format.size())
      break;
    d.conversion = format[i++];
    out += expand(d, cursor, errorNumber);
  }
  return out;
}

void logValue(int priority, std::string_view format, const plist::Value& value) {
  if (format.find("%@") == std::string_view::npos) {
    logMessage(priority, format);  // "%%" and "%m" still expand, as in syslog
    return;
  }
  logMessage(priority, format, plist::describeValue(value));
}

}  // namespace nightjar::logging
