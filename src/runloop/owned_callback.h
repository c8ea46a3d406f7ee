// Internal to the run loop: sd-event sources that own their callback.
#pragma once

#include <systemd/sd-event.h>

#include <memory>

namespace nightjar::runloop::internal {

template <typename Box>
void destroyBox(void* userdata) {
  delete static_cast<Box*>(userdata);
}

// Calls `add(&source, userdata)` with `box` as the userdata and hands the box to
// the new source: sd-event frees it together with the source. A source that is
// released inside its own callback is freed only once that callback returned,
// so a callback may destroy the object that holds its source. Answers nullptr
// (and frees the box) when `add` fails.
template <typename Box, typename Add>
sd_event_source* addOwningSource(std::unique_ptr<Box> box, Add add) {
  sd_event_source* source = nullptr;
  if (add(&source, box.get()) < 0) {
    return nullptr;
  }
  // Fails only for a null source, which `add` just ruled out.
  sd_event_source_set_destroy_callback(source, &destroyBox<Box>);
  box.release();
  return source;
}

}  // namespace nightjar::runloop::internal
