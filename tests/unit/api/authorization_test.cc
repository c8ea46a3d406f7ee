#include "api/authorization.h"

#include <gtest/gtest.h>

#include <optional>
#include <tuple>

#include "fakes/port_fakes.h"
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
  void TearDown() override { authorizationDestroy(); }

  void create(bool withAuthority) {
    authorizationDestroy();
    auto database = std::make_unique<FakePolicyDatabase>();
    installDefaultRights(*database);
    database->rights.emplace("quillon.nightjar.custom.admin",
                             plist::Value::dictionary({{"allow_any", plist::Value::string("no")}}));
    authority_ = withAuthority ? new FakeAuthority : nullptr;
    proc_.add(4242, 777);
    ASSERT_TRUE(authorizationCreate(
        {std::move(database), std::unique_ptr<FakeAuthority>(authority_), proc_.root.path}));
  }
  // Starts a check; the answer lands in `granted_` (none while waiting).
  void check(std::uint32_t uid, std::string right, std::uint32_t formPid = 4242,
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
  FakeAuthority* authority_ = nullptr;
  std::optional<bool> granted_;
  int calls_ = 0;
};

// Each row is checked with an authority that answers `answer` when asked (none:
// it must not be asked); a row that answers NoAuthority is checked again
// without an authority, where the installed policy decides alone. Every
// refusal the authority or the policy decides is logged; a malformed check is
// refused silently.
TEST_F(AuthorizationCheckTest, WhoIsAskedAndWhatIsDecided) {
  struct Case {
    const char* label;
    std::uint32_t uid;
    std::string right;
    std::optional<AuthorityAnswer> answer;
    bool granted;
    std::uint32_t formPid = 4242;
    std::uint64_t startTime = 777;
  };
  const std::string admin = "quillon.nightjar.custom.admin";
  const std::string undefined = "quillon.nightjar.nothing.here";
  const auto noAuthority = AuthorityAnswer::NoAuthority;
  const Case cases[] = {
      {"another process's form", 1000, kEvents, {}, false, 4243},
      {"a stale form, even for root", 0, kEvents, {}, false, 4242, 776},
      {"an empty right", 0, "", {}, false},
      {"a right beyond ASCII", 0, "quillon.nightjar.sch\xc3\xa9", {}, false},
      {"a right with a NUL", 0, std::string(kEvents) + '\0', {}, false},
      {"root asks about an undefined one", 0, undefined, AuthorityAnswer::Refused, false},
      {"others ask about themselves", 1000, kSet, AuthorityAnswer::Granted, true},
      {"a read right refused too", 1000, kEvents, AuthorityAnswer::Refused, false},
      {"policy: allow", 1000, kEvents, noAuthority, true},
      {"policy: the write rule", 1000, kSet, noAuthority, false},
      {"policy: any other rule", 1000, admin, noAuthority, false},
      {"root holds a defined right, whatever its rule", 0, admin, {}, true},
      {"policy: undefined", 1000, undefined, noAuthority, false},
      {"policy: undefined for root", 0, undefined, noAuthority, false},
  };
  for (const Case& c : cases) {
    for (bool withAuthority : {true, false}) {
      if (!withAuthority && c.answer != noAuthority)
        continue;
      SCOPED_TRACE(std::string(c.label) + (withAuthority ? "" : ", without an authority"));
      create(withAuthority);
      testing::RecordingLogSink log;
      check(c.uid, c.right, c.formPid, c.startTime);
      if (withAuthority) {
        ASSERT_EQ(authority_->checks.size(), c.answer ? 1u : 0u);
        if (c.answer) {
          const FakeAuthority::Check& asked = authority_->checks[0];
          EXPECT_EQ(std::tuple(asked.subject.pid, asked.subject.uid, asked.subject.startTime,
                               asked.right),
                    std::tuple(4242, c.uid, 777u, c.right));
          EXPECT_FALSE(granted_);  // waits for the answer
          authority_->answer(*c.answer);
        }
      }
      EXPECT_EQ(granted_, c.granted);
      EXPECT_EQ(calls_, 1);
      using Lines = std::vector<std::pair<int, std::string>>;
      const Lines refused = {{LOG_NOTICE, "Authorization refused: " + c.right}};
      EXPECT_EQ(log.lines, c.answer && !c.granted ? refused : Lines{});
    }
  }
  // Destroying the checker drops a pending check; without one, all is refused.
  create(/*withAuthority=*/true);
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
