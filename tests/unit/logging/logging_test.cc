#include "logging/logging.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>

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
      {"Caught %d signal, quitting", {I{15}}, "Caught 15 signal, quitting"},
      {"%s: path: %s; error: %d",
       {"advertise", "/var/run/nightjard.pid", I{13}},
       "advertise: path: /var/run/nightjard.pid; error: 13"},
      {"%5.1f|%-4d|%x|%%|%c", {2.25, I{7}, I{255}, I{'A'}}, "  2.2|7   |ff|%|A"},
      {"%ld %lu %lld", {I{-5}, std::uint64_t{6}, I{7}}, "-5 6 7"},
      {"%*d|%.*s", {I{3}, I{1}, I{2}, "abc"}, "  1|ab"},
      {"API: %@ > %@", {Value::string("a"), Value::integer(7)}, "API: a > 7"},
      {"%@", {Value::dictionary({{"uniqueid", Value::integer(7)}})}, "{\"uniqueid\"=>7}"},
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

TEST(LogMessage, ValuesAreWrittenLiterallyThroughTheSink) {
  testing::RecordingLogSink sink;
  logMessage(LOG_ERR, "Invalid event: %@", Value::string("%d %s %n — naïve 夜鷹"));
  logMessage(LOG_INFO, "no directive %d", 3);
  logValue(LOG_DEBUG, "Performing: %@", Value::dictionary({{"name", Value::string("%d")}}));
  logValue(LOG_ERR, "Dropped invalid event within scheduler.", Value::integer(1));
  ASSERT_EQ(sink.lines.size(), 4u);
  EXPECT_EQ(sink.lines[0],
            std::make_pair(LOG_ERR, std::string("Invalid event: %d %s %n — naïve 夜鷹")));
  EXPECT_EQ(sink.lines[1], std::make_pair(LOG_INFO, std::string("no directive 3")));
  EXPECT_EQ(sink.lines[2].second, "Performing: {\"name\"=>\"%d\"}");
  EXPECT_EQ(sink.lines[3].second, "Dropped invalid event within scheduler.");
}

// As syslog: "%m" is the text of errno as it was when logMessage was called,
// "%%" a percent sign, and errno is left as it was.
TEST(LogMessage, ErrorTextAndPercentBehaveAsSyslog) {
  testing::RecordingLogSink sink;
  const std::string noEntry = std::strerror(ENOENT);
  errno = ENOENT;
  logMessage(LOG_ERR, "open: %m (%d%%) [%-3s]", 5, "x");
  EXPECT_EQ(errno, ENOENT);
  errno = EACCES;
  logMessage(LOG_ERR, "no argument: %m");
  ASSERT_EQ(sink.lines.size(), 2u);
  EXPECT_EQ(sink.lines[0].second, "open: " + noEntry + " (5%) [x  ]");
  EXPECT_EQ(sink.lines[1].second, "no argument: " + std::string(std::strerror(EACCES)));
  logValue(LOG_ERR, "100%% done", Value::integer(1));
  ASSERT_EQ(sink.lines.size(), 3u);
  EXPECT_EQ(sink.lines[2].second, "100% done");
  EXPECT_EQ(formatLogLine("%m|%m", {}, EPERM),
            std::string(std::strerror(EPERM)) + "|" + std::strerror(EPERM));
}

// Runs `body` with descriptor 2 moved aside and NIGHTJAR_LOG=stderr, then
// restores both and the log. Answers what reached the pipe that `body` may put
// on descriptor 2 through `toStderr`.
std::string withStandardErrorAside(const std::function<void(int toStderr)>& body) {
  int pipeFds[2];
  EXPECT_EQ(pipe2(pipeFds, O_NONBLOCK | O_CLOEXEC), 0);
  const int saved = dup(STDERR_FILENO);
  setenv("NIGHTJAR_LOG", "stderr", 1);
  body(pipeFds[1]);
  closeLog();
  unsetenv("NIGHTJAR_LOG");
  dup2(saved, STDERR_FILENO);
  close(saved);
  close(pipeFds[1]);
  std::string seen;
  char buffer[256];
  ssize_t n;
  while ((n = read(pipeFds[0], buffer, sizeof buffer)) > 0)
    seen.append(buffer, static_cast<std::size_t>(n));
  close(pipeFds[0]);
  openLog();
  return seen;
}

// A log line must never land on a descriptor 2 that was closed when the log
// was opened (as in a detached daemon) and then reused for something else.
TEST(LogOpen, StandardErrorIsUsedOnlyWhileItIsOpen) {
  EXPECT_EQ(withStandardErrorAside([](int toStderr) {
              dup2(toStderr, STDERR_FILENO);
              openLog();
              logMessage(LOG_ERR, "to standard error");
              openSystemLog();
              logMessage(LOG_INFO, "logging_test: to the system log");
            }),
            "<3>to standard error\n");
  EXPECT_EQ(withStandardErrorAside([](int toStderr) {
              close(STDERR_FILENO);
              openLog();
              dup2(toStderr, STDERR_FILENO);  // descriptor 2 reused
              logMessage(LOG_INFO, "logging_test: to the system log");
            }),
            "");
}

}  // namespace
}  // namespace nightjar::logging
