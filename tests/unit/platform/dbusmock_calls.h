// Reads back the calls that a python3-dbusmock object recorded.
#pragma once

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <cstring>
#include <string>
#include <vector>

namespace nightjar::testing {

// One argument of a basic type as text: strings as they are, booleans "true"
// or "false", integers in decimal; arrays of strings as "[a,b]". Other kinds
// are skipped as "?".
inline std::string readArgument(sd_bus_message* m, const char* contents) {
  if (sd_bus_message_enter_container(m, 'v', contents) <= 0)
    return "?";
  const std::string type = contents;
  std::string text = "?";
  union {
    const char* s;
    int b;
    std::uint32_t u;
    std::int32_t i;
  } value{};
  char** strings = nullptr;
  if (type == "as" && sd_bus_message_read_strv(m, &strings) > 0) {
    text = "[";
    for (char** s = strings; *s != nullptr; ++s) {
      text += (s == strings ? "" : ",") + std::string(*s);
      free(*s);
    }
    text += "]";
    free(strings);
  } else if (type.size() == 1 && std::strchr("sobui", type[0]) != nullptr &&
             sd_bus_message_read_basic(m, type[0], &value) > 0) {
    text = type == "b"   ? (value.b ? "true" : "false")
           : type == "u" ? std::to_string(value.u)
           : type == "i" ? std::to_string(value.i)
                         : value.s;
  } else {
    sd_bus_message_skip(m, contents);
  }
  sd_bus_message_exit_container(m);
  return text;
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
    char type = 0;
    const char* contents = nullptr;
    while (sd_bus_message_peek_type(reply, &type, &contents) > 0)
      arguments.push_back(readArgument(reply, contents));
    sd_bus_message_exit_container(reply);
    sd_bus_message_exit_container(reply);
    calls.push_back(std::move(arguments));
  }
  sd_bus_message_unref(reply);
  return calls;
}

}  // namespace nightjar::testing
