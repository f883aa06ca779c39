// kandb-ctl top: a server on one screen, measured again and again.

#include <signal.h>

#include <chrono>
#include <future>
#include <memory>
#include <utility>

#include "kandb_ctl/command.h"
#include "kandb_ctl/interrupt.h"
#include "kandb_ctl/local_server.h"
#include "kandb_ctl/options.h"
#include "kandb_ctl/terminal.h"
#include "kandb_ctl/top_model.h"
#include "kandb_ctl/top_screen.h"

namespace kandb::ctl {

namespace {

using Clock = std::chrono::steady_clock;

struct TopArguments {
  std::string data_dir;
  std::int64_t interval_ms = 2000;
  std::uint64_t count = 0;  // 0: until it is ended
  std::size_t wanted_voters = 0;
};

template <class Result>
bool IsReady(const std::future<Result>& future) {
  return future.valid() && future.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

// Measures in the background, so that a server that hangs holds up no key. The model is touched by
// the calling thread alone.
class Measurements {
 public:
  Measurements(const Context& tool_context, const TopArguments& command_arguments)
      : context(tool_context), arguments(command_arguments) {
    model.server = context.server;
    model.data_dir = arguments.data_dir;
    model.interval = std::chrono::milliseconds(arguments.interval_ms);
  }

  // Starts what is due, and takes what is there into the model.
  void Advance(Clock::time_point now) {
    if (IsReady(probe)) {
      model.Add(probe.get(), now);
      model.asked_at.reset();
      ++refreshes;
    }
    if (!probe.valid() && now >= next_probe) {
      next_probe = now + model.interval;
      model.asked_at = now;
      if (model.data_dir.empty()) model.data_dir = FindDataDir(context.server).value_or("");
      probe = std::async(std::launch::async, [this, dir = model.data_dir] {
        return CheckHealth(context, dir, HealthLimits());
      });
    }
    if (IsReady(reading)) TakeState(now);
    if (!reading.valid() && now >= next_reading && !model.data_dir.empty()) {
      reading_since = now;
      reading = std::async(std::launch::async, [this, dir = model.data_dir] {
        StateCounts counts;
        Status status = ReadStateCounts(dir, arguments.wanted_voters, &counts);
        return std::pair(std::move(status), std::move(counts));
      });
    }
  }

  const TopModel& Model() const { return model; }

  bool Done() const {
    const bool waits_for_state = reading.valid() && !model.state && model.state_failure.ok();
    return arguments.count > 0 && refreshes >= arguments.count && !waits_for_state;
  }

 private:
  void TakeState(Clock::time_point now) {
    constexpr int kStateShare = 20;  // at most one part of so many of the time
    next_reading =
        now + std::max<Clock::duration>(model.interval, (kStateShare - 1) * (now - reading_since));
    auto [status, counts] = reading.get();
    if (status.ok()) model.state = std::move(counts);
    model.state_failure = std::move(status);
  }

  const Context& context;
  const TopArguments& arguments;
  TopModel model;
  std::uint64_t refreshes = 0;
  Clock::time_point next_probe;
  Clock::time_point next_reading;
  Clock::time_point reading_since;
  std::future<HealthReport> probe;
  std::future<std::pair<Status, StateCounts>> reading;
};

void Scroll(Terminal::Key key, std::size_t page, std::size_t* first_line) {
  const bool up = key == Terminal::Key::kUp || key == Terminal::Key::kPageUp;
  const bool whole = key == Terminal::Key::kPageUp || key == Terminal::Key::kPageDown;
  const std::size_t step = key == Terminal::Key::kNone ? 0 : whole ? page : 1;
  *first_line = up ? *first_line - std::min(*first_line, step) : *first_line + step;
}

int RunTop(const Context& context, const TopArguments& arguments) {
  // Before the terminal, which is given back at once while a measurement ends.
  Measurements measurements(context, arguments);
  Terminal terminal;
  CatchInterrupts({SIGINT, SIGTERM, SIGHUP, SIGQUIT});
  if (Status s = terminal.Open(); !s.ok()) {
    (void)Fail(s);
    return kExitUsage;
  }
  std::size_t first_line = 0;
  Terminal::Key key = Terminal::Key::kNone;
  while (!Interrupted() && key != Terminal::Key::kQuit) {
    const auto now = Clock::now();
    measurements.Advance(now);
    const ScreenSize size = terminal.Size();
    Scroll(key, size.rows, &first_line);
    terminal.Show(DrawTop(measurements.Model(), now, size, terminal.ShowsUnicode(), &first_line));
    if (measurements.Done()) break;
    key = terminal.WaitForKey(std::chrono::milliseconds(100));
  }
  return kExitYes;
}

}  // namespace

void AddTopCommand(CLI::App* app, Context* context) {
  const auto arguments = std::make_shared<TopArguments>();
  CLI::App* command = app->add_subcommand(
      "top",
      "Shows a server on one screen until q or Ctrl-C. Each refresh makes the calls of health, a\n"
      "durable write of 12 bytes too. The whole state is read now and then, in at most a 20th of\n"
      "the time.");
  command->add_option("--data-dir", arguments->data_dir,
                      "the server's state directory; without it that of the process on this "
                      "machine, if it may be looked into");
  command->add_option("--interval-ms", arguments->interval_ms, "time from refresh to refresh")
      ->check(CLI::Range(100, 3'600'000))
      ->capture_default_str();
  command->add_option("--count", arguments->count, "end after so many refreshes")
      ->check(CLI::PositiveNumber);
  AddVotersOption(command, &arguments->wanted_voters);
  command->callback([=] { context->run = [=] { return RunTop(*context, *arguments); }; });
}

}  // namespace kandb::ctl
