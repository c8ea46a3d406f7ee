#include "model/event_list.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "model/event.h"
#include "model_testing.h"

namespace nightjar::model {
namespace {

using namespace testing;
using plist::Value;

class EventListTest : public ::testing::Test {
 protected:
  ~EventListTest() override { eventListTearDown(); }
  std::vector<Value> members() const { return list->events().members(); }

  EventList* list = (eventListSetUp(), eventListGet());
  PostRecorder recorder{list};
};

TEST_F(EventListTest, StoreAddsModifiesOrDoesNothing) {
  const Value first = validEvent("a"), second = validEvent("b");
  const Value renamed = first.with("name", S("renamed"));
  EXPECT_EQ(eventListStore(list, first), 0);
  EXPECT_EQ(eventListStore(list, second), 1);
  EXPECT_EQ(eventListStore(list, first), 0) << "unchanged: the held index";
  EXPECT_EQ(eventListStore(list, renamed), 0) << "a changed event keeps its place";
  EXPECT_EQ(members(), (std::vector<Value>{renamed, second}));
  EXPECT_EQ(recorder.posts,
            (std::vector<Post>{
                {"events.add", first}, {"events.add", second}, {"events.modify", renamed}}));
  EXPECT_EQ(eventListFind(list, S("a")), renamed);
  EXPECT_EQ(eventListFind(list, S("zz")), Value());
  EXPECT_EQ(eventListCopyPublic(list), A({second, renamed})) << "sorted by name";
}

TEST_F(EventListTest, InvalidEventIsRefusedAndLogged) {
  eventListStore(list, validEvent("a"));
  recorder.posts.clear();
  RecordingLog log;
  const Value nameless = validEvent("b").without("name");
  EXPECT_EQ(eventListStore(list, nameless), -1);
  EXPECT_EQ(eventListStore(list, validEvent("a").with("enabled", S("yes"))), -1);
  EXPECT_EQ(members(), (std::vector<Value>{validEvent("a")}));
  EXPECT_TRUE(recorder.posts.empty());
  ASSERT_EQ(log.lines.size(), 2u);
  EXPECT_EQ(log.lines[0].first, LOG_ERR);
  EXPECT_EQ(log.lines[0].second, "Invalid event: " + plist::describeValue(nameless));
}

TEST_F(EventListTest, RemovalsAnnounceTheIdentifierAskedFor) {
  for (const char* id : {"x", "y", "z", "w"}) {
    eventListStore(list, validEvent(id));
  }
  recorder.posts.clear();
  EXPECT_EQ(eventListRemove(list, S("nothing")), -1);
  EXPECT_EQ(eventListRemove(list, S("w")), 3);
  eventListRemoveAll(list);
  EXPECT_TRUE(members().empty());
  const auto removal = [](const char* id) {
    return Post{"events.remove", Dict({{"uniqueid", S(id)}})};
  };
  EXPECT_EQ(recorder.posts,
            (std::vector<Post>{removal("w"), removal("x"), removal("y"), removal("z")}));
}

TEST_F(EventListTest, ReplaceAllKeepsOnlyValidEventsSilently) {
  eventListStore(list, validEvent("old"));
  recorder.posts.clear();
  RecordingLog log;
  eventListReplaceAll(list, A({validEvent("a"), S("text"), validEvent("b").without("action")}));
  EXPECT_EQ(members(), (std::vector<Value>{validEvent("a")}));
  EXPECT_EQ(log.lines.size(), 1u);
  ASSERT_EQ(recorder.posts.size(), 1u) << "only the old event's removal";
  eventListReplaceAll(list, Value());
  EXPECT_EQ(members().size(), 1u) << "none changes nothing";
}

TEST(EventListSlot, SetUpOnceAndTearDownDropsTheListsObservations) {
  EXPECT_EQ(eventListGet(), nullptr);
  eventListSetUp();
  EventList* list = eventListGet();
  eventListSetUp();
  EXPECT_EQ(eventListGet(), list) << "never replaced while set up";
  const std::size_t before = runloop::localCenter().observationCount();
  runloop::localCenter().addObserver(
      list, [](auto, auto, auto&) {}, std::nullopt, nullptr);
  eventListTearDown();
  EXPECT_EQ(eventListGet(), nullptr);
  EXPECT_EQ(runloop::localCenter().observationCount(), before);
  EXPECT_EQ(eventListStore(nullptr, validEvent("a")), -1);
  EXPECT_EQ(eventListCopyPublic(nullptr), Value());
}

// Lookups through the list's index against the literal rule (first match by
// "uniqueid" in a plain array), over random stores, removals and replace-alls
// that bring in repeated identifiers.
TEST_F(EventListTest, LookupsMatchALinearSearch) {
  std::mt19937 random(11);
  RecordingLog quiet;
  const auto id = [&] { return "e" + std::to_string(random() % 30); };
  const auto linearIndex = [&](const Value& wanted) {
    const std::vector<Value> all = members();
    const auto found =
        std::find_if(all.begin(), all.end(), [&](auto& m) { return eventUniqueID(m) == wanted; });
    return found == all.end() ? -1 : static_cast<int>(found - all.begin());
  };
  for (int step = 0; step < 3000; ++step) {
    const Value event = validEvent(id(), "n" + std::to_string(random() % 2));
    if (const int choice = random() % 20; choice == 0) {
      // Three random identifiers out of thirty: now and then a repeated one.
      eventListReplaceAll(list, A({event, validEvent(id()), validEvent(id())}));
    } else if (choice < 8) {
      const int expected = linearIndex(eventUniqueID(event));
      ASSERT_EQ(eventListRemove(list, eventUniqueID(event)), expected);
    } else {
      const int held = linearIndex(eventUniqueID(event));
      const int expected = held >= 0 ? held : static_cast<int>(members().size());
      ASSERT_EQ(eventListStore(list, event), expected);
    }
    const Value probe = S(id());
    ASSERT_EQ(eventListFind(list, probe), list->events().at(linearIndex(probe))) << step;
  }
}

}  // namespace
}  // namespace nightjar::model
