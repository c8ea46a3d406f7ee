"""The mutation sample: plausible faults, one per row, that the tests must catch.

Each row: name, file, the exact text to replace (it must occur exactly once),
its replacement, the unit test programs to build, the ctest -R pattern that
should fail (none: only nightjard has it), and optionally the pytest arguments of the end-to-end tests that
should fail. A row whose text is no longer found is reported, never skipped.
"""

E2E = "tests/e2e/"


def fault(name, path, old, new, targets, unit, e2e=""):
    return dict(name=name, path=path, old=old, new=new, targets=targets, unit=unit, e2e=e2e)


FAULTS = [
    fault("above-max-at-86400", "src/model/validation.cc",
          "converted.value > kMaxSeconds", "converted.value >= kMaxSeconds",
          ["model_test"], "Validate", E2E + "test_api_replies.py"),
    fault("pre-wake-20s", "src/scheduling/power_events.cc",
          "kPreWakeLead = 30;", "kPreWakeLead = 20;",
          ["engine_test"], "PowerEvents", E2E + "test_event_road.py -k wake"),
    fault("delay-0s-accepted", "src/notifications/notification_controller.cc",
          "!(seconds > 0)", "!(seconds >= 0)",
          ["notification_controller_test"], "NotificationController",
          E2E + "test_event_road.py -k wake_entries"),
    fault("form-start-time-ignored", "src/wire/authorization_form.cc",
          "if (!started || *started != form->startTime)", "if (!started)",
          ["wire_test"], "ExternalForm", E2E + "test_api_replies.py"),
    fault("state-without-notifications-applied", "src/state/saved_state.cc",
          " && !state.get(kNotificationsKey).isNone()", "",
          ["state_test"], "SavedState", E2E + "test_saved_state.py"),
    fault("framing-limit-off-by-one", "src/wire/framing.cc",
          "header->length > maxLength", "header->length > maxLength + 1",
          ["wire_test"], "Framing", E2E + "test_api_socket.py"),
    fault("rtc-not-cleared", "src/platform/linux/file_power_manager.cc",
          'int error = overwrite(alarmPath_, "0");',
          'int error = target == 0 ? overwrite(alarmPath_, "0") : 0;',
          ["file_power_manager_test"], "FilePowerManager", E2E + "test_event_road.py -k wake"),
    fault("constraint-lead-as-minimum", "src/scheduling/date_time_trigger.cc",
          "lead = std::max(*constraint - now, lead);", "lead = std::min(*constraint - now, lead);",
          ["date_time_test"], "DateTime",
          E2E + "test_event_road.py -k 'daily or wake_entries'"),
    fault("failed-store-answered-200", "src/api/scheduler_requests.cc",
          "return index >= 0 ? ok() : failed();", "return index >= -1 ? ok() : failed();",
          ["dispatcher_test"], "Scheduler", E2E + "test_api_replies.py"),
    fault("saved-state-413-bound-off", "src/state/saved_state_size.cc",
          "bytes > admissionLimit(*store) - projected)",
          "bytes > admissionLimit(*store) - projected + 1)",
          ["state_test", "dispatcher_test"], "SavedState|Scheduler",
          E2E + "test_saved_state.py -k limit"),
    fault("end-of-pass-stage-order-swapped", "src/runloop/run_loop_observer.cc",
          "return value < o->stage;", "return value > o->stage;",
          ["runloop_test"], "RunLoop", E2E + "test_event_road.py -k before_the_reply"),
    fault("reply-released-before-save", "src/core/daemon.cc",
          "runloop::PassStage::ReleaseReplies,", "runloop::PassStage::WakeEntries,",
          [], "", E2E + "test_durability.py -k kill_9"),
    fault("write-not-waiting-during-perform", "src/api/dispatcher.cc",
          "if (waits && performWaitNeeded()) {", "if (false && waits && performWaitNeeded()) {",
          ["dispatcher_test"], "Dispatch|AuthorizeAs|Scheduler",
          E2E + "test_saved_state.py -k sigterm_during"),
    fault("uid-connection-cap-off-by-one", "src/api/connection_quota.cc",
          "found->second >= kConnectionsPerUser", "found->second > kConnectionsPerUser",
          ["socket_server_test"], "Socket", "tests/stress/test_peers.py -k idle"),
    fault("unsent-reply-bound-off-by-one", "src/api/socket_client.cc",
          "replyQueue.size() >= framing::kMaxUnsentReplies",
          "replyQueue.size() > framing::kMaxUnsentReplies",
          ["socket_server_test"], "Socket", E2E + "test_api_socket.py"),
    fault("forced-notify-period-rearms", "src/notifications/notification_controller.cc",
          "  if (controller->notifyPeriod == seconds) {\n    armTimer(controller);\n",
          "  armTimer(controller);\n  if (controller->notifyPeriod == seconds) {\n",
          ["notification_controller_test"], "NotificationController",
          E2E + "test_saved_state.py -k forced_notify"),
    fault("inactivity-n-plus-1-off-by-one", "src/scheduling/inactivity_queue_controller.cc",
          ">= static_cast<double>(period) + 1;", ">= static_cast<double>(period);",
          ["inactivity_test"], "Inactivity", E2E + "test_event_road.py -k inactivity"),
    fault("corrupt-state-not-kept-aside", "src/platform/linux/file_preferences_store.cc",
          " ||\n         outcome == ReadOutcome::Corrupt;", ";",
          ["preferences_adapter_test"], "PreferencesAdapter",
          E2E + "test_saved_state.py -k corrupt"),
]
