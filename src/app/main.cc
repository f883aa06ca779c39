// The metadata server: flags, state, service, listen, wait.

#include <sys/resource.h>

#include <cstdint>
#include <cstdio>
#include <exception>
#include <memory>

#include "common/flags.h"
#include "meta/pd_service.h"
#include "rpc/rpc_server.h"
#include "store/meta_store.h"

namespace {

using kandb::Status;
namespace flags = kandb::flags;

const std::int64_t* const port = flags::DefineInteger("port", 2379, "pd service listen port");
const std::string* const bind_addr =
    flags::DefineString("bind_addr", "0.0.0.0", "pd service IPv4 listen address");
const std::string* const data_dir =
    flags::DefineString("data_dir", "./pd-data", "pd state directory");
const std::int64_t* const target_replicas = flags::DefineInteger(
    "target_replicas", 0,
    "auto-heal: schedule adding replicas until each region reaches this member count (0 = off; "
    "promotion of caught-up learners is always on)");

// Every connection needs a descriptor. When the limit cannot be raised, the default applies.
void RaiseDescriptorLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  (void)::setrlimit(RLIMIT_NOFILE, &limit);
}

int Serve() {
  std::unique_ptr<kandb::store::MetaStore> store;
  // No passphrase: values are stored in plain. Synced: an acknowledged write survives a crash.
  if (Status s = kandb::store::MetaStore::Open(*data_dir, "", 1, &store); !s.ok()) {
    std::fprintf(stderr, "failed to open pd state at %s: %s\n", data_dir->c_str(),
                 s.ToString().c_str());
    return 1;
  }
  kandb::meta::PdService service(store.get(), static_cast<std::uint32_t>(*target_replicas));

  // Declared last, destroyed first: no handler may run while the service is destroyed.
  kandb::kanrpc::RpcServer server;
  service.RegisterTo(&server);
  if (Status s = server.Start(static_cast<int>(*port), *bind_addr); !s.ok()) {
    std::fprintf(stderr, "failed to start pd: %s\n", s.ToString().c_str());
    return 1;
  }
  std::printf("kandb-meta listening on %s:%lld, state at %s\n", bind_addr->c_str(),
              static_cast<long long>(*port), data_dir->c_str());
  std::fflush(stdout);
  server.Wait();
  return 0;
}

}  // namespace

int main(int argc, char** argv) try {
  flags::Parse(argc, argv);
  RaiseDescriptorLimit();
  return Serve();
} catch (const std::exception& failure) {
  // Out of memory or threads during the start. Later each thread catches its own exceptions.
  std::fprintf(stderr, "failed to start pd: %s\n", failure.what());
  return 1;
}
