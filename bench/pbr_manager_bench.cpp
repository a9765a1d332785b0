// The element's hot paths: a commit of every rule id into the memory backend (SetEntry calls,
// status reports and the state file's one rewrite), and a disabled zlog record.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <arpa/inet.h>

#include <filesystem>
#include <memory>

#include "element/middleware/loop.h"
#include "platform/pbr_client.h"
#include "platform/vqmw.h"
#include "platform/zlog.h"

namespace {

// Runs in a private runtime and state directory; the log goes nowhere.
class Element {
 public:
  Element() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "pbr-bench.XXXXXX").string();
    dir_ = mkdtemp(tmpl.data());
    setenv("PBR_ELEMENT_RUNTIME_DIR", dir_.c_str(), 1);
    setenv("PBR_ELEMENT_STATE_DIR", dir_.c_str(), 1);
    setenv("PBR_ELEMENT_LOG", "/dev/null", 1);
    setenv("PBR_ELEMENT_TRACE", "", 1);
    mw_ = vqmw_init("pbr-bench");
  }
  ~Element() {
    vqmw_finish(&mw_);
    std::filesystem::remove_all(dir_);
  }
  vqmw_t* mw() { return mw_; }

 private:
  std::string dir_;
  vqmw_t* mw_;
};

class Counter : public pbr::PbrStatusItf {
 public:
  explicit Counter(vqmw_t* mw) : mw_(mw) {}
  virtual ~Counter() = default;
  void StatusUpdateCb(const uint16_t&, uint32_t) override {
    if (++count == awaited) vqmw::Exit(mw_, 0);
  }
  size_t count = 0;
  size_t awaited = 0;

 private:
  vqmw_t* mw_;
};

void BM_MemoryBackendCommitOfAllRuleIds(benchmark::State& state) {
  Element element;
  std::unique_ptr<pbr::PbrClient> client(pbr::PbrClient::Build(element.mw(), nullptr));
  Counter counter(element.mw());
  client->RegisterStatusListener(&counter);
  in_addr net{}, mask{}, hop{};
  inet_pton(AF_INET, "10.0.0.0", &net);
  inet_pton(AF_INET, "255.0.0.0", &mask);
  inet_pton(AF_INET, "192.0.2.1", &hop);
  pbr::Entry entry;
  entry.setMatch(pbr::MatchSrcIPv4(net, mask));
  entry.setAction(pbr::ActionL3NextHop(hop));

  constexpr size_t kRules = 65536;
  for (auto _ : state) {
    counter.count = 0;
    counter.awaited = kRules;
    for (size_t id = 0; id < kRules; ++id) {
      entry.setPriority(static_cast<uint32_t>(id));
      client->SetEntry(static_cast<uint16_t>(id), entry);
    }
    bool running = true;
    vqmw_loop_while_timeout(element.mw(), &running, 0);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kRules));
}
BENCHMARK(BM_MemoryBackendCommitOfAllRuleIds)->Unit(benchmark::kMillisecond);

void BM_ZlogDisabled(benchmark::State& state) {
  Element element;
  zlog_category_t* category = vqmw_trace_register_category("pbr-app");
  const char* text = "10.1.0.0";
  for (auto _ : state) {
    zlog(category, "cache.cpp", 9, "HandlePbrMatchIp", 16, 215, 10, "ip %s/%d", text, 16);
  }
}
BENCHMARK(BM_ZlogDisabled);

}  // namespace

BENCHMARK_MAIN();
