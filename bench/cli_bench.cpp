// pbr-cli's share of showing 65,536 rules: the rule view as a table, and the running
// configuration as a tree, from the JSON the management server sends.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "element/cli/config_tree.h"
#include "element/cli/rule_view.h"
#include "element/yang/module.h"

namespace {

constexpr int kRules = 65536;

std::string Address(int i) {
  return "10." + std::to_string((i >> 8) & 255) + "." + std::to_string(i & 255) + ".0";
}

// As libyang prints it: two-space indentation, one member a line.
std::string StatusJson() {
  static const char* const kStatus[] = {"not-programmed", "programmed", "failed"};
  std::string json = "{\n  \"pbr:router\": {\n    \"pbr-status\": [\n";
  for (int i = 0; i < kRules; ++i) {
    json += "      {\n        \"id\": " + std::to_string(i) + ",\n        \"rule\": {\n";
    json += "          \"source-ip\": \"" + Address(i) + "/24\",\n";
    json += "          \"destination-ip\": \"192.168.2.1\",\n";
    json += "          \"action\": \"" + Address(i + 1) + "\",\n";
    json += std::string("          \"hw-status\": \"") + kStatus[i % 3] + "\"\n        }\n      }";
    json += i + 1 < kRules ? ",\n" : "\n";
  }
  return json + "    ]\n  }\n}\n";
}

std::string RunningJson() {
  std::string json = "{\"pbr:router\": {\"pbr\": [";
  for (int i = 0; i < kRules; ++i) {
    json += std::string(i ? "," : "") + "{\"id\": " + std::to_string(i) +
            ", \"rule\": {\"priority\": " + std::to_string(i) +
            ", \"description\": \"rule\", \"match\": {\"interface\": [\"eth1\"], \"source\": "
            "{\"ipv4-address\": {\"mask\": {\"ip\": \"" +
            Address(i) + "/24\"}}}}, \"action\": {\"next-hop\": {\"ip\": \"10.0.0.1\"}}}}";
  }
  return json + "]}}";
}

// The rule view: the operational view joined with the running configuration, ordered by
// priority, as a table.
void BM_RuleView65536(benchmark::State& state) {
  const std::string status = StatusJson();
  const std::string running = RunningJson();
  for (auto _ : state) {
    std::vector<pbr::cli::RuleRow> rows;
    std::string table, error;
    if (!pbr::cli::ReadRuleStatus(status, &rows, &error) ||
        !pbr::cli::JoinRuleConfig(running, &rows, &error)) {
      state.SkipWithError(error.c_str());
    }
    pbr::cli::RuleQuery query;
    query.byPriority = true;
    pbr::cli::SelectRules(query, &rows);
    pbr::cli::FormatRuleTable(rows, rows.size(), &table);
    benchmark::DoNotOptimize(table.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(status.size() + running.size()));
}
BENCHMARK(BM_RuleView65536)->Unit(benchmark::kMillisecond);

void BM_ConfigTree65536(benchmark::State& state) {
  std::string error;
  ly_log_options(LY_LOSTORE_LAST);
  pbr::yang::Context ctx = pbr::yang::LoadContext(&error);
  const std::string json = RunningJson();
  for (auto _ : state) {
    std::string tree;
    if (!pbr::cli::FormatConfigTree(ctx.get(), json, &tree, &error)) {
      state.SkipWithError(error.c_str());
    }
    benchmark::DoNotOptimize(tree.data());
  }
}
BENCHMARK(BM_ConfigTree65536)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
