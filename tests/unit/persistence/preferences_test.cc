#include "persistence/preferences.h"

#include <gtest/gtest.h>

#include "fakes/port_fakes.h"

namespace nightjar::persistence {
namespace {

using plist::Value;

class PreferencesTest : public ::testing::Test {
 protected:
  void SetUp() override { preferencesSetStore(&store_); }
  void TearDown() override { preferencesSetStore(nullptr); }
  testing::FakePreferencesStore store_;
  const Value engine_ = Value::dictionary({{"events", Value::array({})}});
};

TEST_F(PreferencesTest, StoresAndRemovesWhenSetBackToTheDefault) {
  EXPECT_EQ(preferencesSetAndReadBackNumber(kNotifyPeriodKey, 600, kNotifyPeriodDefault), 600);
  EXPECT_EQ(store_.disk().get(kNotifyPeriodKey), Value::real(600));
  preferencesSetNumber(kNotifyPeriodKey, 900, kNotifyPeriodDefault);
  EXPECT_FALSE(store_.stores(kNotifyPeriodKey));
  EXPECT_TRUE(preferencesSetValue(kEngineKey, engine_, engineDefault()));
  EXPECT_EQ(preferencesCopyValue(kEngineKey, engineDefault()), engine_);
  preferencesSetBoolean(kConsoleNotifierKey, true, kConsoleNotifierDefault);
  // Set by another process, seen by the next read.
  store_.changeExternally(kConsoleNotifierKey, Value());
  EXPECT_FALSE(preferencesGetBoolean(kConsoleNotifierKey, kConsoleNotifierDefault));
  // A failed write answers so and leaves the last good value.
  store_.failWrites(true);
  EXPECT_FALSE(preferencesSetValue(kEngineKey, engineDefault(), engineDefault()));
  EXPECT_EQ(store_.disk().get(kEngineKey), engine_);
  store_.failWrites(false);
  preferencesSetValue(kEngineKey, engineDefault(), engineDefault());
  EXPECT_FALSE(store_.stores(kEngineKey));
}

// A forced value wins silently: nothing is written, and that is no failure.
TEST_F(PreferencesTest, ForcedValueWinsSilently) {
  store_.force(kSchedulerEnabledKey, Value::boolean(false));
  EXPECT_FALSE(preferencesSetAndReadBackBoolean(kSchedulerEnabledKey, true, true));
  store_.force(kNotifyPeriodKey, Value::integer(60));
  EXPECT_EQ(preferencesSetAndReadBackNumber(kNotifyPeriodKey, 300, kNotifyPeriodDefault), 60);
  store_.force(kEngineKey, engine_);
  EXPECT_TRUE(preferencesSetValue(kEngineKey, engineDefault(), engineDefault()));
  EXPECT_EQ(store_.writes(), 0);
}

TEST_F(PreferencesTest, NothingTheWrongTypeOrNoStoreReadsAsTheDefault) {
  EXPECT_EQ(preferencesGetNumber(kNotifyPeriodKey, kNotifyPeriodDefault), 900);
  store_.changeExternally(kNotifyPeriodKey, Value::string("soon"));
  store_.changeExternally(kSchedulerEnabledKey, Value::integer(0));
  store_.changeExternally(kEngineKey, Value::array({}));
  EXPECT_EQ(preferencesGetNumber(kNotifyPeriodKey, kNotifyPeriodDefault), 900);
  EXPECT_TRUE(preferencesGetBoolean(kSchedulerEnabledKey, kSchedulerEnabledDefault));
  EXPECT_EQ(preferencesCopyValue(kEngineKey, engineDefault()), engineDefault());
  store_.changeExternally(kNotifyPeriodKey, Value::integer(45));  // any number will do
  EXPECT_EQ(preferencesGetNumber(kNotifyPeriodKey, kNotifyPeriodDefault), 45);
  // Missing arguments or store do nothing.
  EXPECT_TRUE(preferencesSetValue("", Value::real(1), Value::real(2)));
  preferencesSetValue(kEngineKey, Value(), engineDefault());
  preferencesSetValue(kEngineKey, engineDefault(), Value());
  EXPECT_TRUE(preferencesCopyValue("", Value::real(1)).isNone());
  EXPECT_TRUE(preferencesCopyValue(kEngineKey, Value()).isNone());
  preferencesSetStore(nullptr);
  EXPECT_EQ(preferencesSetAndReadBackNumber(kNotifyPeriodKey, 5, kNotifyPeriodDefault), 900);
  EXPECT_TRUE(preferencesSetAndReadBackBoolean(kSchedulerEnabledKey, false, true));
  EXPECT_TRUE(preferencesSetValue(kEngineKey, engine_, engineDefault()));
  EXPECT_EQ(store_.writes(), 0);
}

}  // namespace
}  // namespace nightjar::persistence
