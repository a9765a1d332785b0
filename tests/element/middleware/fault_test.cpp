// Fault reports and backtraces: what reaches the fault log and the element's log.
#include <gtest/gtest.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "platform/vqmw.h"
#include "tests/element/middleware/element_env.h"

namespace pbrtest {

// Exported and not inlined, so that the backtrace has a frame by this name.
__attribute__((noinline)) void BacktraceFromHere() {
  vqmw_print_backtrace();
  asm volatile("");  // keeps the call from becoming a tail call
}

}  // namespace pbrtest

namespace {

std::vector<nlohmann::json> FaultRecords(const pbrtest::ElementEnv& env) {
  std::vector<nlohmann::json> records;
  std::istringstream lines(env.Faults());
  for (std::string line; std::getline(lines, line);) records.push_back(nlohmann::json::parse(line));
  return records;
}

TEST(Fault, RecordCarriesAllItsFields) {
  pbrtest::ElementEnv env;
  vqmw_t* mw = vqmw_init("pbr-app");
  ASSERT_NE(mw, nullptr);
  vqmw_gen_fault(1, "main", "main", 39, "pbr-app unknown error\n");
  vqmw_gen_fault(0, "GetPbrRuleFromCdb", "config_handler", 55, "Could not read \"id\"");

  auto records = FaultRecords(env);
  ASSERT_EQ(records.size(), 2u);
  const auto& fatal = records[0];
  EXPECT_TRUE(std::regex_match(fatal["time"].get<std::string>(),
                               std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)")))
      << fatal["time"];
  EXPECT_EQ(fatal["severity"], 1);
  EXPECT_EQ(fatal["application"], "pbr-app");
  EXPECT_EQ(fatal["pid"], getpid());
  EXPECT_EQ(fatal["function"], "main");
  EXPECT_EQ(fatal["file"], "main");
  EXPECT_EQ(fatal["line"], 39);
  EXPECT_EQ(fatal["message"], "pbr-app unknown error\n");
  EXPECT_EQ(records[1]["severity"], 0);
  EXPECT_EQ(records[1]["message"], "Could not read \"id\"");

  std::string log = env.Log();
  EXPECT_NE(log.find(" critical fault {"), std::string::npos) << log;
  EXPECT_NE(log.find(" error fault {"), std::string::npos);
  vqmw_finish(&mw);
}

TEST(Fault, ReportWorksAfterFailedRegistrationAndWithMissingTexts) {
  pbrtest::ElementEnv env;
  vqmw_t* holder = vqmw_init("pbr-app");
  ASSERT_EQ(vqmw_init("pbr-app"), nullptr);
  // The daemon's report of its failed registration: an empty message.
  char message[350] = {};
  vqmw_gen_fault(1, "main", "main", 19, message);
  vqmw_gen_fault(1, nullptr, nullptr, 0, nullptr);

  auto records = FaultRecords(env);
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0]["application"], "pbr-app");
  EXPECT_EQ(records[0]["message"], "");
  EXPECT_EQ(records[1]["function"], "");
  EXPECT_EQ(records[1]["message"], "");
  vqmw_finish(&holder);
}

TEST(Fault, BacktraceNamesTheCallersDemangled) {
  pbrtest::ElementEnv env;
  vqmw_t* mw = vqmw_init("pbr-app");
  pbrtest::BacktraceFromHere();

  auto records = FaultRecords(env);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0]["application"], "pbr-app");
  ASSERT_TRUE(records[0]["backtrace"].is_array());
  std::string first = records[0]["backtrace"][0];
  EXPECT_NE(first.find("pbrtest::BacktraceFromHere()"), std::string::npos) << records[0];
  EXPECT_NE(env.Log().find("#0 "), std::string::npos);
  vqmw_finish(&mw);
}

}  // namespace
