// kandb-ctl top in a terminal of its own, what it draws, and the counts of the state.

#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <termios.h>

#include <cmath>
#include <future>

#include "kandb_ctl/sparkline.h"
#include "kandb_ctl/top_screen.h"
#include "support/eventually.h"
#include "support/run_tool.h"
#include "support/server_process.h"

namespace kandb {
namespace {

// Stores 1 to 3, the last without an address; regions of each condition.
void FillCluster(int port) {
  testing::Caller caller(port);
  pdpb::BootstrapResponse made;
  const pdpb::Region first{1, "", "b", {1, 1}, {{11, 1, {}}, {12, 2, {}}}};
  for (const pdpb::Store& store :
       {pdpb::Store{1, "s1.example", 0}, {2, "s2.example", 1}, {3, "", 0}}) {
    ASSERT_TRUE(caller.Bootstrap({store, first, {}}, &made).ok());
  }
  pdpb::UpsertRegionResponse written;
  const pdpb::UpsertRegionRequest request{
      {{2, "b", "c", {1, 1}, {{21, 2, {}}, {22, 1, {}}}},
       {3, "c", "d", {1, 1}, {{31, 1, {}}, {32, 2, pdpb::PeerRole::kLearner}}},
       {4, "d", "e", {1, 1}, {{41, 1, {}}}},
       {5, "e", "f", {1, 1}, {{51, 1, {}}, {52, 9, {}}}},
       {6, "f", "", {1, 1}, {}}},
      {}};
  ASSERT_TRUE(caller.UpsertRegion(request, &written).ok());
}

TEST(Metrics, CountWhatTheRecordsSay) {
  const testing::TempDir dir;
  testing::ListeningServer server(dir.path());
  FillCluster(server.port());
  const auto metrics = [&](const char* voters) {
    return testing::RunTool({"--server=127.0.0.1:" + std::to_string(server.port()), "metrics",
                             "--data-dir=" + dir.File("pd-data"), voters})
        .out;
  };
  const std::string text = metrics("--voters=2");
  for (const char* line :
       {"state_readable 1", "state_findings 2", "regions{condition=\"healthy\"} 2",
        "regions{condition=\"learner\"} 1", "regions{condition=\"fewer_voters\"} 1",
        "regions{condition=\"unknown_store\"} 1", "regions{condition=\"no_peers\"} 1",
        "regions{condition=\"more_voters\"} 0", "stores{state=\"0\"} 2", "stores{state=\"1\"} 1",
        "stores_without_address 1", "store_replicas{store=\"1\"} 5", "store_leaders{store=\"1\"} 4",
        "store_leaders{store=\"3\"} 0", "id_mark 1024"}) {
    EXPECT_NE(text.find("\nkandb_" + std::string(line) + "\n"), text.npos) << line << text;
  }
  EXPECT_NE(metrics("--voters=1").find("more_voters\"} 2"), text.npos);
}

// The terminal is as it was, and the screen from before is back.
TEST(Top, GivesTheTerminalBackHoweverItEnds) {
  const testing::TempDir dir;
  testing::ListeningServer server(dir.path());
  FillCluster(server.port());
  const std::string address = "--server=127.0.0.1:" + std::to_string(server.port());
  ::setenv("TERM", "xterm", 1);
  const struct {
    const char* keys;
    int signal;
    bool kill_server;
  } cases[] = {{"q", 0, false}, {"", SIGTERM, false}, {"\x03", 0, false}, {"q", 0, true}};
  for (const auto& [keys, signal, kill_server] : cases) {
    SCOPED_TRACE(std::string(keys) + std::to_string(signal));
    winsize size{24, 80, 0, 0};
    int ends[2];
    ASSERT_EQ(::openpty(&ends[0], &ends[1], nullptr, nullptr, &size), 0);
    const UniqueFd master(ends[0]);
    UniqueFd slave(ends[1]);
    const auto in_child = [&] {
      ::setsid();
      ::ioctl(slave.get(), TIOCSCTTY, 0);
      for (int fd = 0; fd < 3; ++fd) ::dup2(slave.get(), fd);
    };
    const auto modes = [&] {
      termios now{};
      EXPECT_EQ(::tcgetattr(slave.get(), &now), 0);
      return std::tuple(now.c_iflag, now.c_oflag, now.c_lflag, now.c_cc[VMIN]);
    };
    const auto before = modes();
    tools::ChildProcess top(KANDB_TOOL_BINARY, {"top", "--interval-ms=100", address},
                            {.in_child = in_child});
    std::string seen;
    const auto see = [&](const char* text) {
      EXPECT_TRUE(testing::Eventually([&] {
        char bytes[4096];
        pollfd input{master.get(), POLLIN, 0};
        const bool more = ::poll(&input, 1, 100) > 0;
        const ssize_t count = more ? ::read(master.get(), bytes, sizeof(bytes)) : 0;
        if (count > 0) seen.append(bytes, static_cast<std::size_t>(count));
        return seen.find(text) != seen.npos;
      })) << seen;
    };
    see("s2.example");
    EXPECT_NE(modes(), before);
    if (kill_server) {
      server.Kill();
      see("NO ANSWER");  // the other lines change in parts
    }
    if (signal != 0) ::kill(top.pid(), signal);
    EXPECT_GE(::write(master.get(), keys, std::string(keys).size()), 0);
    // A program waits for its last words to be read.
    auto rest = std::async(std::launch::async, [&] {
      for (char byte = 0; ::read(master.get(), &byte, 1) == 1;) seen += byte;
    });
    std::string unused;
    EXPECT_EQ(top.WaitForExit(&unused), 0);
    EXPECT_EQ(modes(), before);
    slave = UniqueFd();
    rest.get();
    EXPECT_NE(seen.find("\x1b[?1049l"), seen.npos);
  }
  const testing::ToolResult none = testing::RunTool({"top", address});
  EXPECT_EQ(none.exit_status, 2);
  EXPECT_TRUE(none.err.find("must be a terminal") != none.err.npos) << none.err;
}

TEST(Top, FitsEveryScreen) {
  ctl::TopModel model;
  model.server = "h:1";
  model.data_dir = "/\x1b[2J";
  model.state.emplace();
  for (const auto& [condition, name] : ctl::kRegionConditions) {
    model.state->by_condition[condition] = 7;
  }
  for (std::uint64_t id = 1; id <= 100; ++id) model.state->stores.push_back({{id, "h", 0}, 1, 1});
  for (int i = 0; i < 400; ++i) {
    model.Add({{{"write", "seconds", 0.001, true, false, ""}}, {}}, {});
  }
  for (const ctl::ScreenSize size : {ctl::ScreenSize{24, 80}, {10, 40}, {1, 1}, {200, 1000}}) {
    std::size_t first_line = 1000;
    const auto lines = DrawTop(model, {}, size, false, &first_line);
    EXPECT_LE(lines.size(), size.rows);
    for (const ctl::ScreenLine& line : lines) {
      EXPECT_LE(line.text.size(), size.columns);
      EXPECT_EQ(line.text.find('\x1b'), line.text.npos);
    }
    EXPECT_TRUE(size.rows == 1 || lines[lines.size() - 2].text.starts_with("100 "));
  }
  // A server that hangs does not seem well.
  std::size_t first_line = 0;
  model.asked_at = ctl::TopModel::Time();
  const auto lines =
      DrawTop(model, *model.asked_at + std::chrono::seconds(3), {2, 80}, false, &first_line);
  EXPECT_EQ(lines[0].text, "kandb-meta h:1  NO ANSWER for 3 s");
}

TEST(Sparkline, ScalesToEightBars) {
  const struct {
    std::vector<double> values;
    double low, high;
    bool unicode;
    const char* line;
  } cases[] = {{{0, 1, 2, 3, 4, 5, 6, 7, 8}, 0, 8, false, "_.:-=+*##"},
               {{8, 0, 4}, 0, 8, true, "█▁▅"},
               {{10, 15, 20}, 10, 20, false, "_=#"},
               {{-1, NAN, 9}, 0, 8, false, "_ #"},
               {{5, 5}, 5, 5, false, "__"},
               {{}, 0, 0, true, ""}};
  for (const auto& [values, low, high, unicode, line] : cases) {
    EXPECT_EQ(ctl::Sparkline(values, low, high, unicode), line);
  }
}

}  // namespace
}  // namespace kandb
