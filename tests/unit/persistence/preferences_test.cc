#include "persistence/preferences.h"

#include <gtest/gtest.h>

#include "fakes/fake_preferences_store.h"

namespace nightjar::persistence {
namespace {

using plist::Value;

class PreferencesTest : public ::testing::Test {
 protected:
  void SetUp() override { preferencesSetStore(&store_); }
  void TearDown() override { preferencesSetStore(nullptr); }
  fakes::FakePreferencesStore store_;
};

TEST_F(PreferencesTest, StoresAndRemovesWhenSetBackToTheDefault) {
  EXPECT_EQ(preferencesSetAndReadBackNumber(kNotifyPeriodKey, 600, kNotifyPeriodDefault), 600);
  EXPECT_EQ(store_.disk().get(kNotifyPeriodKey), Value::real(600));

  preferencesSetNumber(kNotifyPeriodKey, 900, kNotifyPeriodDefault);
  EXPECT_FALSE(store_.stores(kNotifyPeriodKey));

  Value engine = Value::dictionary({{"events", Value::array({})}});
  preferencesSetValue(kEngineKey, engine, engineDefault());
  EXPECT_EQ(preferencesCopyValue(kEngineKey, engineDefault()), engine);
  preferencesSetValue(kEngineKey, engineDefault(), engineDefault());
  EXPECT_FALSE(store_.stores(kEngineKey));
}

TEST_F(PreferencesTest, ForcedValueWinsSilently) {
  store_.force(kSchedulerEnabledKey, Value::boolean(false));
  // given the scheduler forced off, enabling it reads back false and writes nothing
  EXPECT_FALSE(preferencesSetAndReadBackBoolean(kSchedulerEnabledKey, true, true));
  EXPECT_EQ(store_.writes(), 0);

  store_.force(kNotifyPeriodKey, Value::integer(60));
  EXPECT_EQ(preferencesSetAndReadBackNumber(kNotifyPeriodKey, 300, kNotifyPeriodDefault), 60);
}

TEST_F(PreferencesTest, ChangeByAnotherProcessIsSeenByTheNextRead) {
  preferencesSetBoolean(kConsoleNotifierKey, true, kConsoleNotifierDefault);
  store_.changeExternally(kConsoleNotifierKey, Value());
  store_.changeExternally(kNotifyPeriodKey, Value::real(30));
  EXPECT_FALSE(preferencesGetBoolean(kConsoleNotifierKey, kConsoleNotifierDefault));
  EXPECT_EQ(preferencesGetNumber(kNotifyPeriodKey, kNotifyPeriodDefault), 30);
}

TEST_F(PreferencesTest, NothingOrTheWrongTypeStoredReadsAsTheDefault) {
  EXPECT_FALSE(preferencesGetBoolean(kConsoleNotifierKey, kConsoleNotifierDefault));
  EXPECT_EQ(preferencesGetNumber(kNotifyPeriodKey, kNotifyPeriodDefault), 900);
  store_.changeExternally(kNotifyPeriodKey, Value::string("soon"));
  store_.changeExternally(kSchedulerEnabledKey, Value::integer(0));
  store_.changeExternally(kEngineKey, Value::array({}));
  EXPECT_EQ(preferencesGetNumber(kNotifyPeriodKey, kNotifyPeriodDefault), 900);
  EXPECT_TRUE(preferencesGetBoolean(kSchedulerEnabledKey, kSchedulerEnabledDefault));
  EXPECT_EQ(preferencesCopyValue(kEngineKey, engineDefault()), engineDefault());
  store_.changeExternally(kNotifyPeriodKey, Value::integer(45));
  EXPECT_EQ(preferencesGetNumber(kNotifyPeriodKey, kNotifyPeriodDefault), 45);
}

TEST_F(PreferencesTest, SetValueAnswersWhetherTheWriteReachedStorage) {
  const Value engine = Value::dictionary({{"events", Value::array({})}});
  EXPECT_TRUE(preferencesSetValue(kEngineKey, engine, engineDefault()));
  store_.failWrites(true);
  EXPECT_FALSE(preferencesSetValue(kEngineKey, engineDefault(), engineDefault()));
  EXPECT_EQ(store_.disk().get(kEngineKey), engine);  // the last good state stays
  // Nothing to write is no failure.
  store_.force(kEngineKey, engine);
  EXPECT_TRUE(preferencesSetValue(kEngineKey, engineDefault(), engineDefault()));
  preferencesSetStore(nullptr);
  EXPECT_TRUE(preferencesSetValue(kEngineKey, engine, engineDefault()));
}

TEST_F(PreferencesTest, MissingArgumentsOrStoreDoNothing) {
  preferencesSetValue("", Value::real(1), Value::real(2));
  preferencesSetValue(kEngineKey, Value(), engineDefault());
  preferencesSetValue(kEngineKey, engineDefault(), Value());
  EXPECT_TRUE(preferencesCopyValue("", Value::real(1)).isNone());
  EXPECT_TRUE(preferencesCopyValue(kEngineKey, Value()).isNone());

  preferencesSetStore(nullptr);
  EXPECT_EQ(preferencesSetAndReadBackNumber(kNotifyPeriodKey, 5, kNotifyPeriodDefault), 900);
  EXPECT_TRUE(preferencesSetAndReadBackBoolean(kSchedulerEnabledKey, false, true));
  EXPECT_EQ(preferencesCopyValue(kEngineKey, engineDefault()), engineDefault());
  EXPECT_EQ(store_.writes(), 0);
}

}  // namespace
}  // namespace nightjar::persistence
