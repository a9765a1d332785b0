// NETCONF over netconf.sock with 1,000 and 65,536 rules, pbr-mgmtd and pbr-app (memory backend)
// as processes, a libnetconf2 client in the bench. Per size it reports
//   bulk_ms         edit-config of every rule (new) into the candidate, then commit, through to
//                   the daemon's acknowledgement (bulk_edit_ms and bulk_commit_ms its two parts)
//   one_ms          a one-rule edit-config of the candidate, then commit (median of 7)
//   one_running_ms  a one-rule edit-config of running (median of 7)
//   get_ms          <get> of the whole view: the configuration merged with pbr-status
//   get_wire_ms     the same read as bytes, without parsing: the server's share
//   get_filtered_ms <get> with the subtree filter <router/>: the same rules and view, through a
//                   data tree on the server
//   get_config_ms   <get-config> of running
//   mgmtd_peak_mib  the server's peak resident memory
// The times include the client's own work (libnetconf2 printing the request, parsing the reply).
// The manual time of each run is bulk_ms.
#include <benchmark/benchmark.h>
#include <libnetconf2/log.h>
#include <libnetconf2/messages_client.h>
#include <libnetconf2/netconf.h>
#include <libnetconf2/session_client.h>
#include <libyang/libyang.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "bench/element_processes.h"

namespace {

using namespace pbr::bench;

constexpr const char* kNs = "urn:pbr-element:params:xml:ns:yang:pbr";

std::string RuleXml(int id, int priority) {
  return "<pbr><id>" + std::to_string(id) + "</id><rule><priority>" + std::to_string(priority) +
         "</priority><match><interface>eth1</interface><source><ipv4-address><mask><ip>10." +
         std::to_string(id >> 8) + "." + std::to_string(id & 255) +
         ".0/24</ip></mask></ipv4-address></source></match><action><next-hop><ip>192.0.2.1</ip>"
         "</next-hop></action></rule></pbr>";
}

std::string RouterXml(const std::string& entries) {
  return std::string("<router xmlns=\"") + kNs + "\">" + entries + "</router>";
}

// A client session with a context of the element's modules, read from the source tree.
class Client {
 public:
  explicit Client(const std::string& socket) {
    nc_client_init();
    nc_verbosity(NC_VERB_WARNING);
    if (ly_ctx_new(PBR_YANG_DIR ":" PBR_YANG_DIR "/ietf", 0, &ctx_) != LY_SUCCESS) return;
    const char* features[] = {"writable-running",
                              "candidate",
                              "confirmed-commit",
                              "rollback-on-error",
                              "validate",
                              "xpath",
                              nullptr};
    const char* all[] = {"*", nullptr};
    if (!ly_ctx_load_module(ctx_, "ietf-netconf", nullptr, features) ||
        !ly_ctx_load_module(ctx_, "ietf-netconf-with-defaults", nullptr, all) ||
        !ly_ctx_load_module(ctx_, "ietf-netconf-monitoring", nullptr, all) ||
        !ly_ctx_load_module(ctx_, "pbr-netconf-monitoring", nullptr, all) ||
        !ly_ctx_load_module(ctx_, "nc-notifications", nullptr, all) ||
        !ly_ctx_load_module(ctx_, "ietf-netconf-notifications", nullptr, all) ||
        !ly_ctx_load_module(ctx_, "pbr", nullptr, nullptr)) {
      return;
    }
    session_ = nc_connect_unix(socket.c_str(), ctx_);
  }
  ~Client() {
    if (session_) nc_session_free(session_, nullptr);
    nc_client_destroy();
    if (ctx_) ly_ctx_destroy(ctx_);
  }
  bool ok() const { return session_ != nullptr; }

  // Sends the rpc (taken) and waits for its reply; false on an rpc-error or a broken session.
  bool Call(nc_rpc* rpc) {
    uint64_t id = 0;
    bool ok = nc_send_rpc(session_, rpc, 120000, &id) == NC_MSG_RPC;
    lyd_node* envp = nullptr;
    lyd_node* op = nullptr;
    ok = ok && nc_recv_reply(session_, rpc, id, 300000, &envp, &op) == NC_MSG_REPLY;
    for (const lyd_node* c = envp ? lyd_child(envp) : nullptr; ok && c; c = c->next) {
      if (std::strcmp(LYD_NAME(c), "rpc-error") == 0) ok = false;
    }
    lyd_free_all(envp);
    lyd_free_all(op);
    nc_rpc_free(rpc);
    return ok;
  }
  bool Edit(NC_DATASTORE target, const std::string& content) {
    return Call(nc_rpc_edit(target, NC_RPC_EDIT_DFLTOP_MERGE, NC_RPC_EDIT_TESTOPT_UNKNOWN,
                            NC_RPC_EDIT_ERROPT_UNKNOWN, content.c_str(),
                            NC_PARAMTYPE_DUP_AND_FREE));
  }
  bool Commit() { return Call(nc_rpc_commit(0, 0, nullptr, nullptr, NC_PARAMTYPE_CONST)); }

 private:
  ly_ctx* ctx_ = nullptr;
  nc_session* session_ = nullptr;
};

// <get> over a raw NETCONF 1.1 session, reading the reply's bytes to its end marker: the time
// the server takes to answer, without a client parsing the reply.
double RawGetMs(const std::string& socketPath) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, socketPath.c_str(), sizeof addr.sun_path - 1);
  if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    if (fd >= 0) ::close(fd);
    return -1;
  }
  auto send = [&](const std::string& text) {
    return ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  };
  std::string in;
  auto readUntil = [&](const std::string& end) {
    char buffer[1 << 16];
    while (in.size() < end.size() || in.compare(in.size() - end.size(), end.size(), end) != 0) {
      const ssize_t n = ::read(fd, buffer, sizeof buffer);
      if (n <= 0) return false;
      in.append(buffer, static_cast<size_t>(n));
    }
    return true;
  };
  const std::string rpc =
      "<rpc message-id=\"1\" xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\"><get/></rpc>";
  bool ok =
      send(
          "<hello xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\"><capabilities><capability>"
          "urn:ietf:params:netconf:base:1.1</capability></capabilities></hello>]]>]]>") &&
      readUntil("]]>]]>");
  in.clear();
  const auto start = Clock::now();
  ok =
      ok && send("\n#" + std::to_string(rpc.size()) + "\n" + rpc + "\n##\n") && readUntil("\n##\n");
  const double ms = Ms(Clock::now() - start);
  ::close(fd);
  return ok && in.find("<rpc-error>") == std::string::npos ? ms : -1;
}

template <typename F>
double Timed(F call) {
  const auto start = Clock::now();
  return call() ? Ms(Clock::now() - start) : -1;
}

double Median(std::vector<double> times) {
  if (std::find_if(times.begin(), times.end(), [](double t) { return t < 0; }) != times.end())
    return -1;
  std::sort(times.begin(), times.end());
  return times[times.size() / 2];
}

void NetconfEndToEnd(benchmark::State& state) {
  const int rules = static_cast<int>(state.range(0));
  std::string all;
  for (int id = 0; id < rules; ++id) all += RuleXml(id, id);
  all = RouterXml(all);
  for (auto _ : state) {
    Element element;
    if (!element.StartServer()) return state.SkipWithError("pbr-mgmtd did not start");
    if (element.StartApp().total_ms < 0) return state.SkipWithError("pbr-app did not attach");
    Client client(element.RuntimeDir() + "/netconf.sock");
    if (!client.ok()) return state.SkipWithError("no NETCONF session");

    const double bulkEdit = Timed([&] { return client.Edit(NC_DATASTORE_CANDIDATE, all); });
    const double bulkCommit = Timed([&] { return client.Commit(); });
    if (bulkEdit < 0 || bulkCommit < 0) return state.SkipWithError("the bulk edit failed");

    const int id = rules / 2;
    int priority = 1000000;
    std::vector<double> one, oneRunning;
    for (int i = 0; i < 7; ++i) {
      const std::string edit =
          RouterXml("<pbr><id>" + std::to_string(id) + "</id><rule><priority>" +
                    std::to_string(priority++) + "</priority></rule></pbr>");
      one.push_back(
          Timed([&] { return client.Edit(NC_DATASTORE_CANDIDATE, edit) && client.Commit(); }));
      const std::string direct =
          RouterXml("<pbr><id>" + std::to_string(id) + "</id><rule><priority>" +
                    std::to_string(priority++) + "</priority></rule></pbr>");
      oneRunning.push_back(Timed([&] { return client.Edit(NC_DATASTORE_RUNNING, direct); }));
    }
    const double get =
        Timed([&] { return client.Call(nc_rpc_get(nullptr, NC_WD_UNKNOWN, NC_PARAMTYPE_CONST)); });
    const double getWire = RawGetMs(element.RuntimeDir() + "/netconf.sock");
    const std::string router = RouterXml("");
    const double getFiltered = Timed(
        [&] { return client.Call(nc_rpc_get(router.c_str(), NC_WD_UNKNOWN, NC_PARAMTYPE_CONST)); });
    const double getConfig = Timed([&] {
      return client.Call(
          nc_rpc_getconfig(NC_DATASTORE_RUNNING, nullptr, NC_WD_UNKNOWN, NC_PARAMTYPE_CONST));
    });
    if (Median(one) < 0 || Median(oneRunning) < 0 || get < 0 || getWire < 0 || getFiltered < 0 ||
        getConfig < 0) {
      return state.SkipWithError("a NETCONF request failed");
    }

    state.SetIterationTime((bulkEdit + bulkCommit) / 1000);
    state.counters["bulk_ms"] = bulkEdit + bulkCommit;
    state.counters["bulk_edit_ms"] = bulkEdit;
    state.counters["bulk_commit_ms"] = bulkCommit;
    state.counters["one_ms"] = Median(one);
    state.counters["one_running_ms"] = Median(oneRunning);
    state.counters["get_ms"] = get;
    state.counters["get_wire_ms"] = getWire;
    state.counters["get_filtered_ms"] = getFiltered;
    state.counters["get_config_ms"] = getConfig;
    state.counters["mgmtd_peak_mib"] = MemoryMib(element.mgmtd(), "VmHWM");
  }
}

BENCHMARK(NetconfEndToEnd)
    ->Arg(1000)
    ->Arg(65536)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
