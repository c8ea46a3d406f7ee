// nightjarctl: the command line of nightjard's client.
#include <CLI/CLI.hpp>
#include <functional>
#include <string>

#include "commands.h"

namespace {

using namespace nightjar::ctl;

struct Arguments {
  bool askPassword = true;
  bool json = false;
  bool check = false;
  std::string id, request, path, duration;
  std::optional<std::string> optionalText;
  EventOptions event;
};

void addEventOptions(CLI::App* command, EventOptions& options) {
  command->add_option("--at", options.at,
                      "once, at \"YYYY-MM-DD HH:MM\", \"tomorrow HH:MM\" or \"+2h\"");
  command->add_option("--daily", options.daily, "daily at HH:MM");
  command->add_option("--days", options.days,
                      "mon-fri, weekdays, weekends, all, or a list (mon,wed)");
  command->add_option("--idle", options.idle, "after this long without user input (30m)");
  command->add_option("--action", options.action,
                      "shutdown, restart, sleep, wake, poweron, logout or switch-user");
  command->add_option("--name", options.name, "the event's name");
  command->add_flag("--disabled", options.disabled, "stored but not scheduled");
}

// Declares the subcommands; each sets `run` to its action when chosen.
void declare(CLI::App& app, Arguments& a, std::function<int(Session&)>& run) {
  const auto on = [&](CLI::App* command, std::function<int(Session&)> action) {
    command->callback([&run, action] { run = action; });
    return command;
  };
  for (const auto& [name, help, show] :
       std::initializer_list<std::tuple<const char*, const char*, int (*)(Session&, bool)>>{
           {"list", "the events, sorted by name", listEvents},
           {"status", "the scheduler, the next event and the wake alarm", showStatus},
           {"pending", "the events due soon, and their warnings", showPending}}) {
    on(app.add_subcommand(name, help), [&a, show = show](Session& s) {
      return show(s, a.json);
    })->add_flag("--json", a.json, "as JSON");
  }
  CLI::App* show = on(app.add_subcommand("show", "one event"),
                      [&a](Session& s) { return showEvent(s, a.id, a.json); });
  show->add_option("ID", a.id)->required();
  show->add_flag("--json", a.json, "as JSON");
  addEventOptions(on(app.add_subcommand("add", "add an event; prints its identifier"),
                     [&a](Session& s) { return addEvent(s, a.event); }),
                  a.event);
  CLI::App* set = on(app.add_subcommand("set", "change an event"),
                     [&a](Session& s) { return setEvent(s, a.id, a.event); });
  set->add_option("ID", a.id)->required();
  addEventOptions(set, a.event);
  set->add_flag("--enabled", a.event.enabled, "scheduled again");
  on(app.add_subcommand("remove", "remove an event"),
     [&a](Session& s) { return removeEvent(s, a.id); })
      ->add_option("ID", a.id)
      ->required();
  on(app.add_subcommand("enable", "turn the scheduler on"),
     [](Session& s) { return setEnabled(s, true); });
  on(app.add_subcommand("disable", "turn the scheduler off"),
     [](Session& s) { return setEnabled(s, false); });
  CLI::App* delay = on(app.add_subcommand("delay", "put a pending event off"),
                       [&a](Session& s) { return delayEvent(s, a.id, a.duration); });
  delay->add_option("ID", a.id)->required();
  delay->add_option("DURATION", a.duration)->required();
  for (const auto& [name, request, help] :
       std::initializer_list<std::tuple<const char*, const char*, const char*>>{
           {"cancel", "notifications.cancel", "skip a pending event this time"},
           {"reset", "notifications.reset", "schedule an event afresh"}}) {
    on(app.add_subcommand(name, help),
       [&a, request = std::string(request)](Session& s) { return cancelOrReset(s, request, a.id); })
        ->add_option("ID", a.id)
        ->required();
  }
  on(app.add_subcommand("notify-period", "how long before an event it is announced"),
     [&a](Session& s) { return notifyPeriod(s, a.optionalText); })
      ->add_option("DURATION", a.optionalText);
  on(app.add_subcommand("version", "the daemon's version"), showVersion);
  on(app.add_subcommand("watch", "the daemon's broadcasts as they come"), [&a](Session&) {
    return watchBroadcasts(a.json);
  })->add_flag("--json", a.json, "one JSON object a line");
  on(app.add_subcommand("export", "every event as JSON"), exportEvents);
  CLI::App* apply = on(app.add_subcommand("apply", "make the daemon's events those of FILE"),
                       [&a](Session& s) { return applyFile(s, a.path, a.check); });
  apply->add_flag("--check", a.check, "change nothing; exit 3 when something would change");
  apply->add_option("FILE", a.path)->required();
  CLI::App* raw = on(app.add_subcommand("raw", "send any request; prints the reply"),
                     [&a](Session& s) { return rawRequest(s, a.request, a.optionalText); });
  raw->add_option("REQUEST", a.request)->required();
  raw->add_option("XML", a.optionalText, "the parameter, an XML property-list value");
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Control nightjard, the scheduler of power events.", "nightjarctl"};
  Arguments arguments;
  std::function<int(Session&)> run;
  bool noAskPassword = false;
  app.add_flag("--no-ask-password", noAskPassword, "never ask for a password");
  app.require_subcommand(1);
  // Like systemctl's, the global option may follow the subcommand.
  app.fallthrough();
  declare(app, arguments, run);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    const int code = app.exit(e);
    return code == 0 ? kExitOk : kExitUsage;
  }
  Session session(!noAskPassword);
  return run(session);
}
