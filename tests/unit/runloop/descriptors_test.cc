#include "runloop/descriptors.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace nightjar::runloop {
namespace {

TEST(Descriptors, ReadFullyAnswersAnErrorNumberAndHowMuchItRead) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  ASSERT_EQ(write(fds[1], "abcdefgh", 8), 8);
  char buffer[6] = {};
  std::size_t got = 0;
  EXPECT_EQ(readFully(fds[0], buffer, sizeof buffer, &got), 0);
  EXPECT_EQ(std::string(buffer, got), "abcdef");
  ASSERT_EQ(setNonBlocking(fds[0]), 0);
  EXPECT_EQ(readFully(fds[0], buffer, sizeof buffer, &got), EAGAIN);
  EXPECT_EQ(got, 2u);
  EXPECT_EQ(setNonBlocking(-1), EBADF);

  ASSERT_EQ(ignoreSIGPIPE(), 0);
  ASSERT_EQ(write(fds[1], "x", 1), 1);
  close(fds[1]);
  EXPECT_EQ(readFully(fds[0], buffer, sizeof buffer), EPIPE);  // no out argument
  close(fds[0]);
  ASSERT_EQ(pipe(fds), 0);
  close(fds[0]);
  EXPECT_EQ(write(fds[1], "x", 1), -1);  // answered, instead of killing the test
  EXPECT_EQ(errno, EPIPE);
  close(fds[1]);
}

}  // namespace
}  // namespace nightjar::runloop
