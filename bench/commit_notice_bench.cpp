// What a commit costs the server's loop while a NETCONF session subscribes to config changes:
// one edit (instance-identifier and operation) per changed rule, worked out before the commit
// is applied, with 1,000 and 65,536 new rules.
#include <benchmark/benchmark.h>

#include <string>

#include "common/pbr_schema.h"
#include "element/mgmt/commit_notice.h"
#include "element/mgmt/datastore.h"
#include "element/mgmt/schema_info.h"
#include "element/yang/module.h"

namespace {

using namespace pbr::mgmt;

void BM_CommitNoticeEdits(benchmark::State& state) {
  std::string error;
  pbr::yang::Context ctx = pbr::yang::LoadContext(&error);
  SchemaInfo info;
  info.Annotate(ctx.get(), pbr::pbr__ns, &error);
  Datastore store(ctx.get());
  std::string json = R"({"pbr:router":{"pbr":[)";
  for (int id = 0; id < state.range(0); ++id) {
    json += (id ? "," : "") + std::string(R"({"id":)") + std::to_string(id) +
            R"(,"rule":{"priority":)" + std::to_string(id) + "}}";
  }
  Load load;
  load.set_data(json + "]}}");
  CommitError refusal;
  auto candidate = store.Prepare(load, &refusal);
  if (!candidate) {
    state.SkipWithError(refusal.message.c_str());
    return;
  }
  for (auto _ : state) benchmark::DoNotOptimize(NoticeEdits(store, *candidate));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_CommitNoticeEdits)->Arg(1000)->Arg(65536)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
