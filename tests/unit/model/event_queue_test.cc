#include "model/event_queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <compare>
#include <random>
#include <string>

#include "model/event.h"
#include "model_testing.h"

namespace nightjar::model {
namespace {

using namespace testing;
using plist::Value;

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
  runloop::localCenter().removeObserver(&firstSeen);
  EXPECT_EQ(members(), (std::vector<Value>{early, middle, late}));
  EXPECT_GT(calls, 0) << "the context reaches the comparator";
  EXPECT_EQ(recorder.posts,
            (std::vector<Post>{
                {"queue.update", late}, {"queue.update", early}, {"queue.update", middle}}));
  EXPECT_EQ(firstSeen, (std::vector<Value>{late, early, early}));
}

TEST_F(EventQueueTest, UnchangedOrInvalidStoresPostNothing) {
  const Value event = onceEvent("a", 100);
  eventQueueStore(queue.get(), onceEvent("b", 50));
  eventQueueStore(queue.get(), event);
  recorder.posts.clear();
  EXPECT_EQ(eventQueueStore(queue.get(), event), 1) << "the held record's index";
  RecordingLog log;
  EXPECT_EQ(eventQueueStore(queue.get(), event.without("name")), -1);
  EXPECT_TRUE(recorder.posts.empty());
  ASSERT_EQ(log.lines.size(), 1u);
  EXPECT_TRUE(log.lines[0].second.starts_with("Invalid event: {")) << log.lines[0].second;
  EXPECT_EQ(members().size(), 2u);
}

TEST_F(EventQueueTest, RemovalsPostOncePerRemovedEvent) {
  for (int i = 0; i < 3; ++i) {
    eventQueueStore(queue.get(), onceEvent("e" + std::to_string(i), i));
  }
  recorder.posts.clear();
  EXPECT_EQ(eventQueueRemove(queue.get(), S("nothing")), -1);
  EXPECT_EQ(eventQueueRemove(queue.get(), S("e1")), 1);
  EXPECT_EQ(eventQueueFind(queue.get(), S("e1")), Value());
  eventQueueRemoveAll(queue.get());
  EXPECT_TRUE(members().empty());
  EXPECT_EQ(recorder.posts, std::vector<Post>(3, Post{"queue.update", Value()}));
}

TEST_F(EventQueueTest, ReplaceAllKeepsTheGivenOrderUntilTheNextStore) {
  const Value c = onceEvent("c", 300), b = onceEvent("b", 200), a = onceEvent("a", 100);
  const Value unchecked = c.with("name", I(1));
  eventQueueStore(queue.get(), onceEvent("old", 1));
  recorder.posts.clear();
  eventQueueReplaceAll(queue.get(), A({c, S("x"), c.without("uniqueid"), b, unchecked}));
  EXPECT_EQ(members(), (std::vector<Value>{c, b, unchecked}));
  EXPECT_EQ(recorder.posts, std::vector<Post>(2, Post{"queue.update", Value()}));
  EXPECT_EQ(eventQueueFind(queue.get(), S("c")), c) << "the first of two wins";
  EXPECT_EQ(eventQueueStore(queue.get(), a), 0);
  EXPECT_EQ(eventQueueCopyEvents(queue.get()), A({a, b, c, unchecked}));
  recorder.posts.clear();
  eventQueueReplaceAll(queue.get(), Value());
  eventQueueReplaceAll(queue.get(), S("not an array"));
  EXPECT_EQ(recorder.posts.size(), 5u) << "four removals, one replacement; none changes nothing";
  EXPECT_EQ(eventQueueCopyEvents(queue.get()), A({}));
  EXPECT_EQ(eventQueueCopyEvents(nullptr), Value());
}

// The queue places a changed event without a full sort; the order and the
// lookups must be exactly those of a plain array that is stable-sorted after
// every change, also with many equal dates and after unsorted replace-alls.
TEST(EventQueue, PlacementMatchesAStableSortOfTheWholeArray) {
  int calls = 0;
  auto queue = eventQueueCreate(byDate, &calls);
  std::vector<Value> reference;
  std::mt19937 random(7);
  const auto firstWith = [&](const Value& id) {
    return std::find_if(reference.begin(), reference.end(),
                        [&](auto& m) { return eventUniqueID(m) == id; });
  };
  for (int step = 0; step < 3000; ++step) {
    // Replace-alls, unsorted or already sorted, and removals interleaved with
    // the stores: the queue must never trust an order it did not check.
    if (const auto roll = random() % 40; roll == 0 || roll == 1) {
      if (roll == 0) {
        std::shuffle(reference.begin(), reference.end(), random);
      }
      eventQueueReplaceAll(queue.get(), A(reference));
      ASSERT_EQ(queue->events().members(), reference) << "step " << step;
    } else if (roll < 6) {
      const Value id = S("e" + std::to_string(random() % 40));
      if (const auto held = firstWith(id); held != reference.end()) {
        reference.erase(held);
      }
      eventQueueRemove(queue.get(), id);
    }
    const Value event = onceEvent("e" + std::to_string(random() % 40), random() % 6)
                            .with("name", S("n" + std::to_string(random() % 3)));
    const auto held = firstWith(eventUniqueID(event));
    if (held == reference.end() || *held != event) {
      held == reference.end() ? reference.push_back(event) : void(*held = event);
      std::stable_sort(reference.begin(), reference.end(),
                       [&](auto& a, auto& b) { return byDate(a, b, &calls) < 0; });
    }
    eventQueueStore(queue.get(), event);
    ASSERT_EQ(queue->events().members(), reference) << "step " << step;
    const Value probe = S("e" + std::to_string(random() % 40));
    const auto first = firstWith(probe);
    ASSERT_EQ(eventQueueIndexOf(queue.get(), probe),
              first == reference.end() ? -1 : static_cast<int>(first - reference.begin()));
  }
}

}  // namespace
}  // namespace nightjar::model
