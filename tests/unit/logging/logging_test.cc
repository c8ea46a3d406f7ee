#include "logging/logging.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "fakes/recording_log_sink.h"

namespace nightjar::logging {
namespace {

using plist::Value;

// Printf directives behave as printf; "%@" inserts texts bare and values
// described; hostile or mismatched arguments never crash.
TEST(LogFormat, DirectivesAndHostileArguments) {
  using I = std::int64_t;
  const struct {
    const char* format;
    std::vector<LogArg> args;
    std::string expected;
  } rows[] = {
      {"%s: path: %s; error: %d",
       {"advertise", "/var/run/nightjard.pid", I{13}},
       "advertise: path: /var/run/nightjard.pid; error: 13"},
      {"%5.1f|%-4d|%x|%%|%c", {2.25, I{7}, I{255}, I{'A'}}, "  2.2|7   |ff|%|A"},
      {"%ld %lu %lld", {I{-5}, std::uint64_t{6}, I{7}}, "-5 6 7"},
      {"%*d|%.*s", {I{3}, I{1}, I{2}, "abc"}, "  1|ab"},
      {"API: %@ > %@", {Value::string("a"), Value::integer(7)}, "API: a > 7"},
      {"%@", {"plain"}, "plain"},
      {"%d %s %@ end", {}, "   end"},
      {"%s|%d", {I{1}, "x"}, "|"},
      {"%n%d", {I{4}}, "4"},  // %n writes nothing, takes nothing
      {"trailing %", {}, "trailing "},
      {"%s", {static_cast<const char*>(nullptr)}, "(null)"},
      {"%500d", {I{1}}, std::string(499, ' ') + "1"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(formatLogLine(row.format, row.args), row.expected) << row.format;
}

// Values are written literally through the sink. As syslog: "%m" is the text
// of errno as it was when logMessage was called, and errno is left as it was.
TEST(LogMessage, ValuesLiterallyAndErrorTextAsSyslog) {
  testing::RecordingLogSink sink;
  logMessage(LOG_ERR, "Invalid event: %@", Value::string("%d %s %n — naïve 夜鷹"));
  logValue(LOG_DEBUG, "Performing: %@", Value::dictionary({{"name", Value::string("%d")}}));
  logValue(LOG_ERR, "Dropped 100%% of it.", Value::integer(1));
  errno = ENOENT;
  logMessage(LOG_INFO, "open: %m (%d%%) [%-3s]", 5, "x");
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(sink.lines,
            (std::vector<std::pair<int, std::string>>{
                {LOG_ERR, "Invalid event: %d %s %n — naïve 夜鷹"},
                {LOG_DEBUG, "Performing: {\"name\"=>\"%d\"}"},
                {LOG_ERR, "Dropped 100% of it."},
                {LOG_INFO, "open: " + std::string(std::strerror(ENOENT)) + " (5%) [x  ]"}}));
  EXPECT_EQ(formatLogLine("%m|%m", {}, EPERM),
            std::string(std::strerror(EPERM)) + "|" + std::strerror(EPERM));
}

// Opens the log for stderr while descriptor 2 is a pipe, or closed (as in a detached daemon)
// and reused for the pipe after; logs, also after opening the system log. Answers the pipe's.
std::string logThroughStandardError(bool closedAtOpen) {
  int pipeFds[2];
  EXPECT_EQ(pipe2(pipeFds, O_NONBLOCK | O_CLOEXEC), 0);
  const int saved = dup(STDERR_FILENO);
  setenv("NIGHTJAR_LOG", "stderr", 1);
  closedAtOpen ? close(STDERR_FILENO) : dup2(pipeFds[1], STDERR_FILENO);
  openLog();
  dup2(pipeFds[1], STDERR_FILENO);
  logMessage(LOG_INFO, "logging_test: a line");
  openSystemLog();
  logMessage(LOG_INFO, "logging_test: to the system log");
  closeLog();
  unsetenv("NIGHTJAR_LOG");
  dup2(saved, STDERR_FILENO);
  close(saved);
  close(pipeFds[1]);
  char buffer[256];
  const ssize_t n = read(pipeFds[0], buffer, sizeof buffer);
  close(pipeFds[0]);
  openLog();
  return std::string(buffer, n > 0 ? static_cast<std::size_t>(n) : 0);
}

// A line must never land on a descriptor 2 closed at opening and then reused.
TEST(LogOpen, StandardErrorIsUsedOnlyWhileItIsOpen) {
  EXPECT_EQ(logThroughStandardError(false), "<6>logging_test: a line\n");
  EXPECT_EQ(logThroughStandardError(true), "");
}

}  // namespace
}  // namespace nightjar::logging
