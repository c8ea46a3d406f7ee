// Reads back the calls that a python3-dbusmock object recorded, as text.
#pragma once

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <cstring>
#include <string>
#include <vector>

namespace nightjar::testing {

// The value at the cursor of `m` as text: strings as they are, booleans
// "true" or "false", integers in decimal, arrays as "[a,b]", structs as
// "(a,b)", dictionary entries as "key=value" and variants as what they hold.
inline std::string readValue(sd_bus_message* m) {
  char type = 0;
  const char* contents = nullptr;
  if (sd_bus_message_peek_type(m, &type, &contents) <= 0)
    return "?";
  if (std::strchr("arev", type) != nullptr) {
    const std::string open = type == 'a' ? "[" : type == 'r' ? "(" : "";
    const std::string close = type == 'a' ? "]" : type == 'r' ? ")" : "";
    std::string text = open;
    sd_bus_message_enter_container(m, type, contents);
    for (bool first = true; sd_bus_message_at_end(m, 0) == 0; first = false)
      text += (first ? "" : type == 'e' ? "=" : ",") + readValue(m);
    sd_bus_message_exit_container(m);
    return text + close;
  }
  union {
    const char* s;
    int b;
    std::uint32_t u;
    std::int32_t i;
    std::uint64_t t;
  } value{};
  if (std::strchr("sobuit", type) == nullptr) {
    const char skipped[] = {type, '\0'};
    sd_bus_message_skip(m, skipped);
    return "?";
  }
  if (sd_bus_message_read_basic(m, type, &value) <= 0)
    return "?";
  return type == 'b'   ? (value.b ? "true" : "false")
         : type == 'u' ? std::to_string(value.u)
         : type == 'i' ? std::to_string(value.i)
         : type == 't' ? std::to_string(value.t)
                       : value.s;
}

// The arguments of every call of `method` on the mock object at `path` of
// `service`, oldest first (org.freedesktop.DBus.Mock.GetMethodCalls).
inline std::vector<std::vector<std::string>> mockCalls(sd_bus* bus, const char* service,
                                                       const char* path, const char* method) {
  std::vector<std::vector<std::string>> calls;
  sd_bus_message* reply = nullptr;
  sd_bus_error error = SD_BUS_ERROR_NULL;
  if (sd_bus_call_method(bus, service, path, "org.freedesktop.DBus.Mock", "GetMethodCalls", &error,
                         &reply, "s", method) < 0) {
    ADD_FAILURE() << "GetMethodCalls: " << (error.message ? error.message : "failed");
    sd_bus_error_free(&error);
    return calls;
  }
  sd_bus_message_enter_container(reply, 'a', "(tav)");
  while (sd_bus_message_enter_container(reply, 'r', "tav") > 0) {
    std::uint64_t time = 0;
    sd_bus_message_read(reply, "t", &time);
    std::vector<std::string> arguments;
    sd_bus_message_enter_container(reply, 'a', "v");
    while (sd_bus_message_at_end(reply, 0) == 0)
      arguments.push_back(readValue(reply));
    sd_bus_message_exit_container(reply);
    sd_bus_message_exit_container(reply);
    calls.push_back(std::move(arguments));
  }
  sd_bus_message_unref(reply);
  return calls;
}

}  // namespace nightjar::testing
