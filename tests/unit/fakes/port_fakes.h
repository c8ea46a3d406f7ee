// Fakes of the platform ports: each records what it is asked and answers when
// the test says, so that a module is driven without the system behind it.
#pragma once

#include <algorithm>
#include <cerrno>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/authority.h"
#include "platform/command_runner.h"
#include "platform/console_notice.h"
#include "platform/console_user_source.h"
#include "platform/distributed_center.h"
#include "platform/file_change_source.h"
#include "platform/idle_time_source.h"
#include "platform/policy_database.h"
#include "platform/power_manager.h"
#include "platform/power_source.h"
#include "platform/preferences_store.h"
#include "platform/sleep_guard.h"
#include "platform/system_sleep.h"
#include "platform/terminal_broadcast.h"
#include "platform/time_zone_source.h"
#include "plist/xml.h"
#include "runloop/clock.h"

namespace nightjar::testing {

// Takes the oldest waiting completion off `queue` and calls it with `result`;
// nothing when none waits.
template <typename Completion, typename Result>
void completeOldest(std::deque<Completion>& queue, Result result) {
  if (queue.empty())
    return;
  Completion completion = std::move(queue.front());
  queue.pop_front();
  if (completion)
    completion(std::move(result));
}

// An idle time that grows with a fake clock from the user's last input, which
// the test sets by hand. A refresh stays outstanding until the test answers
// it; until then the source keeps what it learnt at the last answer.
class FakeIdleTimeSource final : public platform::IdleTimeSource {
 public:
  // The user touched the machine now, and the source knows it.
  explicit FakeIdleTimeSource(const runloop::Clock& clock)
      : clock_(clock), lastInput_(clock.now()), known_(lastInput_) {}

  double idleTime() override { return std::max(clock_.now() - known_, 0.0); }
  bool refresh() override { return outstanding_ = true; }
  void setListener(Listener listener) override { listener_ = std::move(listener); }

  // Answers the outstanding refresh with the last input as it is now, and
  // tells the listener; false when none was outstanding.
  bool answer() {
    if (!std::exchange(outstanding_, false))
      return false;
    known_ = lastInput_;
    if (listener_)
      listener_();
    return true;
  }
  void touch() { lastInput_ = clock_.now(); }
  void lastInputAt(runloop::AbsoluteTime date) { lastInput_ = date; }
  bool outstanding() const { return outstanding_; }
  bool listening() const { return static_cast<bool>(listener_); }

 private:
  const runloop::Clock& clock_;
  runloop::AbsoluteTime lastInput_, known_;
  bool outstanding_ = false;
  Listener listener_;
};

// An in-memory power manager's list that records every call made to it.
class FakePowerManager final : public platform::PowerManager {
 public:
  struct Call {
    std::string operation;  // "schedule" or "cancel"
    plist::AbsoluteTime date;
    std::string scheduledBy, type;
    bool operator==(const Call&) const = default;
  };

  plist::Value copyEntries() const override {
    ++copies_;
    return unavailable_ ? plist::Value() : plist::Value::array(entries_);
  }
  // As the platform's list: a second equal entry is not added.
  void schedule(plist::AbsoluteTime date, const std::string& by, const std::string& type) override {
    calls.push_back({"schedule", date, by, type});
    const plist::Value entry = entryValue(date, by, type);
    if (std::find(entries_.begin(), entries_.end(), entry) == entries_.end())
      entries_.push_back(entry);
  }
  void cancel(plist::AbsoluteTime date, const std::string& by, const std::string& type) override {
    calls.push_back({"cancel", date, by, type});
    const auto found = std::find(entries_.begin(), entries_.end(), entryValue(date, by, type));
    if (!ignoreCancels_ && found != entries_.end())
      entries_.erase(found);
  }
  static plist::Value entryValue(plist::AbsoluteTime date, const std::string& by,
                                 const std::string& type) {
    return plist::Value::dictionary({{platform::kEntryTypeKey, plist::Value::string(type)},
                                     {platform::kEntryTimeKey, plist::Value::date(date)},
                                     {platform::kEntryScheduledByKey, plist::Value::string(by)}});
  }

  void add(plist::Value entry) { entries_.push_back(std::move(entry)); }
  void setUnavailable(bool unavailable) { unavailable_ = unavailable; }
  void ignoreCancels(bool ignore) { ignoreCancels_ = ignore; }
  const plist::Array& entries() const { return entries_; }
  int copies() const { return copies_; }
  std::vector<Call> calls;

 private:
  plist::Array entries_;
  mutable int copies_ = 0;
  bool unavailable_ = false, ignoreCancels_ = false;
};

// An in-memory preference store. "Disk" is what another process would see;
// the view is what the store answers; synchronize() levels the two.
class FakePreferencesStore final : public platform::PreferencesStore {
 public:
  plist::Value copyValue(std::string_view key) override {
    auto it = forced_.find(key);
    return it != forced_.end() ? it->second : view_.get(key);
  }
  bool setValue(std::string_view key, const plist::Value& value) override {
    ++writes_;
    view_ = set(view_, key, value);
    storedBytes_ = plist::writeXml(view_).size();
    if (!failWrites_)
      disk_ = view_;
    return !failWrites_;
  }
  // As the real store: an external change wins; else a failed write is retried.
  void synchronize() override {
    if (std::exchange(changedExternally_, false))
      view_ = disk_;
    else if (!failWrites_)
      disk_ = view_;
  }
  bool isForced(std::string_view key) override { return forced_.contains(key); }
  std::size_t storedBytes() const override { return storedBytes_; }
  std::size_t maxStoredBytes() const override { return maxStoredBytes_; }

  void force(std::string_view key, plist::Value value) { forced_[std::string(key)] = value; }
  void failWrites(bool fail) { failWrites_ = fail; }
  void limitStoredBytes(std::size_t bytes) { maxStoredBytes_ = bytes; }
  // Another process changes the store: seen after the next synchronize().
  void changeExternally(std::string_view key, plist::Value value) {
    disk_ = set(disk_, key, value);
    changedExternally_ = true;
  }
  const plist::Value& disk() const { return disk_; }
  bool stores(std::string_view key) const { return !disk_.get(key).isNone(); }
  int writes() const { return writes_; }

 private:
  static plist::Value set(const plist::Value& in, std::string_view key, const plist::Value& value) {
    return value ? in.with(key, value) : in.without(key);
  }

  plist::Value view_ = plist::Value::dictionary({}), disk_ = view_;
  plist::Dictionary forced_;
  bool failWrites_ = false, changedExternally_ = false;
  int writes_ = 0;
  std::size_t storedBytes_ = 0, maxStoredBytes_ = platform::kMaxStoredFileBytes;
};

// An Authority that records each check and answers only when the test says.
class FakeAuthority final : public platform::Authority {
 public:
  struct Check {
    platform::AuthorizationSubject subject;
    std::string right;
    Completion done;
  };

  void check(const platform::AuthorizationSubject& subject, const std::string& right,
             Completion done) override {
    checks.push_back({subject, right, std::move(done)});
  }
  // Answers the oldest check still waiting; answers whether there was one.
  bool answer(platform::AuthorityAnswer answer) {
    if (answered >= checks.size())
      return false;
    std::move(checks[answered++].done)(answer);
    return true;
  }
  std::size_t waiting() const { return checks.size() - answered; }

  std::vector<Check> checks;
  std::size_t answered = 0;
};

// A CommandRunner that records each command and ends it when the test says.
class FakeCommandRunner final : public platform::CommandRunner {
 public:
  struct Command {
    std::string path;
    std::vector<std::string> arguments;
    friend bool operator==(const Command&, const Command&) = default;
  };

  void run(const std::string& path, const std::vector<std::string>& arguments,
           Completion completion) override {
    commands.push_back({path, arguments});
    std::string line = path;
    for (const std::string& argument : arguments)
      line += " " + argument;
    if (trace)
      trace(line);
    if (spawnError && completion)
      completion({.started = false, .status = *spawnError});
    else if (!spawnError)
      running.push_back(std::move(completion));
  }
  // Ends the oldest command still running with exit status `status`.
  void exit(int status) { completeOldest(running, Outcome{.started = true, .status = status}); }

  std::vector<Command> commands;
  std::deque<Completion> running;
  std::optional<int> spawnError;  // set: each command completes at once, not started
  std::function<void(const std::string&)> trace;
};

// A ConsoleNotice that records what it was asked to show and when it closed.
class FakeConsoleNotice final : public platform::ConsoleNotice {
 public:
  struct Shown {
    std::string header, message;
    double seconds = 0;
  };

  bool show(const std::string& header, const std::string& message, double seconds) override {
    shown.push_back({header, message, seconds});
    if (trace)
      trace(reachable ? "notice shown" : "notice unreachable");
    return reachable;
  }
  void close() override {
    ++closes;
    if (trace)
      trace("notice closed");
  }

  bool reachable = true;  // false: no desktop, show() answers false
  int closes = 0;
  std::vector<Shown> shown;
  std::function<void(const std::string&)> trace;
};

// A ConsoleUserSource that the test drives by hand.
class FakeConsoleUserSource final : public platform::ConsoleUserSource {
 public:
  void setChangeHandler(ChangeHandler next) override { handler = std::move(next); }
  platform::ConsoleSession current() const override { return session; }
  // Makes `next` the active session and reports it, as the platform would.
  void report(platform::ConsoleSession next) {
    session = std::move(next);
    if (handler)
      handler(session);
  }

  ChangeHandler handler;
  platform::ConsoleSession session;
};

inline platform::ConsoleSession userSession(std::string name, uid_t uid, std::optional<gid_t> gid) {
  return {
      .kind = platform::ConsoleSessionKind::User, .name = std::move(name), .uid = uid, .gid = gid};
}

inline platform::ConsoleSession greeterSession() {
  platform::ConsoleSession session;
  session.kind = platform::ConsoleSessionKind::Greeter;
  return session;
}

// A DistributedCenter that records every broadcast.
class FakeDistributedCenter final : public platform::DistributedCenter {
 public:
  struct Broadcast {
    std::string name;
    plist::Value userInfo;
  };

  void post(std::string_view name, const plist::Value& userInfo) override {
    broadcasts.push_back({std::string(name), userInfo});
    if (trace)
      trace("post " + std::string(name));
  }
  std::vector<std::string> names() const {
    std::vector<std::string> out;
    for (const Broadcast& broadcast : broadcasts)
      out.push_back(broadcast.name);
    return out;
  }

  std::vector<Broadcast> broadcasts;
  std::function<void(const std::string&)> trace;
};

// A FileChangeSource that hands out one id per path; the test reports changes
// by hand.
class FakeFileChangeSource final : public platform::FileChangeSource {
 public:
  void setChangeHandler(ChangeHandler next) override { handler = std::move(next); }
  // Paths in `unwatchable` fail; a path in `sameFile` gets the id of the path
  // it names; every other path gets a fresh id.
  std::optional<WatchId> add(std::string_view path) override {
    const std::string& key = adds.emplace_back(path);
    if (unwatchable.contains(key))
      return std::nullopt;
    if (sameFile.contains(key))
      return ids.at(sameFile.at(key));
    return ids[key] = static_cast<WatchId>(ids.size()) + 1;
  }
  void remove(WatchId id) override { removes.push_back(id); }
  void change(const std::string& path) { handler(ids.at(path)); }

  ChangeHandler handler;
  std::set<std::string> unwatchable;
  std::map<std::string, std::string> sameFile;
  std::map<std::string, WatchId> ids;
  std::vector<std::string> adds;
  std::vector<WatchId> removes;
};

// A PolicyDatabase in memory that records its changes and fails on demand.
class FakePolicyDatabase final : public platform::PolicyDatabase {
 public:
  plist::Value rule(std::string_view right) override {
    auto it = rights.find(right);
    return it == rights.end() ? plist::Value() : it->second;
  }
  int setRight(std::string_view right, const plist::Value& rule) override {
    changes.push_back("set " + std::string(right));
    if (auto it = setFailures.find(right); it != setFailures.end())
      return it->second;
    rights.insert_or_assign(std::string(right), rule);
    return 0;
  }
  int removeRight(std::string_view right) override {
    changes.push_back("remove " + std::string(right));
    if (auto it = removeFailures.find(right); it != removeFailures.end())
      return it->second;
    return rights.erase(std::string(right)) == 1 ? 0 : ENOENT;
  }

  std::map<std::string, plist::Value, std::less<>> rights;
  // Right -> error number that setRight / removeRight answer for it.
  std::map<std::string, int, std::less<>> setFailures, removeFailures;
  std::vector<std::string> changes;
};

// A PowerSource whose sleeps and wakes the test announces by hand.
class FakePowerSource final : public platform::PowerSource {
 public:
  void setHandlers(Handlers next) override { handlers = std::move(next); }
  void sleep() {
    if (handlers.willSleep)
      handlers.willSleep();
  }
  void wake() {
    if (handlers.didWake)
      handlers.didWake();
  }

  Handlers handlers;
};

// A SleepGuard that records its holds and releases.
struct FakeSleepGuard final : platform::SleepGuard {
  void hold() override { ++holds; }
  void release() override { ++releases; }
  bool held() const { return holds > releases; }
  int holds = 0, releases = 0;
};

// A SystemSleep that records each request and answers it when the test says.
class FakeSystemSleep final : public platform::SystemSleep {
 public:
  void sleepNow(Completion completion) override {
    pending.push_back(std::move(completion));
    if (trace)
      trace("sleep");
  }
  // Answers the oldest request still waiting, as the power manager would later.
  void answer(int error) { completeOldest(pending, error); }

  std::deque<Completion> pending;
  std::function<void(const std::string&)> trace;  // told of every request
};

// A TerminalBroadcast that records every text it was asked to write.
struct FakeTerminalBroadcast final : platform::TerminalBroadcast {
  void broadcast(const std::string& text) override { written.push_back(text); }
  std::vector<std::string> written;
};

// A TimeZoneSource whose zone the test sets by hand.
struct FakeTimeZoneSource final : platform::TimeZoneSource {
  std::optional<platform::TimeZone> current() override {
    ++reads;
    return zone;
  }
  std::optional<platform::TimeZone> zone;  // nullopt: the zone cannot be read
  int reads = 0;
};

inline platform::TimeZone namedZone(std::string name) {
  platform::TimeZone zone;
  zone.data = {name.begin(), name.end()};
  zone.name = std::move(name);
  return zone;
}

}  // namespace nightjar::testing
