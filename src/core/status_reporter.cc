#include "core/status_reporter.h"

#include <systemd/sd-daemon.h>

#include <ctime>
#include <optional>
#include <string>

#include "core/service_status.h"
#include "model/event.h"
#include "model/event_list.h"
#include "scheduling/date_time_trigger.h"
#include "scheduling/queue_controller.h"

namespace nightjar::core {
namespace {

// What the line shows; compared each pass, so the text is made only on change.
struct Shown {
  int count = -1;
  const void* next = nullptr;  // the next event's queued record: a new one when rescheduled
  bool operator==(const Shown&) const = default;
};

// The date-time queue's first event: the next dated one.
plist::Value nextDatedEvent() {
  static const plist::Value probe = plist::Value::dictionary(
      {{std::string(model::kTriggerKey),
        plist::Value::dictionary({{std::string(model::kTypeKey), plist::Value::string("once")}})}});
  scheduling::QueueController* dated =
      scheduling::queueControllerListFindForEvent(scheduling::queueControllerListGet(), probe);
  return dated != nullptr ? scheduling::queueControllerFirstEvent(dated) : plist::Value();
}

}  // namespace

std::unique_ptr<runloop::ObserverHandle> statusReporterStart(runloop::RunLoop& loop) {
  // Last in the pass, once everything the pass changed is out.
  return loop.addObserver(
      runloop::PassStage::Broadcast, [shown = Shown{}](runloop::Activity activity) mutable {
        const model::EventList* list = model::eventListGet();
        if (activity != runloop::Activity::BeforeWaiting || list == nullptr)
          return;
        const plist::Value next = nextDatedEvent();
        const Shown now{list->events().size(), next.identity()};
        if (now == shown)
          return;
        shown = now;
        const std::optional<plist::AbsoluteTime> date =
            next.get(scheduling::kTriggerDateKey).asDate();
        const std::string* name = next.get(model::kNameKey).asString();
        const std::string text =
            serviceStatusText(now.count, name != nullptr ? *name : std::string_view(),
                              date.value_or(0), date.has_value(), std::time(nullptr));
        sd_notify(0, ("STATUS=" + text).c_str());
      });
}

}  // namespace nightjar::core
