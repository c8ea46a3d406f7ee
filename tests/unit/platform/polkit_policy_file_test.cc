#include "platform/linux/polkit_policy_file.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "model/model_testing.h"
#include "platform/linux/polkit_action_document.h"
#include "platform/temporary_root.h"

namespace nightjar::platform::linux_adapter {
namespace {

using namespace nightjar::model::testing;

constexpr char kFile[] = "/usr/share/polkit-1/actions/quillon.nightjar.policy";
constexpr char kEvents[] = "quillon.nightjar.scheduler.events";
constexpr char kSet[] = "quillon.nightjar.scheduler.set";

const Value allow = S("allow");
Value adminRule(bool shared) {
  return Dict({{"class", S("user")},
               {"group", S("admin")},
               {"shared", B(shared)},
               {"allow-root", B(true)}});
}
// Defaults in polkit's own words.
Value defaults(const char* any, const char* inactive, const char* active) {
  return Dict(
      {{"allow_any", S(any)}, {"allow_inactive", S(inactive)}, {"allow_active", S(active)}});
}

// An administrator's file: a comment, vendor lines, an annotated action of
// another program, and one right of ours with its own defaults.
constexpr char kAdministratorsFile[] = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE policyconfig PUBLIC "-//freedesktop//DTD PolicyKit Policy Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/PolicyKit/1/policyconfig.dtd">
<!-- kept by the site's administrator -->
<policyconfig>
  <vendor>Site</vendor>
  <action id="org.example.other"><description>Other</description>
    <defaults><allow_any>no</allow_any><allow_inactive>no</allow_inactive><allow_active>yes</allow_active></defaults>
    <annotate key="org.freedesktop.policykit.imply">org.example.more</annotate>
  </action>
  <action id="quillon.nightjar.scheduler.set">
    <defaults>
      <allow_any> auth_self </allow_any>
      <allow_active>auth_self</allow_active>
    </defaults>
  </action>
</policyconfig>
)";

class PolkitPolicyFileTest : public ::testing::Test {
 protected:
  std::string read() const { return testing::readFile(root_ / kFile); }
  void write(const std::string& text) { testing::writeFile(root_ / kFile, text); }
  bool exists() const { return std::filesystem::exists(root_ / kFile); }

  testing::TemporaryRoot root_;
  std::unique_ptr<PolicyDatabase> database_ = makePolkitPolicyFile(root_.path);
};

TEST_F(PolkitPolicyFileTest, RulesMapOntoPolkitDefaultsAndBack) {
  EXPECT_TRUE(database_->rule(kEvents).isNone());
  EXPECT_EQ(database_->removeRight(kEvents), ENOENT);
  EXPECT_FALSE(exists());
  ASSERT_EQ(database_->setRight(kEvents, allow), 0);
  ASSERT_EQ(database_->setRight(kSet, adminRule(/*shared=*/true)), 0);
  EXPECT_EQ(database_->rule(kEvents), allow);
  EXPECT_EQ(database_->rule(kSet), adminRule(true));
  EXPECT_EQ(std::filesystem::status(root_ / kFile).permissions(), std::filesystem::perms(0644));
  std::optional<PolkitActionDocument> document = parsePolkitActions(read());
  ASSERT_TRUE(document && document->actions.size() == 2);
  EXPECT_EQ(document->actions[0].defaults, (PolkitDefaults{"yes", "yes", "yes"}));
  EXPECT_EQ(document->actions[1].defaults,
            (PolkitDefaults{"auth_admin_keep", "auth_admin_keep", "auth_admin_keep"}));
  EXPECT_NE(read().find("<message>"), std::string::npos);  // polkit wants one

  // Not shared: no credential kept. A definition of polkit's own words
  // survives a round trip; anything else cannot be expressed.
  ASSERT_EQ(database_->setRight(kSet, adminRule(false)), 0);
  EXPECT_EQ(database_->rule(kSet), adminRule(false));
  const Value own = defaults("no", "no", "auth_self");
  ASSERT_EQ(database_->setRight(kSet, own), 0);
  EXPECT_EQ(database_->rule(kSet), own);
  const std::string before = read();
  EXPECT_EQ(database_->setRight(kSet, S("authenticate-admin")), EINVAL);
  EXPECT_EQ(database_->setRight(kSet, own.with("allow_any", S("maybe"))), EINVAL);
  EXPECT_EQ(database_->setRight(kSet, I(1)), EINVAL);
  EXPECT_EQ(read(), before);

  // The file goes with its last action. Another writer renames a new version
  // in place, as -i does: it is read again.
  auto other = makePolkitPolicyFile(root_.path);
  EXPECT_EQ(other->removeRight(kSet), 0);
  EXPECT_TRUE(database_->rule(kSet).isNone());
  EXPECT_EQ(database_->rule(kEvents), allow);
  EXPECT_EQ(other->removeRight(kEvents), 0);
  EXPECT_FALSE(exists());
  EXPECT_TRUE(database_->rule(kEvents).isNone());
}

TEST_F(PolkitPolicyFileTest, EditsLeaveEveryOtherByteOfTheFile) {
  write(kAdministratorsFile);
  // Missing defaults read as polkit reads them: "no".
  EXPECT_EQ(database_->rule(kSet), defaults("auth_self", "no", "auth_self"));
  ASSERT_EQ(database_->setRight(kEvents, allow), 0);
  const std::string added = read();
  const std::string original = kAdministratorsFile;
  const std::size_t close = original.find("</policyconfig>");
  EXPECT_EQ(added.substr(0, close), original.substr(0, close));
  EXPECT_EQ(added.substr(added.size() - 16), "</policyconfig>\n");
  EXPECT_EQ(database_->rule(kEvents), allow);
  ASSERT_EQ(database_->removeRight(kEvents), 0);
  EXPECT_EQ(read(), original);
  // Removing ours keeps the foreign action, so the file stays.
  ASSERT_EQ(database_->removeRight(kSet), 0);
  EXPECT_EQ(read(),
            original.substr(0, original.find("  <action id=\"quillon")) + original.substr(close));
}

TEST_F(PolkitPolicyFileTest, HostileFilesDefineNothingAndAreNeverOverwritten) {
  const std::string action = R"(<action id="quillon.nightjar.scheduler.events"><defaults>)"
                             R"(<allow_any>yes</allow_any><allow_inactive>yes</allow_inactive>)"
                             R"(<allow_active>yes</allow_active></defaults></action>)";
  std::string deep = "<policyconfig>" + action;
  for (int i = 0; i < 40; ++i)
    deep += "<a>";
  for (int i = 0; i < 40; ++i)
    deep += "</a>";
  deep += "</policyconfig>";
  const std::string hostile[] = {
      "<policyconfig>" + action,  // truncated
      "<other>" + action + "</other>",
      deep,
      "<policyconfig>" + action + std::string(kMaxActionFileBytes, ' ') + "</policyconfig>",
  };
  for (const std::string& text : hostile) {
    write(text);
    EXPECT_TRUE(database_->rule(kEvents).isNone()) << text.substr(0, 80);
    EXPECT_NE(database_->setRight(kSet, allow), 0);
    EXPECT_NE(database_->removeRight(kEvents), 0);
    EXPECT_EQ(read(), text);
  }
  // A valid file again is seen at once: its identity changed. An action
  // that shares its line goes alone, an empty one too.
  const std::string empty = R"(<action id="quillon.nightjar.scheduler.set"/>)";
  write("<policyconfig>" + empty + action + "</policyconfig>");
  EXPECT_EQ(database_->rule(kEvents), allow);
  ASSERT_EQ(database_->removeRight(kSet), 0);
  EXPECT_EQ(read(), "<policyconfig>" + action + "</policyconfig>");
  // An empty root starts a fresh file; names are escaped.
  write("<policyconfig/>");
  ASSERT_EQ(database_->setRight("x&y", allow), 0);
  EXPECT_EQ(database_->rule("x&y"), allow);
  EXPECT_EQ(read().rfind("<?xml", 0), 0u);
}

TEST_F(PolkitPolicyFileTest, UnwritableFolderAnswersAnErrorNumber) {
  std::ofstream(root_ / "/usr") << "a file where the folder should be";
  EXPECT_EQ(database_->setRight(kEvents, allow), ENOTDIR);
  EXPECT_TRUE(database_->rule(kEvents).isNone());
}

}  // namespace
}  // namespace nightjar::platform::linux_adapter
