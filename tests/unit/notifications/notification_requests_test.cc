// The replies of the six request operations; the dispatcher tests answer
// them without a controller.
#include <gtest/gtest.h>

#include <limits>

#include "notifications/notification_controller.h"
#include "notifications/notification_testing.h"

namespace nightjar::notifications::testing {
namespace {

const plist::Value kOk = Dict({{"status", I(200)}});
const plist::Value kFailed = Dict({{"status", I(400)}});

// Cancel, delay and reset reach a pending event's handler, and only one.
TEST_F(NotificationControllerTest, RequestsAnswerAsTheirTableSays) {
  NotificationController* controller = create();
  notificationControllerAddPending(controller, validEvent("a"), kStart + 3600);
  const plist::Value held = pending(controller, "a");
  EXPECT_EQ(notificationRequestCancel(controller, S("a")), kOk);  // no handlers yet
  EXPECT_EQ(notificationRequestDelay(controller, S("a"), I(60)), kOk);
  recordHandlers(controller);
  EXPECT_EQ(
      notificationRequestPending(controller),
      Dict({{"status", I(200)}, {"response", notificationControllerCopyPendingView(controller)}}));
  EXPECT_EQ(notificationRequestNotifyPeriod(controller),
            Dict({{"status", I(200)}, {"response", R(900)}}));
  EXPECT_TRUE(notificationRequestNotifyPeriod(controller).get("response").isReal());

  EXPECT_EQ(notificationRequestCancel(controller, S("a")), kOk);
  EXPECT_EQ(notificationRequestCancel(controller, S("not pending")), kOk);
  EXPECT_EQ(notificationRequestCancel(controller, {}), kFailed);
  EXPECT_EQ(notificationRequestReset(controller, S("a")), kOk);
  EXPECT_EQ(notificationRequestReset(controller, S("not pending")), kOk);
  EXPECT_EQ(notificationRequestReset(controller, {}), kFailed);
  EXPECT_EQ(notificationRequestDelay(controller, S("a"), I(60)), kOk);
  EXPECT_EQ(notificationRequestDelay(controller, S("a"), R(90.7)), kOk);  // read as 90
  EXPECT_EQ(notificationRequestDelay(controller, S("a"), I(0)), kOk);     // does nothing
  EXPECT_EQ(notificationRequestDelay(controller, S("a"), R(-5)), kOk);    // does nothing
  EXPECT_EQ(notificationRequestDelay(controller, S("not pending"), I(60)), kOk);
  EXPECT_EQ(notificationRequestDelay(controller, {}, I(60)), kFailed);
  EXPECT_EQ(notificationRequestDelay(controller, S("a"), I(std::int64_t{1} << 40)), kFailed);
  EXPECT_EQ(notificationRequestDelay(controller, S("a"), {}), kFailed);
  EXPECT_EQ(notificationRequestDelay(controller, S("a"), R(1e300)), kFailed);
  EXPECT_EQ(cancels_, std::vector<plist::Value>{held});
  EXPECT_EQ(rescheduled_, std::vector<plist::Value>{S("a")});
  EXPECT_EQ(delays_, (std::vector<std::pair<plist::Value, double>>{{held, 60}, {held, 90}}));

  const plist::Value invalidSeconds = Dict({{"error", I(405)}, {"reason", S("Invalid seconds")}});
  EXPECT_EQ(notificationRequestSetNotifyPeriod(controller, I((std::int64_t{1} << 53) + 1)),
            invalidSeconds);
  EXPECT_EQ(
      notificationRequestSetNotifyPeriod(controller, R(std::numeric_limits<double>::quiet_NaN())),
      invalidSeconds);
  EXPECT_EQ(notificationRequestSetNotifyPeriod(controller, S("60")), invalidSeconds);
  EXPECT_EQ(notificationControllerGetNotifyPeriod(controller), 900);
  EXPECT_EQ(notificationRequestSetNotifyPeriod(controller, R(61.5)), kOk);
  EXPECT_EQ(notificationControllerGetNotifyPeriod(controller), 61.5);
  EXPECT_EQ(notificationRequestSetNotifyPeriod(controller, I(-30)), kOk);
  EXPECT_EQ(notificationControllerGetNotifyPeriod(controller), -30);
}

}  // namespace
}  // namespace nightjar::notifications::testing
