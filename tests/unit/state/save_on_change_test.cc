#include <syslog.h>

#include "runloop/notification_center.h"
#include "runloop/run_loop.h"
#include "state/save_on_change_observer.h"
#include "state_testing.h"

namespace nightjar::state::testing {
namespace {

class SaveOnChangeTest : public SavedStateTest {
 protected:
  void SetUp() override {
    SavedStateTest::SetUp();
    loop_ = runloop::RunLoop::create();
    ASSERT_NE(loop_, nullptr);
    ASSERT_TRUE(saveOnChangeObserverCreate(loop_.get(), {[this] { ++dirtied_; }}));
    observer_ = saveOnChangeObserverGet();
  }
  void TearDown() override {
    saveOnChangeObserverDestroy();
    SavedStateTest::TearDown();
  }
  void post(std::string_view name = "test.change") { runloop::localCenter().post(name, this); }
  int errorLines(const RecordingLog& log) {
    int count = 0;
    for (const auto& [priority, text] : log.lines)
      count += priority == LOG_ERR ? 1 : 0;
    return count;
  }

  std::unique_ptr<runloop::RunLoop> loop_;
  SaveOnChangeObserver* observer_ = nullptr;
  int dirtied_ = 0;
};

TEST_F(SaveOnChangeTest, EachPassWithNotificationsEndsWithOneSave) {
  EXPECT_TRUE(saveOnChangeObserverCreate(loop_.get()));  // a second create changes nothing
  EXPECT_EQ(saveOnChangeObserverGet(), observer_);

  saveOnChangeObserverRunPass(observer_);
  EXPECT_EQ(preferences_.writes(), 0);

  model::eventListStore(model::eventListGet(), validEvent("a"));  // posts "events.add"
  post();
  post();
  EXPECT_TRUE(saveOnChangeObserverIsDirty(observer_));
  EXPECT_EQ(dirtied_, 3);
  saveOnChangeObserverRunPass(observer_);
  saveOnChangeObserverRunPass(observer_);
  EXPECT_EQ(preferences_.writes(), 1);
  EXPECT_FALSE(saveOnChangeObserverIsDirty(observer_));  // saving posted nothing
  EXPECT_EQ(saved().get(kEventsKey).count(), 1u);

  // A pass that leaves the state as saved writes nothing.
  post();
  saveOnChangeObserverRunPass(observer_);
  EXPECT_EQ(preferences_.writes(), 1);
  EXPECT_FALSE(saveOnChangeObserverIsDirty(observer_));

  // Destroyed, the observer no longer listens.
  saveOnChangeObserverDestroy();
  post();
  EXPECT_EQ(dirtied_, 4);
}

TEST_F(SaveOnChangeTest, AFailedSaveKeepsTheLastFileIsLoggedOnceAndRetried) {
  RecordingLog log;
  post();
  saveOnChangeObserverRunPass(observer_);
  const Value good = saved();

  preferences_.failWrites(true);
  model::eventListStore(model::eventListGet(), validEvent("a"));
  saveOnChangeObserverRunPass(observer_);
  post();
  saveOnChangeObserverRunPass(observer_);
  saveOnChangeObserverRunPass(observer_);  // retried without a new change
  EXPECT_EQ(preferences_.writes(), 4);
  EXPECT_EQ(saved(), good);
  EXPECT_EQ(errorLines(log), 1);

  preferences_.failWrites(false);
  saveOnChangeObserverRunPass(observer_);
  EXPECT_EQ(saved().get(kEventsKey).count(), 1u);
  EXPECT_FALSE(saveOnChangeObserverIsDirty(observer_));

  // A new fault is a new line.
  preferences_.failWrites(true);
  model::eventListStore(model::eventListGet(), validEvent("b"));
  saveOnChangeObserverRunPass(observer_);
  EXPECT_EQ(errorLines(log), 2);
}

TEST_F(SaveOnChangeTest, AStartFromTheReadStateWritesOnlyWhatLoadingChanged) {
  const Value read = persistenceCopyState();  // loading gives the second its queues
  for (const Value& engine : {read, read.with(kQueuesKey, Dict({}))}) {
    preferences_.changeExternally(persistence::kEngineKey, engine);
    saveOnChangeObserverStartFrom(observer_, persistenceRestore());
    post();
    saveOnChangeObserverRunPass(observer_);
    EXPECT_EQ(preferences_.writes(), engine == read ? 0 : 1);
  }
}

TEST_F(SaveOnChangeTest, TheRunLoopSavesBeforeSleepingAndAtExit) {
  auto first = loop_->addTimer([this] { post(); });
  auto last = loop_->addTimer([this] {
    model::eventListStore(model::eventListGet(), validEvent("a"));
    loop_->stop();
  });
  const double now = runloop::systemClock().now();
  first->setNextFireDate(now);
  last->setNextFireDate(now + 0.05);
  EXPECT_EQ(loop_->run(), 0);
  EXPECT_EQ(preferences_.writes(), 2);
  EXPECT_FALSE(saveOnChangeObserverIsDirty(observer_));
}

}  // namespace
}  // namespace nightjar::state::testing
