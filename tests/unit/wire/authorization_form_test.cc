#include "wire/authorization_form.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "wire/authorization_testing.h"

namespace nightjar::api {
namespace {

using testing::FakeProc;
using testing::formValue;

TEST(ExternalFormTest, ParsesOnlyTheExactShape) {
  const plist::Bytes good =
      encodeExternalForm({.pid = 0x01020304, .uid = 1000, .startTime = 1ull << 40});
  EXPECT_EQ(good[0], 'N');
  EXPECT_EQ(good[8], 0x04);  // little-endian
  std::optional<ExternalForm> form = parseExternalForm(plist::Value::data(good));
  ASSERT_TRUE(form);
  EXPECT_EQ(form->pid, 0x01020304u);
  EXPECT_EQ(form->uid, 1000u);
  EXPECT_EQ(form->startTime, 1ull << 40);

  auto changed = [&](std::size_t index, std::uint8_t byte) {
    plist::Bytes bytes = good;
    bytes[index] = byte;
    return plist::Value::data(bytes);
  };
  EXPECT_FALSE(parseExternalForm(changed(0, 'n')));    // magic
  EXPECT_FALSE(parseExternalForm(changed(4, 2)));      // version 2
  EXPECT_FALSE(parseExternalForm(changed(7, 1)));      // version's high byte
  EXPECT_FALSE(parseExternalForm(changed(24, 1)));     // tail not zero
  EXPECT_FALSE(parseExternalForm(changed(31, 0x80)));  // last byte of the tail
  plist::Bytes shorter(good.begin(), good.end() - 1);
  plist::Bytes longer = good;
  longer.push_back(0);
  EXPECT_FALSE(parseExternalForm(plist::Value::data(shorter)));
  EXPECT_FALSE(parseExternalForm(plist::Value::data(longer)));
  EXPECT_FALSE(parseExternalForm(plist::Value::string(std::string(32, 'N'))));
  EXPECT_FALSE(parseExternalForm(plist::Value()));
}

TEST(ExternalFormTest, StartTimeIsField22AfterTheLastParenthesis) {
  FakeProc proc;
  proc.add(42, 123456789);
  EXPECT_EQ(processStartTime(proc.root.path, 42), 123456789u);
  EXPECT_FALSE(processStartTime(proc.root.path, 43));  // no such process
  EXPECT_FALSE(processStartTime(proc.root.path, 0));
  EXPECT_FALSE(processStartTime(proc.root.path, -1));

  // Truncated, non-numeric and oversized lines are not in the kernel's shape.
  std::string nonNumeric = testing::statLine(7, 5);
  nonNumeric.replace(nonNumeric.find(" 5 1000"), 2, " 5x");
  const std::string bad[] = {"7 (x) S 1 2 3", "7 (x", "7 x S 1 2", nonNumeric,
                             std::string(8192, '1')};
  for (const std::string& line : bad) {
    proc.write(7, line);
    EXPECT_FALSE(processStartTime(proc.root.path, 7)) << line.substr(0, 60);
  }
}

TEST(ExternalFormTest, FormMustNameTheConnectedPeer) {
  FakeProc proc;
  proc.add(4242, 777);
  const platform::PeerCredentials peer{.pid = 4242, .uid = 1000, .gid = 100};
  EXPECT_TRUE(formOfPeer(formValue(4242, 1000, 777), peer, proc.root.path));
  EXPECT_FALSE(formOfPeer(formValue(4243, 1000, 777), peer, proc.root.path));  // other pid
  EXPECT_FALSE(formOfPeer(formValue(4242, 0, 777), peer, proc.root.path));     // other uid
  EXPECT_FALSE(formOfPeer(formValue(4242, 1000, 776), peer, proc.root.path));  // stale start
  EXPECT_FALSE(
      formOfPeer(formValue(4242, 1000, 777), {.pid = 4242, .uid = 1000}, proc.root / "/missing"));
  EXPECT_FALSE(formOfPeer(formValue(0, 1000, 777), {.pid = 0, .uid = 1000}, proc.root.path));
}

TEST(ExternalFormTest, ThisProcessNamesItselfUnderTheRealProc) {
  const std::optional<std::uint64_t> started = processStartTime("/proc", ::getpid());
  ASSERT_TRUE(started);
  const platform::PeerCredentials self{.pid = ::getpid(), .uid = ::getuid(), .gid = ::getgid()};
  EXPECT_TRUE(formOfPeer(formValue(::getpid(), ::getuid(), *started), self, "/proc"));
}

}  // namespace
}  // namespace nightjar::api
