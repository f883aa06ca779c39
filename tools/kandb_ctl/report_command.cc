// kandb-ctl report: a state directory as a page to look at.

#include <fcntl.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <system_error>

#include "common/posix_file.h"
#include "kandb_ctl/command.h"
#include "kandb_ctl/json_message.h"
#include "kandb_ctl/options.h"
#include "kandb_ctl/report_page.h"
#include "kandb_ctl/state_capture.h"
#include "kandb_ctl/state_directory.h"
#include "kandb_ctl/state_summary.h"
#include "kandb_ctl/verify_directory.h"
#include "tools/common/exit_status.h"

namespace kandb::ctl {

namespace {

struct ReportArguments {
  std::string dir;
  std::string out;
  std::string passphrase_file;
  bool live = false;
};

// Whole or not at all: a page that was there before stays until the new one is complete.
Status WritePage(const std::string& path, const std::string& page) {
  const std::string temporary = path + ".tmp";
  UniqueFd file(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  int error = file.valid() ? WriteFully(file.get(), page) : errno;
  if (error == 0 && ::rename(temporary.c_str(), path.c_str()) != 0) error = errno;
  if (error == 0) return {};
  if (file.valid()) (void)::unlink(temporary.c_str());
  return Status::Corruption("cannot write " + path + ": " + ErrnoText(error));
}

// The page may be read on another machine, and long after.
ReportSource SourceOf(const ReportArguments& arguments, const std::string& live_at) {
  std::error_code error;
  std::string dir = std::filesystem::absolute(arguments.dir, error);
  if (error) dir = arguments.dir;
  ReportSource source{.dir = dir,
                      .live_at = live_at,
                      .arguments = {dir},
                      .host = "an unknown host",
                      .version = KANDB_VERSION,
                      .made_at = std::chrono::system_clock::now()};
  if (arguments.live) source.arguments.emplace_back("--live");
  if (!arguments.passphrase_file.empty()) {
    source.arguments.insert(source.arguments.end(),
                            {"--passphrase-file", arguments.passphrase_file});
  }
  utsname names{};
  if (::uname(&names) == 0) source.host = static_cast<const char*>(names.nodename);
  return source;
}

int Report(const ReportArguments& arguments, bool json) {
  if (Status s = RequireState(arguments.dir); !s.ok()) return Fail(s);
  ReadableDirectory dir;
  if (Status s = dir.Open(arguments.dir, arguments.live); !s.ok()) return FailToRead(s);
  store::StoreCrypto crypto;
  if (Status s = ReadPassphraseFile(arguments.passphrase_file, &crypto); !s.ok()) return Fail(s);
  // First, so that its copy of the records is gone before the next is read.
  const std::vector<Finding> findings = VerifyDirectory(dir.path(), crypto, [](double) {}).findings;
  Json files;
  ClusterState cluster;
  {
    lsm::ReadView view;
    if (Status s = SummarizeFiles(dir.path(), &files, &view); !s.ok()) return Fail(s);
    if (Status s = LoadCluster(view, crypto, &cluster); !s.ok()) return Fail(s);
  }
  const std::string page = ReportPage(SourceOf(arguments, dir.live_at()), files, cluster, findings);
  if (Status s = WritePage(arguments.out, page); !s.ok()) return Fail(s);
  if (json) {
    Json result = {{"out", arguments.out}, {"findings", findings.size()}};
    if (arguments.live) result["read_live_at"] = dir.live_at();
    PrintJson(result);
  } else {
    std::printf("%s: %zu findings\n", arguments.out.c_str(), findings.size());
    if (arguments.live) std::printf("read live at %s\n", dir.live_at().c_str());
  }
  return findings.empty() ? tools::kExitYes : tools::kExitNo;
}

}  // namespace

void AddReportCommand(CLI::App* app, Context* context) {
  const auto arguments = std::make_shared<ReportArguments>();
  CLI::App* report = app->add_subcommand(
      "report", "Writes a page about a state directory: one file for any browser.");
  report->add_option("DIR", arguments->dir, "state directory")->required();
  report->add_option("--out", arguments->out, "HTML file to write")->required();
  AddLiveOption(report, &arguments->live);
  AddPassphraseOption(report, &arguments->passphrase_file);
  report->callback([arguments, context] {
    context->run = [arguments, context] { return Report(*arguments, context->json); };
  });
}

}  // namespace kandb::ctl
