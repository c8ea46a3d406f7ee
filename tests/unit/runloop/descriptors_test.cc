#include "runloop/descriptors.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

namespace nightjar::runloop {
namespace {

struct Pipe {
  int fds[2] = {-1, -1};
  Pipe() { EXPECT_EQ(pipe(fds), 0); }
  ~Pipe() {
    for (int fd : fds) {
      if (fd >= 0)
        close(fd);
    }
  }
  void closeWriter() {
    close(fds[1]);
    fds[1] = -1;
  }
};

TEST(ReadFully, ReadsExactlyTheCountAcrossSeveralWrites) {
  Pipe p;
  ASSERT_EQ(write(p.fds[1], "abc", 3), 3);
  ASSERT_EQ(write(p.fds[1], "defg", 4), 4);
  char buffer[6] = {};
  std::size_t got = 0;
  EXPECT_EQ(readFully(p.fds[0], buffer, sizeof buffer, &got), 0);
  EXPECT_EQ(got, 6u);
  EXPECT_EQ(std::string(buffer, 6), "abcdef");
}

TEST(ReadFully, EndOfFileBeforeTheCountIsEpipeWithThePartialCount) {
  Pipe p;
  ASSERT_EQ(write(p.fds[1], "xy", 2), 2);
  p.closeWriter();
  char buffer[8];
  std::size_t got = 99;
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
  close(p.fds[0]);
  p.fds[0] = -1;
  EXPECT_EQ(write(p.fds[1], "x", 1), -1);
  EXPECT_EQ(errno, EPIPE);
}

}  // namespace
}  // namespace nightjar::runloop
