// The daemon's per-event costs on the real element libraries: one change callback, one commit of
// one rule and one get-object request, with 1,000 or 65,536 rules cached and the trace level off
// (the default) or on (records written to /dev/null).
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "common/pbr_schema.h"
#include "config/cache.h"
#include "config/config_handler.h"
#include "element/framework/data_reply.h"
#include "element/middleware/log.h"
#include "platform/pbr_client.h"
#include "platform/vqmw.h"
#include "status/status.h"

namespace {

using namespace pbr;

// A PBR manager client that only counts: the benchmark measures the daemon, not a backend.
class CountingClient : public PbrClient {
 public:
  Error SetEntry(const uint16_t&, const Entry&) override { return ++calls, PBR_OK; }
  Error DeleteEntry(const uint16_t&) override { return ++calls, PBR_OK; }
  Error RegisterStatusListener(PbrStatusItf*) override { return PBR_OK; }
  uint64_t calls = 0;
};

in_addr Addr(uint32_t hostOrder) {
  return in_addr{htonl(hostOrder)};
}

confd_value_t Tag(uint32_t tag) {
  confd_value_t v{};
  CONFD_SET_XMLTAG(&v, tag, pbr__ns);
  return v;
}
confd_value_t U32(uint32_t x) {
  confd_value_t v{};
  CONFD_SET_UINT32(&v, x);
  return v;
}

// Element directories of its own, the log to /dev/null, and the trace level as asked.
class Daemon {
 public:
  Daemon(int rules, bool trace) {
    std::string tmpl = (std::filesystem::temp_directory_path() / "pbr-bench.XXXXXX").string();
    dir_ = mkdtemp(tmpl.data());
    setenv("PBR_ELEMENT_RUNTIME_DIR", dir_.c_str(), 1);
    setenv("PBR_ELEMENT_LOG", "/dev/null", 1);
    setenv("PBR_ELEMENT_TRACE", trace ? "*=10" : "", 1);
    vqmw::ReloadLogConfig();
    category_ = vqmw_trace_register_category("pbr-app");
    cache_ = std::make_unique<ConfigCache>();
    handler_ = std::make_unique<ConfigHandler>(category_, &client_, cache_.get());
    status_ = std::make_unique<Status>(category_, cache_.get());
    for (int i = 0; i < rules; ++i) {
      PbrConfig& rule = cache_->FindOrCreate(i);
      rule.id = i;
      rule.entry.setId(static_cast<uint16_t>(i));
      rule.entry.setPriority(i);
      rule.entry.setMatch(MatchSrcIPv4(Addr(0x0a000000u + (i << 8)), Addr(0xffffff00u)));
      rule.entry.setMatch(MatchDstIPv4(Addr(0xc0000201u), Addr(0xffffffffu)));
      rule.entry.setMatch(MatchIngressPorts({limid_t{1}}));
      rule.entry.setAction(ActionL3NextHop(Addr(0xc0000001u)));
    }
  }
  ~Daemon() {
    status_.reset();
    handler_.reset();
    cache_.reset();
    setenv("PBR_ELEMENT_TRACE", "", 1);
    vqmw::ReloadLogConfig();
    std::filesystem::remove_all(dir_);
  }

  ConfigHandler& handler() { return *handler_; }
  ConfigCache& cache() { return *cache_; }
  vqconfd::DataHandler::Callpoint& callpoint() { return *status_->GetCallpoints()[0]; }

 private:
  std::string dir_;
  zlog_category_t* category_;
  CountingClient client_;
  std::unique_ptr<ConfigCache> cache_;
  std::unique_ptr<ConfigHandler> handler_;
  std::unique_ptr<Status> status_;
};

// The keypath of /router/pbr{id}/rule/priority, v[0] deepest.
confd_hkeypath_t PriorityKeypath(uint32_t id) {
  confd_hkeypath_t kp;
  memset(&kp, 0, sizeof(kp));
  kp.len = 5;
  kp.v[0][0] = Tag(pbr_priority);
  kp.v[1][0] = Tag(pbr_rule);
  kp.v[2][0] = U32(id);
  kp.v[3][0] = Tag(pbr_pbr);
  kp.v[4][0] = Tag(pbr_router);
  return kp;
}

void ChangeCallback(benchmark::State& state) {
  const int rules = static_cast<int>(state.range(0));
  Daemon daemon(rules, state.range(1) != 0);
  confd_hkeypath_t kp = PriorityKeypath(rules / 2);
  confd_value_t value = U32(5);
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        daemon.handler().PbrGlobalHandler(&kp, MOP_VALUE_SET, nullptr, &value));
  }
}

void CommitOneRule(benchmark::State& state) {
  const int rules = static_cast<int>(state.range(0));
  Daemon daemon(rules, state.range(1) != 0);
  daemon.cache().changedIds = {static_cast<uint32_t>(rules / 2)};
  for (auto _ : state) daemon.handler().ApplyCommitConfig();
}

void GetObject(benchmark::State& state) {
  const int rules = static_cast<int>(state.range(0));
  Daemon daemon(rules, state.range(1) != 0);
  confd_hkeypath_t kp;
  memset(&kp, 0, sizeof(kp));
  kp.len = 3;
  kp.v[0][0] = U32(rules / 2);
  kp.v[1][0] = Tag(pbr_pbr_status);
  kp.v[2][0] = Tag(pbr_router);
  mgmt::ObjectReply reply;
  confd_trans_ctx tctx{&reply};
  for (auto _ : state) {
    reply.Clear();
    daemon.callpoint().GetObjectCallback(&tctx, &kp);
  }
}

// {rules cached, trace level on}
void Sizes(benchmark::internal::Benchmark* b) {
  for (int trace : {0, 1})
    for (int rules : {1000, 65536}) b->Args({rules, trace});
  b->ArgNames({"rules", "trace"});
}

BENCHMARK(ChangeCallback)->Apply(Sizes);
BENCHMARK(CommitOneRule)->Apply(Sizes);
BENCHMARK(GetObject)->Apply(Sizes);

}  // namespace

BENCHMARK_MAIN();
