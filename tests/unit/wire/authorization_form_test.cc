#include "wire/authorization_form.h"

#include <gtest/gtest.h>

#include <tuple>

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
  EXPECT_EQ(std::tuple(form->pid, form->uid, form->startTime),
            std::tuple(0x01020304u, 1000u, 1ull << 40));

  // Magic, version 2, the version's high byte, the zero tail from its first
  // to its last byte.
  for (const auto& [index, byte] :
       {std::pair<int, int>(0, 'n'), {4, 2}, {7, 1}, {24, 1}, {31, 0x80}}) {
    plist::Bytes bytes = good;
    bytes[index] = static_cast<std::uint8_t>(byte);
    EXPECT_FALSE(parseExternalForm(plist::Value::data(bytes))) << index;
  }
  plist::Bytes longer = good;
  longer.push_back(0);
  EXPECT_FALSE(parseExternalForm(plist::Value::data(longer)));
  EXPECT_FALSE(parseExternalForm(plist::Value::data(plist::Bytes(good.begin(), good.end() - 1))));
  EXPECT_FALSE(parseExternalForm(plist::Value::string(std::string(32, 'N'))));
  EXPECT_FALSE(parseExternalForm(plist::Value()));
}

TEST(ExternalFormTest, StartTimeIsField22AfterTheLastParenthesis) {
  FakeProc proc;
  proc.add(42, 123456789);
  EXPECT_EQ(processStartTime(proc.root.path, 42), 123456789u);
  for (pid_t absent : {43, 0, -1})
    EXPECT_FALSE(processStartTime(proc.root.path, absent)) << absent;

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

}  // namespace
}  // namespace nightjar::api
