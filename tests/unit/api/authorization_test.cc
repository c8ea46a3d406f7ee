#include "api/authorization.h"

#include <gtest/gtest.h>

#include <optional>
#include <tuple>

#include "fakes/fake_authority.h"
#include "fakes/fake_policy_database.h"
#include "fakes/recording_log_sink.h"
#include "wire/authorization_testing.h"

namespace nightjar::api {
namespace {

using platform::AuthorityAnswer;
using testing::FakeAuthority;
using testing::FakePolicyDatabase;
using testing::formValue;

constexpr char kEvents[] = "quillon.nightjar.scheduler.events";
constexpr char kSet[] = "quillon.nightjar.scheduler.set";

std::vector<std::string> allChanges(std::string_view verb) {
  std::vector<std::string> out;
  for (const RightDefinition& right : kDefaultRights)
    out.push_back(std::string(verb) + " " + std::string(right.name));
  return out;
}

TEST(RightsTest, InstallAndUninstallTouchOnlyTheDefaultRightsAndLogFailures) {
  FakePolicyDatabase database;
  testing::RecordingLogSink log;
  installDefaultRights(database);
  installDefaultRights(database);  // defines nothing more
  EXPECT_EQ(database.changes, allChanges("set"));
  EXPECT_EQ(database.rights.at(kEvents), plist::Value::string("allow"));
  EXPECT_EQ(database.rights.at(kSet), writeRule());
  database.rights.emplace("quillon.nightjar.other.right", writeRule());
  database.removeFailures.emplace(kEvents, 5);
  database.changes.clear();
  uninstallRights(database);
  EXPECT_EQ(database.changes, allChanges("remove"));
  EXPECT_EQ(database.rights.size(), 2u);  // the foreign right and the failed one
  database.removeFailures.clear();
  database.changes.clear();
  uninstallRights(database);
  uninstallRights(database);
  EXPECT_EQ(database.changes, std::vector<std::string>{std::string("remove ") + kEvents});
  EXPECT_EQ(database.rights.size(), 1u);

  // An already defined right is kept; a failure spares every other right.
  const plist::Value own = plist::Value::string("authenticate-session-owner");
  FakePolicyDatabase other;
  other.rights.emplace(kSet, own);
  other.setFailures.emplace("quillon.nightjar.build.version", 13);
  installDefaultRights(other);
  EXPECT_EQ(other.rights.at(kSet), own);
  EXPECT_EQ(other.changes.size(), 13u);
  EXPECT_EQ(other.rights.size(), 13u);
  EXPECT_EQ(log.lines,
            (std::vector<std::pair<int, std::string>>{
                {LOG_ERR, "Unable to remove right: quillon.nightjar.scheduler.events, 5"},
                {LOG_ERR, "Unable to set right: quillon.nightjar.build.version, 13"}}));
}

// A checker over fakes; the peer is pid 4242, started at tick 777.
class AuthorizationCheckTest : public ::testing::Test {
 protected:
  void SetUp() override { create(/*withAuthority=*/true); }
  void TearDown() override { authorizationDestroy(); }

  void create(bool withAuthority) {
    authorizationDestroy();
    auto database = std::make_unique<FakePolicyDatabase>();
    database_ = database.get();
    std::unique_ptr<FakeAuthority> authority;
    if (withAuthority)
      authority = std::make_unique<FakeAuthority>();
    authority_ = authority.get();
    proc_.add(4242, 777);
    ASSERT_TRUE(authorizationCreate({std::move(database), std::move(authority), proc_.root.path}));
    installDefaultRights(*database_);
  }

  // Starts a check; the answer lands in `granted_` (none while waiting).
  void check(std::uint32_t uid, std::string right = kSet, std::uint32_t formPid = 4242,
             std::uint64_t startTime = 777) {
    granted_.reset();
    calls_ = 0;
    authorizationCheck(formValue(formPid, uid, startTime), {.pid = 4242, .uid = uid, .gid = 0},
                       std::move(right), [this](bool granted) {
                         ++calls_;
                         granted_ = granted;
                       });
  }

  testing::FakeProc proc_;
  FakePolicyDatabase* database_ = nullptr;
  FakeAuthority* authority_ = nullptr;
  std::optional<bool> granted_;
  int calls_ = 0;
};

// The other mismatches of a form are in the form's own tests.
TEST_F(AuthorizationCheckTest, ForeignFormsAndMalformedRightsAreRefusedSilently) {
  testing::RecordingLogSink log;
  check(1000, kEvents, /*formPid=*/4243);
  EXPECT_EQ(granted_, false);
  check(0, kEvents, 4242, /*startTime=*/776);  // a stale form, even for root
  EXPECT_EQ(granted_, false);
  for (const std::string& right :
       {std::string(), std::string("quillon.nightjar.sch\xc3\xa9"), std::string(kEvents) + '\0'}) {
    check(0, right);
    EXPECT_EQ(granted_, false) << right;
  }
  EXPECT_TRUE(authority_->checks.empty());
  EXPECT_TRUE(log.lines.empty());
}

TEST_F(AuthorizationCheckTest, RootHoldsEveryDefinedRightWithoutARoundTrip) {
  for (const RightDefinition& right : kDefaultRights) {
    check(0, std::string(right.name));
    EXPECT_EQ(granted_, true) << right.name;
  }
  EXPECT_TRUE(authority_->checks.empty());

  // An undefined right is the authority's to decide, for root too; its refusal
  // is logged.
  testing::RecordingLogSink log;
  check(0, "quillon.nightjar.scheduler.unknown");
  EXPECT_EQ(authority_->checks.size(), 1u);
  EXPECT_FALSE(granted_);
  authority_->answer(AuthorityAnswer::Refused);
  EXPECT_EQ(granted_, false);
  EXPECT_EQ(log.lines,
            (std::vector<std::pair<int, std::string>>{
                {LOG_NOTICE, "Authorization refused: quillon.nightjar.scheduler.unknown"}}));
}

TEST_F(AuthorizationCheckTest, OthersAskTheAuthorityAboutThemselves) {
  testing::RecordingLogSink log;
  check(1000, kSet);
  ASSERT_EQ(authority_->checks.size(), 1u);
  const FakeAuthority::Check& asked = authority_->checks[0];
  EXPECT_EQ(std::tuple(asked.subject.pid, asked.subject.uid, asked.subject.startTime, asked.right),
            std::tuple(4242, 1000u, 777u, std::string(kSet)));
  EXPECT_FALSE(granted_);  // waits for the answer
  authority_->answer(AuthorityAnswer::Granted);
  EXPECT_EQ(granted_, true);
  EXPECT_EQ(calls_, 1);
  EXPECT_TRUE(log.lines.empty());
}

TEST_F(AuthorizationCheckTest, WithoutAnAuthorityTheInstalledPolicyDecides) {
  struct Case {
    std::uint32_t uid;
    std::string right;
    bool granted;
  };
  const Case cases[] = {
      {1000, kEvents, true},                           // "allow"
      {1000, kSet, false},                             // the write rule
      {1000, "quillon.nightjar.custom.admin", false},  // any other rule
      {0, "quillon.nightjar.custom.admin", true},      // root: allow-root
      {1000, "quillon.nightjar.nothing.here", false},  // undefined
      {0, "quillon.nightjar.nothing.here", false},
  };
  for (bool authorityAnswers : {true, false}) {
    create(/*withAuthority=*/authorityAnswers);
    database_->rights.emplace(
        "quillon.nightjar.custom.admin",
        plist::Value::dictionary({{"allow_any", plist::Value::string("no")}}));
    for (const Case& c : cases) {
      testing::RecordingLogSink log;
      check(c.uid, c.right);
      if (authorityAnswers && authority_->waiting() > 0)
        authority_->answer(AuthorityAnswer::NoAuthority);
      EXPECT_EQ(granted_, c.granted) << c.right << " uid " << c.uid;
      EXPECT_EQ(calls_, 1);
      EXPECT_EQ(log.texts().size(), c.granted ? 0u : 1u);
    }
  }
}

TEST_F(AuthorizationCheckTest, AbsentCheckerRefusesAndDestroyDropsPendingChecks) {
  check(1000, kSet);
  ASSERT_EQ(authority_->waiting(), 1u);
  authorizationDestroy();  // the fake authority goes, with its pending check
  EXPECT_EQ(calls_, 0);
  check(0, kEvents);
  EXPECT_EQ(granted_, false);
  EXPECT_FALSE(authorizationCreate({}));
  EXPECT_EQ(authorizationGet(), nullptr);
}

}  // namespace
}  // namespace nightjar::api
