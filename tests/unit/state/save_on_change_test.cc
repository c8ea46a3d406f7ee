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
    ASSERT_TRUE(saveOnChangeObserverCreate(loop_.get(), {[this] { ++dirtied_; }}));
    observer_ = saveOnChangeObserverGet();
  }
  void TearDown() override {
    saveOnChangeObserverDestroy();
    SavedStateTest::TearDown();
  }
  void post() { runloop::localCenter().post("test.change", this); }
  void pass() { saveOnChangeObserverRunPass(observer_); }

  std::unique_ptr<runloop::RunLoop> loop_;
  SaveOnChangeObserver* observer_ = nullptr;
  int dirtied_ = 0;
};

TEST_F(SaveOnChangeTest, EachPassWithNotificationsEndsWithOneSave) {
  EXPECT_TRUE(saveOnChangeObserverCreate(loop_.get()));  // a second create changes nothing
  EXPECT_EQ(saveOnChangeObserverGet(), observer_);
  pass();
  EXPECT_EQ(preferences_.writes(), 0);
  model::eventListStore(model::eventListGet(), validEvent("a"));  // posts "events.add"
  post();
  EXPECT_EQ(dirtied_, 2);
  pass();
  pass();
  EXPECT_EQ(preferences_.writes(), 1);
  EXPECT_FALSE(saveOnChangeObserverIsDirty(observer_));  // saving posted nothing
  EXPECT_EQ(saved().get(kEventsKey).count(), 1u);
  // A pass that leaves the state as saved writes nothing.
  post();
  EXPECT_TRUE(saveOnChangeObserverIsDirty(observer_));
  pass();
  EXPECT_EQ(preferences_.writes(), 1);
  EXPECT_FALSE(saveOnChangeObserverIsDirty(observer_));
  // Destroyed, the observer no longer listens.
  saveOnChangeObserverDestroy();
  post();
  EXPECT_EQ(dirtied_, 3);
}

TEST_F(SaveOnChangeTest, AFailedSaveKeepsTheLastFileIsLoggedOnceAndRetried) {
  RecordingLog log;
  post();
  pass();
  const Value good = saved();
  preferences_.failWrites(true);
  model::eventListStore(model::eventListGet(), validEvent("a"));
  pass();
  pass();  // retried without a new change
  EXPECT_EQ(preferences_.writes(), 3);
  EXPECT_EQ(saved(), good);
  EXPECT_EQ(log.lines.size(), 1u);
  preferences_.failWrites(false);
  pass();
  EXPECT_EQ(saved().get(kEventsKey).count(), 1u);
  EXPECT_FALSE(saveOnChangeObserverIsDirty(observer_));
  // A new fault is a new line.
  preferences_.failWrites(true);
  model::eventListStore(model::eventListGet(), validEvent("b"));
  pass();
  EXPECT_EQ(log.lines.size(), 2u);
}

TEST_F(SaveOnChangeTest, AStartFromTheReadStateWritesOnlyWhatLoadingChanged) {
  const Value read = persistenceCopyState();  // loading gives the second its queues
  for (const Value& engine : {read, read.with(kQueuesKey, Dict({}))}) {
    preferences_.changeExternally(persistence::kEngineKey, engine);
    saveOnChangeObserverStartFrom(observer_, persistenceRestore());
    post();
    pass();
    EXPECT_EQ(preferences_.writes(), engine == read ? 0 : 1);
  }
}

TEST_F(SaveOnChangeTest, TheRunLoopSavesAtTheEndOfAPass) {
  auto timer = loop_->addTimer([this] {
    model::eventListStore(model::eventListGet(), validEvent("a"));
    loop_->stop();
  });
  timer->setNextFireDate(runloop::systemClock().now());
  EXPECT_EQ(loop_->run(), 0);
  EXPECT_EQ(preferences_.writes(), 1);
}

}  // namespace
}  // namespace nightjar::state::testing
