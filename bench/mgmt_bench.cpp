// The management server's datastore at scale: bulk load, one-rule commits, the attachment
// snapshot and saving, with 1,000 and 65,536 rules (linear growth is the aim).
#include <benchmark/benchmark.h>

#include <time.h>

#include <chrono>
#include <string>

#include "common/pbr_schema.h"
#include "element/mgmt/datastore.h"
#include "element/mgmt/schema_info.h"
#include "element/yang/module.h"

namespace {

using namespace pbr::mgmt;

std::string Rules(int n) {
  std::string json = R"({"pbr:router":{"pbr":[)";
  for (int id = 0; id < n; ++id) {
    if (id) json += ",";
    const std::string b = std::to_string(id % 256);
    json +=
        R"({"id":)" + std::to_string(id) + R"(,"rule":{"priority":)" + std::to_string(id) +
        R"(,"description":"rule )" + std::to_string(id) +
        R"(","match":{"interface":["eth1","eth2"],"source":{"ipv4-address":{"mask":{"ip":"10.)" +
        b + R"(.0.0/16"}}},"destination":{"ipv4-address":{"no-mask":{"ip":"192.0.2.)" + b +
        R"("}}}},"action":{"next-hop":{"ip":"10.0.0.1"}}}})";
  }
  return json + "]}}";
}

struct Store {
  Store() {
    std::string error;
    ctx = pbr::yang::LoadContext(&error);
    ly_log_options(LY_LOSTORE_LAST);
    info.Annotate(ctx.get(), pbr::pbr__ns, &error);
    store = std::make_unique<Datastore>(ctx.get());
  }
  bool Commit(const Load& load) {
    CommitError error;
    auto candidate = store->Prepare(load, &error);
    if (!candidate) return false;
    ChangeList changes;
    store->Diff(*candidate, &changes);
    benchmark::DoNotOptimize(changes.CommitMessage(1, {{0, {{0, changes.size()}}}}));
    store->Apply(std::move(candidate));
    return true;
  }
  pbr::yang::Context ctx;
  SchemaInfo info;
  std::unique_ptr<Datastore> store;
};

Load Merge(std::string json) {
  Load load;
  load.set_data(std::move(json));
  return load;
}

void BM_BulkLoad(benchmark::State& state) {
  const Load load = Merge(Rules(static_cast<int>(state.range(0))));
  for (auto _ : state) {
    state.PauseTiming();
    auto s = std::make_unique<Store>();
    state.ResumeTiming();
    if (!s->Commit(load)) state.SkipWithError("refused");
    state.PauseTiming();
    s.reset();
    state.ResumeTiming();
  }
}
BENCHMARK(BM_BulkLoad)->Arg(1000)->Arg(65536)->Unit(benchmark::kMillisecond)->Iterations(1);

// A replace load of n new rules as the server takes it: parse and validate, diff, the Commit
// message for a subscriber of every change (encoded), the journal record and the
// apply. Each phase's share is reported in milliseconds of CPU time, steadier than wall time on
// a shared machine.
void BM_ReplaceCommit(benchmark::State& state) {
  struct Clock {
    using time_point = std::chrono::nanoseconds;
    static time_point now() {
      timespec ts{};
      clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
      return std::chrono::seconds(ts.tv_sec) + std::chrono::nanoseconds(ts.tv_nsec);
    }
  };
  Load load = Merge(Rules(static_cast<int>(state.range(0))));
  load.set_mode(Load::REPLACE);
  double prepare = 0, diff = 0, send = 0, record = 0, apply = 0;
  auto ms = [](Clock::time_point a, Clock::time_point b) {
    return std::chrono::duration<double, std::milli>(b - a).count();
  };
  for (auto _ : state) {
    state.PauseTiming();
    auto s = std::make_unique<Store>();
    state.ResumeTiming();
    const auto t0 = Clock::now();
    CommitError error;
    auto candidate = s->store->Prepare(load, &error);
    if (!candidate) {
      state.SkipWithError("refused");
      break;
    }
    const auto t1 = Clock::now();
    ChangeList changes;
    s->store->Diff(*candidate, &changes);
    const auto t2 = Clock::now();
    std::string wire = changes.CommitMessage(1, {{0, {{0, changes.size()}}}});
    benchmark::DoNotOptimize(wire);
    const auto t3 = Clock::now();
    std::string journal = s->store->Record(candidate.get()).SerializeAsString();
    benchmark::DoNotOptimize(journal);
    const auto t4 = Clock::now();
    s->store->Apply(std::move(candidate));
    const auto t5 = Clock::now();
    prepare += ms(t0, t1);
    diff += ms(t1, t2);
    send += ms(t2, t3);
    record += ms(t3, t4);
    apply += ms(t4, t5);
    state.PauseTiming();
    s.reset();
    state.ResumeTiming();
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["prepare_ms"] = prepare / n;
  state.counters["diff_ms"] = diff / n;
  state.counters["send_ms"] = send / n;
  state.counters["record_ms"] = record / n;
  state.counters["apply_ms"] = apply / n;
}
BENCHMARK(BM_ReplaceCommit)->Arg(1000)->Arg(65536)->Unit(benchmark::kMillisecond)->Iterations(1);

void BM_OneRuleCommit(benchmark::State& state) {
  Store s;
  s.Commit(Merge(Rules(static_cast<int>(state.range(0)))));
  int prio = 0;
  for (auto _ : state) {
    Edit edit;
    auto* op = edit.add_operation();
    op->set_path("/router/pbr{500}/rule/priority");
    op->set_value(std::to_string(++prio));
    CommitError error;
    auto candidate = s.store->Prepare(edit, &error);
    ChangeList changes;
    s.store->Diff(*candidate, &changes);
    benchmark::DoNotOptimize(changes.CommitMessage(1, {{0, {{0, changes.size()}}}}));
    s.store->Apply(std::move(candidate));
  }
}
BENCHMARK(BM_OneRuleCommit)->Arg(1000)->Arg(65536)->Unit(benchmark::kMillisecond);

void BM_Snapshot(benchmark::State& state) {
  Store s;
  s.Commit(Merge(Rules(static_cast<int>(state.range(0)))));
  for (auto _ : state) benchmark::DoNotOptimize(s.store->AttachMessage(1));
}
BENCHMARK(BM_Snapshot)->Arg(1000)->Arg(65536)->Unit(benchmark::kMillisecond);

void BM_RunningJson(benchmark::State& state) {
  Store s;
  s.Commit(Merge(Rules(static_cast<int>(state.range(0)))));
  for (auto _ : state) benchmark::DoNotOptimize(s.store->RunningJson());
}
BENCHMARK(BM_RunningJson)->Arg(1000)->Arg(65536)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
