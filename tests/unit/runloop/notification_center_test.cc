#include "runloop/notification_center.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace nightjar::runloop {
namespace {

class NotificationCenterTest : public ::testing::Test {
 protected:
  // Observes as `tag`, recording "tag:name" for each notification it gets.
  void observe(const void* observer, const std::string& tag, std::optional<std::string> name,
               const void* object) {
    center.addObserver(
        observer,
        [this, tag](std::string_view n, const void*, const plist::Value&) {
          log.push_back(tag + ":" + std::string(n));
        },
        std::move(name), object);
  }

  NotificationCenter center;
  std::vector<std::string> log;
  int a = 0, b = 0, c = 0;  // observers and objects, by address
};

TEST_F(NotificationCenterTest, FiltersByNameAndObjectInRegistrationOrder) {
  observe(&a, "name", "x", nullptr);
  observe(&b, "object", std::nullopt, &a);
  observe(&c, "both", "x", &a);
  observe(&c, "all", std::nullopt, nullptr);
  const plist::Value info = plist::Value::string("payload");
  center.addObserver(
      &b,
      [&](std::string_view, const void* object, const plist::Value& userInfo) {
        EXPECT_EQ(object, &b);
        EXPECT_EQ(userInfo.identity(), info.identity());  // handed over, not copied
      },
      "z", nullptr);
  center.post("z", &b, info);
  center.post("x", &b);
  center.post("y", &a);
  center.post("x", &a);
  EXPECT_EQ(log, (std::vector<std::string>{"all:z", "name:x", "all:x", "object:y", "all:y",
                                           "name:x", "object:x", "both:x", "all:x"}));
}

TEST_F(NotificationCenterTest, RemovedObservationsAreNotCalledEvenDuringAPost) {
  center.addObserver(
      &a,
      [&](auto...) {
        log.push_back("a");
        center.removeObserver(&b);
      },
      std::nullopt, nullptr);
  observe(&b, "b1", "x", nullptr);
  observe(&b, "b2", std::nullopt, nullptr);
  observe(&c, "c", std::nullopt, nullptr);
  center.post("x", nullptr);
  center.removeObserver(&a);
  EXPECT_EQ(center.observationCount(), 1u);
  center.post("x", nullptr);
  EXPECT_EQ(log, (std::vector<std::string>{"a", "c:x", "c:x"}));
}

// A post sees the observations made before it started, a nested post included.
TEST_F(NotificationCenterTest, ObserverAddedDuringAPostWaitsForTheNextPost) {
  center.addObserver(
      &a,
      [&, added = false](auto...) mutable {
        if (!added) {
          added = true;
          // Enough additions to move the stored callbacks while this one runs.
          for (int i = 0; i < 64; ++i)
            observe(&b, "b", std::nullopt, nullptr);
          center.removeObserver(&c);
          center.post("inner", nullptr);
        }
        log.push_back(added ? "a" : "?");  // reads its own state after the additions
      },
      std::nullopt, nullptr);
  observe(&c, "c", std::nullopt, nullptr);
  center.post("outer", nullptr);
  ASSERT_EQ(log.size(), 1u + 64u + 1u);
  EXPECT_EQ(log.front(), "a");
  EXPECT_EQ(std::count(log.begin(), log.end(), "b:inner"), 64);
  EXPECT_EQ(log.back(), "a");
  EXPECT_EQ(center.observationCount(), 1u + 64u);
}

}  // namespace
}  // namespace nightjar::runloop
