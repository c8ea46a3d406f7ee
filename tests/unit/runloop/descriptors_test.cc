#include "runloop/descriptors.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <utility>

namespace nightjar::runloop {
namespace {

struct Pipe {
  int fds[2] = {-1, -1};
  Pipe() { EXPECT_EQ(pipe(fds), 0); }
  ~Pipe() {
    for (int fd : fds)
      if (fd >= 0)
        close(fd);
  }
  void closeEnd(int end) { close(std::exchange(fds[end], -1)); }
};

TEST(ReadFully, ReadsTheCountAcrossWritesAndAnswersEpipeAtEndOfFile) {
  Pipe p;
  ASSERT_EQ(write(p.fds[1], "abc", 3), 3);
  ASSERT_EQ(write(p.fds[1], "defgh", 5), 5);
  char buffer[6] = {};
  std::size_t got = 0;
  EXPECT_EQ(readFully(p.fds[0], buffer, sizeof buffer, &got), 0);
  EXPECT_EQ(std::string(buffer, got), "abcdef");
  p.closeEnd(1);
  EXPECT_EQ(readFully(p.fds[0], buffer, sizeof buffer, &got), EPIPE);
  EXPECT_EQ(got, 2u);
  EXPECT_EQ(readFully(p.fds[0], buffer, sizeof buffer), EPIPE);  // no out argument
}

TEST(ReadFully, OtherErrorsAreAnswered) {
  Pipe p;
  ASSERT_EQ(setNonBlocking(p.fds[0]), 0);
  EXPECT_NE(fcntl(p.fds[0], F_GETFL) & O_NONBLOCK, 0);
  char buffer[4];
  std::size_t got = 99;
  EXPECT_EQ(readFully(p.fds[0], buffer, sizeof buffer, &got), EAGAIN);
  EXPECT_EQ(got, 0u);
  EXPECT_EQ(readFully(-1, buffer, sizeof buffer), EBADF);
  EXPECT_EQ(setNonBlocking(-1), EBADF);
}

TEST(IgnoreSigpipe, WritingToAClosedPipeAnswersEpipeInsteadOfKilling) {
  ASSERT_EQ(ignoreSIGPIPE(), 0);
  Pipe p;
  p.closeEnd(0);
  EXPECT_EQ(write(p.fds[1], "x", 1), -1);
  EXPECT_EQ(errno, EPIPE);
}

}  // namespace
}  // namespace nightjar::runloop
