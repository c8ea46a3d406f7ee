// The event record and its two collections: the list and the sorted queue.
#include "model/event.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <compare>
#include <random>
#include <string>

#include "model/event_list.h"
#include "model/event_queue.h"
#include "model_testing.h"

namespace nightjar::model {
namespace {

using namespace testing;
using plist::Value;

std::weak_ordering byName(Value a, Value b) {
  const auto record = [](Value name) { return name ? Dict({{"name", name}}) : Dict({}); };
  return compareEventsByKey(record(a), record(b), "name");
}

TEST(CompareEventsByKey, StringsByUtf16UnitDatesByTimeAbsentLastAlwaysAnOrder) {
  const auto less = std::weak_ordering::less;
  const auto equal = std::weak_ordering::equivalent;
  EXPECT_EQ(byName(S("Zulu"), S("alpha")), less) << "upper case before lower case";
  EXPECT_EQ(byName(S("abc"), S("abc")), equal);
  EXPECT_EQ(byName(D(10), D(20)), less);
  EXPECT_EQ(byName(I(1), I(2)), equal) << "numbers carry no order";
  EXPECT_EQ(byName(S("z"), Value()), less) << "absent last";
  EXPECT_EQ(byName(Value(), Value()), equal);
  // Sorting needs a strict weak order, also over mixed kinds and NaN dates.
  const std::vector<Value> values = {S("b"),          D(5),    I(3), Value(), S("a"), D(1),
                                     D(std::nan("")), B(false)};
  for (const Value& a : values) {
    for (const Value& b : values) {
      EXPECT_EQ(byName(a, b), 0 <=> byName(b, a)) << "antisymmetric";
      for (const Value& c : values) {
        EXPECT_TRUE(!(byName(a, b) < 0 && byName(b, c) < 0) || byName(a, c) < 0) << "transitive";
      }
    }
  }
}

TEST(CopyPublicEvents, DropsTopLevelPrivateKeysAndSortsByKey) {
  const Value trigger = Dict({{"type", S("once")}, {"_nested", I(1)}});
  const Value held = Dict({{"name", S("n")},
                           {"metadatatriggerdate", D(3)},
                           {"_DateTimeQueueController.Trigger.Date", D(3)},
                           {"_", I(0)},
                           {"trigger", trigger}});
  EXPECT_EQ(copyPublicEvents(A({held, S("not an event")})),
            A({Dict({{"name", S("n")}, {"metadatatriggerdate", D(3)}, {"trigger", trigger}}),
               S("not an event")}));
  EXPECT_EQ(copyPublicEvents(Value()), Value());
  // Sorted by a key, missing last.
  const Value b = validEvent("1", "beta"), a = validEvent("4", "alpha");
  const Value unnamed = validEvent("2").without("name"), upper = validEvent("3", "Zeta");
  EXPECT_EQ(copyPublicEvents(A({b, unnamed, upper, a}), "name"), A({upper, a, b, unnamed}));
  EXPECT_EQ(copyPublicEvents(A({b, unnamed, upper, a})), A({b, unnamed, upper, a}));
  // The key is read from the public copy: a private key orders nothing.
  EXPECT_EQ(copyPublicEvents(A({b.with("_order", I(2)), a.with("_order", I(1))}), "_order"),
            A({b, a}));
}

class EventListTest : public ::testing::Test {
 protected:
  ~EventListTest() override { eventListTearDown(); }
  std::vector<Value> members() const { return list->events().members(); }

  EventList* list = (eventListSetUp(), eventListGet());
  PostRecorder recorder{list};
};

TEST_F(EventListTest, StoreAddsModifiesRefusesOrDoesNothing) {
  RecordingLog log;
  const Value first = validEvent("a"), second = validEvent("b");
  const Value renamed = first.with("name", S("renamed")), nameless = second.without("name");
  EXPECT_EQ(eventListStore(list, first), 0);
  EXPECT_EQ(eventListStore(list, second), 1);
  EXPECT_EQ(eventListStore(list, first), 0) << "unchanged: the held index";
  EXPECT_EQ(eventListStore(list, renamed), 0) << "a changed event keeps its place";
  EXPECT_EQ(eventListStore(list, nameless), -1);
  EXPECT_EQ(members(), (std::vector<Value>{renamed, second}));
  EXPECT_EQ(recorder.posts,
            (std::vector<Post>{
                {"events.add", first}, {"events.add", second}, {"events.modify", renamed}}));
  EXPECT_EQ(log.lines, (std::vector<std::pair<int, std::string>>{
                           {LOG_ERR, "Invalid event: " + plist::describeValue(nameless)}}));
  EXPECT_EQ(eventListFind(list, S("a")), renamed);
  EXPECT_EQ(eventListCopyPublic(list), A({second, renamed})) << "sorted by name";
}

// Removals announce the identifier asked for; a replace-all removes every
// event and then keeps only the valid ones, silently.
TEST_F(EventListTest, RemovalsAndReplaceAll) {
  for (const char* id : {"x", "y", "w"}) {
    eventListStore(list, validEvent(id));
  }
  recorder.posts.clear();
  EXPECT_EQ(eventListRemove(list, S("nothing")), -1);
  EXPECT_EQ(eventListRemove(list, S("w")), 2);
  RecordingLog log;
  eventListReplaceAll(list, A({validEvent("a"), S("text"), validEvent("b").without("action")}));
  EXPECT_EQ(members(), (std::vector<Value>{validEvent("a")}));
  EXPECT_EQ(log.lines.size(), 1u);
  const auto removal = [](const char* id) {
    return Post{"events.remove", Dict({{"uniqueid", S(id)}})};
  };
  EXPECT_EQ(recorder.posts, (std::vector<Post>{removal("w"), removal("x"), removal("y")}));
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

// Ascending by the once trigger's date; the context counts the calls.
std::weak_ordering byDate(const Value& a, const Value& b, void* context) {
  ++*static_cast<int*>(context);
  return std::weak_order(*a.get("trigger").get("date").asDate(),
                         *b.get("trigger").get("date").asDate());
}

class EventQueueTest : public ::testing::Test {
 protected:
  std::vector<Value> members() const { return queue->events().members(); }

  int calls = 0;
  std::unique_ptr<EventQueue> queue = eventQueueCreate(byDate, &calls);
  PostRecorder recorder{queue.get()};
};

TEST_F(EventQueueTest, StoreSortsAndAnnouncesTheEventToObserversOfTheSortedQueue) {
  const Value late = onceEvent("late", 300), early = onceEvent("early", 100);
  const Value middle = onceEvent("middle", 200);
  std::vector<Value> firstSeen;
  runloop::localCenter().addObserver(
      &firstSeen, [&](auto, auto, auto&) { firstSeen.push_back(eventQueueFirst(queue.get())); },
      "queue.update", queue.get());
  EXPECT_EQ(eventQueueStore(queue.get(), late), 0);
  EXPECT_EQ(eventQueueStore(queue.get(), early), 0);
  EXPECT_EQ(eventQueueStore(queue.get(), middle), 1);
  EXPECT_EQ(eventQueueStore(queue.get(), middle), 1) << "unchanged: the held record's index";
  RecordingLog quiet;
  EXPECT_EQ(eventQueueStore(queue.get(), middle.without("name")), -1);
  runloop::localCenter().removeObserver(&firstSeen);
  EXPECT_EQ(members(), (std::vector<Value>{early, middle, late}));
  EXPECT_EQ(recorder.posts,
            (std::vector<Post>{
                {"queue.update", late}, {"queue.update", early}, {"queue.update", middle}}));
  EXPECT_EQ(firstSeen, (std::vector<Value>{late, early, early}));
}

TEST_F(EventQueueTest, ReplaceAllKeepsTheGivenOrderUntilTheNextStore) {
  const Value c = onceEvent("c", 300), b = onceEvent("b", 200), a = onceEvent("a", 100);
  const Value unchecked = c.with("name", I(1));
  eventQueueStore(queue.get(), onceEvent("old", 1));
  recorder.posts.clear();
  eventQueueReplaceAll(queue.get(), A({c, S("x"), c.without("uniqueid"), b, unchecked}));
  EXPECT_EQ(members(), (std::vector<Value>{c, b, unchecked}));
  EXPECT_EQ(recorder.posts, std::vector<Post>(2, Post{"queue.update", Value()}));
  EXPECT_EQ(eventQueueStore(queue.get(), a), 0);
  EXPECT_EQ(eventQueueCopyEvents(queue.get()), A({a, b, c, unchecked}));
  recorder.posts.clear();
  eventQueueReplaceAll(queue.get(), Value());
  eventQueueReplaceAll(queue.get(), S("not an array"));
  EXPECT_EQ(recorder.posts.size(), 5u) << "four removals, one replacement; none changes nothing";
  EXPECT_EQ(eventQueueCopyEvents(queue.get()), A({}));
  EXPECT_EQ(eventQueueCopyEvents(nullptr), Value());
}

// Placed without a full sort, the queue must equal an array stable-sorted after each change,
// also with equal dates and unsorted replace-alls that repeat identifiers (the first is found).
TEST_F(EventQueueTest, PlacementMatchesAStableSortOfTheWholeArray) {
  std::vector<Value> reference;
  std::mt19937 random(7);
  const auto indexOf = [&](const Value& id) {
    const auto first = std::find_if(reference.begin(), reference.end(),
                                    [&](auto& m) { return eventUniqueID(m) == id; });
    return first == reference.end() ? -1 : static_cast<int>(first - reference.begin());
  };
  for (int step = 0; step < 3000; ++step) {
    if (const auto roll = random() % 40; roll == 0 || roll == 1) {
      if (roll == 0 && !reference.empty()) {
        reference.push_back(reference[random() % reference.size()].with("name", S("again")));
        std::shuffle(reference.begin(), reference.end(), random);
      }
      eventQueueReplaceAll(queue.get(), A(reference));
      ASSERT_EQ(members(), reference) << "step " << step;
    } else if (roll < 6) {
      const Value id = S("e" + std::to_string(random() % 40));
      const int index = indexOf(id);
      if (index >= 0) {
        reference.erase(reference.begin() + index);
      }
      ASSERT_EQ(eventQueueRemove(queue.get(), id), index);
    }
    const Value event = onceEvent("e" + std::to_string(random() % 40), random() % 6)
                            .with("name", S("n" + std::to_string(random() % 3)));
    if (const int held = indexOf(eventUniqueID(event)); held < 0 || reference[held] != event) {
      held < 0 ? reference.push_back(event) : void(reference[held] = event);
      std::stable_sort(reference.begin(), reference.end(),
                       [&](auto& a, auto& b) { return byDate(a, b, &calls) < 0; });
    }
    ASSERT_EQ(eventQueueStore(queue.get(), event),
              std::find(reference.begin(), reference.end(), event) - reference.begin());
    ASSERT_EQ(members(), reference) << "step " << step;
    const Value probe = S("e" + std::to_string(random() % 40));
    const int index = indexOf(probe);
    ASSERT_EQ(eventQueueIndexOf(queue.get(), probe), index);
    ASSERT_EQ(eventQueueFind(queue.get(), probe), index < 0 ? Value() : reference[index]);
  }
}

}  // namespace
}  // namespace nightjar::model
