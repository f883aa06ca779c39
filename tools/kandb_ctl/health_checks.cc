#include "kandb_ctl/health_checks.h"

#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <set>
#include <sstream>

#include "common/posix_file.h"
#include "kandb_ctl/connection.h"
#include "kandb_ctl/key_text.h"
#include "kandb_ctl/local_server.h"
#include "lsm/file_names.h"
#include "lsm/manifest.h"
#include "pdpb/timestamp.h"
#include "tools/common/remote_failure.h"

namespace kandb::ctl {

namespace {

constexpr double kMiB = 1 << 20;

std::string Number(double value, const char* format) {
  char text[64];
  (void)std::snprintf(text, sizeof(text), format, value);
  return text;
}

std::string MiB(double bytes) { return Number(bytes / kMiB, "%.1f MiB"); }

// --- the port ---

class PortProbes {
 public:
  PortProbes(const Context& context, const HealthLimits& health_limits, HealthReport* health)
      : connection(context), limits(health_limits), report(health) {}

  void Run();

 private:
  // Adds a check of how long the call takes, and returns its result.
  template <class Call>
  Status Time(const char* name, Call call) {
    const auto start = std::chrono::steady_clock::now();
    Status status = call();
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    HealthCheck check{name, "seconds", elapsed.count(), true, false, ""};
    check.text = Number(elapsed.count() * 1000, "%.1f ms");
    if (elapsed.count() * 1000 > limits.call_ms) {
      check.bad = true;
      check.text += Number(limits.call_ms, ", more than %.0f ms");
    }
    if (!status.ok()) {
      check.bad = true;
      check.text += ": " + status.message();
    }
    report->checks.push_back(check);
    return status;
  }
  void CheckTimestamps(std::uint64_t first, std::uint64_t second);

  Connection connection;
  const HealthLimits& limits;
  HealthReport* const report;
};

void PortProbes::Run() {
  client::PdClient& pd = connection.pd;
  pdpb::TsoResponse first;
  pdpb::TsoResponse second;
  const Status connected = Time("connect", [&] { return pd.Tso({1}, &first); });
  if (!connected.ok()) {
    const bool answered = tools::RemoteFailureOf(connected) != tools::RemoteFailure::kNone;
    if (!answered) report->unreachable = connected;
    return;
  }
  if (Time("timestamp", [&] { return pd.Tso({1}, &second); }).ok()) {
    CheckTimestamps(first.timestamp, second.timestamp);
  }
  (void)Time("lookup", [&] {
    pdpb::GetRegionResponse answer;
    const Status status = pd.GetRegion({""}, &answer);
    const tools::RemoteFailure failure = tools::RemoteFailureOf(status);
    // A cluster without regions is not sick.
    const bool none = failure == tools::RemoteFailure::kNotBootstrapped ||
                      failure == tools::RemoteFailure::kNoRegionCoversKey;
    return none ? Status() : status;
  });
  // Changes nothing, and is logged and synced like any change.
  (void)Time("write", [&] {
    pdpb::UpsertRegionResponse answer;
    return pd.UpsertRegion({}, &answer);
  });
}

void PortProbes::CheckTimestamps(std::uint64_t first, std::uint64_t second) {
  const auto now = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::system_clock::now().time_since_epoch());
  const auto ahead_ms =
      static_cast<double>(pdpb::PhysicalMs(second)) - static_cast<double>(now.count());
  HealthCheck check{"clock", "seconds", ahead_ms / 1000, true, false, ""};
  check.text = Number(ahead_ms, "timestamps are %+.0f ms from this clock");
  if (std::abs(ahead_ms) > limits.clock_ms) {
    check.bad = true;
    check.text += Number(limits.clock_ms, ", more than %.0f ms");
  }
  if (second <= first) {
    check.bad = true;
    check.text += "; the second timestamp is not above the first";
  }
  report->checks.push_back(check);
}

// --- the directory ---

class DirectoryChecks {
 public:
  DirectoryChecks(const std::string& data_dir, const HealthLimits& health_limits,
                  HealthReport* health)
      : dir(data_dir), limits(health_limits), report(health) {}

  void Run() {
    CheckFiles();
    CheckProcess();
  }

 private:
  void Add(const char* name, const char* unit, double value, double limit, bool least,
           const std::string& text) {
    HealthCheck check{name, unit, value, true, least ? value < limit : value > limit, text};
    if (check.bad) {
      const bool bytes = check.unit == "bytes";
      check.text +=
          (least ? ", less than " : ", more than ") + (bytes ? MiB(limit) : Number(limit, "%.0f"));
    }
    report->checks.push_back(check);
  }
  void AddUnknown(const char* name, const std::string& why, bool bad) {
    report->checks.push_back({name, "", 0, false, bad, why});
  }
  void CheckFiles();
  void CheckProcess();
  void CheckDescriptors(const std::string& process);

  const std::string dir;
  const HealthLimits& limits;
  HealthReport* const report;
};

double SizeOf(const std::string& path) {
  std::error_code error;  // a file that is gone meanwhile has no size
  const std::uintmax_t size = std::filesystem::file_size(path, error);
  return error ? 0 : static_cast<double>(size);
}

void DirectoryChecks::CheckFiles() {
  lsm::FileNumbers numbers;
  if (Status s = lsm::ListFileNumbers(dir, &numbers); !s.ok()) {
    return AddUnknown("files", s.message(), true);
  }
  std::set<std::uint64_t> live;
  bool exists = false;
  std::optional<std::uint64_t> damage_offset;
  const auto take = [&](const lsm::ManifestRecord& record) {
    if (record.word == "sst") live.insert(record.number);
  };
  const Status manifest =
      lsm::ForEachManifestRecord(lsm::ManifestFileName(dir), take, &exists, &damage_offset);
  if (!manifest.ok() || !exists || damage_offset) {
    AddUnknown("manifest", manifest.ok() ? "missing or damaged" : manifest.message(), true);
  }

  double wal_bytes = 0;
  for (const std::uint64_t number : numbers.logs)
    wal_bytes += SizeOf(lsm::LogFileName(dir, number));
  double table_bytes = 0;
  double leftovers = 0;
  for (const std::uint64_t number : numbers.tables) {
    table_bytes += SizeOf(lsm::TableFileName(dir, number));
    if (!live.contains(number)) ++leftovers;
  }
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator(dir, ignored)) {
    if (entry.path().extension() == ".tmp") ++leftovers;
  }

  struct statvfs space {};
  if (::statvfs(dir.c_str(), &space) == 0) {
    const double free = static_cast<double>(space.f_bavail) * static_cast<double>(space.f_frsize);
    const double least = limits.free_mib > 0 ? limits.free_mib * kMiB : 64 * kMiB + table_bytes;
    Add("free_space", "bytes", free, least, true, MiB(free));
  } else {
    AddUnknown("free_space", ErrnoText(errno), true);
  }
  const auto wals = static_cast<double>(numbers.logs.size());
  Add("wal_size", "bytes", wal_bytes, limits.wal_mib * kMiB, false, MiB(wal_bytes));
  Add("wals", "", wals, limits.wal_count, false, Number(wals, "%.0f"));
  const auto tables = static_cast<double>(live.size());
  Add("tables", "", tables, limits.table_count, false, Number(tables, "%.0f"));
  Add("table_size", "bytes", table_bytes, HUGE_VAL, false, MiB(table_bytes));
  Add("leftovers", "", leftovers, limits.leftover_count, false,
      Number(leftovers, "%.0f files that no start would keep"));
}

void DirectoryChecks::CheckProcess() {
  const std::optional<std::string> pid = LockHolder(dir);
  if (!pid) {
    return AddUnknown("process", "no process that can be seen has locked the directory", true);
  }
  const std::string process = "/proc/" + *pid;
  CheckDescriptors(process);
  std::ifstream status(process + "/status");
  for (std::string word; status >> word;) {
    double kib = 0;
    if (word != "VmRSS:" || !(status >> kib)) continue;
    Add("memory", "bytes", kib * 1024, HUGE_VAL, false, MiB(kib * 1024) + " in process " + *pid);
    return;
  }
  AddUnknown("memory", "of process " + *pid + " cannot be read", false);
}

void DirectoryChecks::CheckDescriptors(const std::string& process) {
  std::error_code error;
  const std::filesystem::directory_iterator files(process + "/fd", error);
  std::ifstream lines(process + "/limits");
  double limit = 0;
  for (std::string line; std::getline(lines, line);) {
    constexpr std::string_view kName = "Max open files";
    if (line.starts_with(kName)) std::istringstream(line.substr(kName.size())) >> limit;
  }
  if (error || limit == 0) {
    return AddUnknown("descriptors", "not permitted: run it as root or as the server's user",
                      false);
  }
  const auto count = static_cast<double>(std::distance(begin(files), end(files)));
  Add("descriptors", "", count, limits.descriptor_share * limit, false,
      Number(count, "%.0f of ") + Number(limit, "%.0f"));
}

}  // namespace

bool HealthReport::healthy() const {
  return std::ranges::none_of(checks, [](const HealthCheck& check) { return check.bad; });
}

HealthReport CheckHealth(const Context& context, const std::string& data_dir,
                         const HealthLimits& limits) {
  Context once = context;
  once.client_options.attempts = 1;  // a second attempt would hide that the first one failed
  HealthReport report;
  PortProbes(once, limits, &report).Run();
  if (!data_dir.empty()) {
    DirectoryChecks(data_dir, limits, &report).Run();
  } else {
    const std::string found = FindDataDir(context.server).value_or("DIR");
    report.checks.push_back(
        {"disk", "", 0, false, false, "not checked, give --data-dir " + KeyText(found)});
  }
  return report;
}

}  // namespace kandb::ctl
