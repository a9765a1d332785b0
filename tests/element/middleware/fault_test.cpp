// Fault reports and backtraces: what reaches the fault log and the element's log.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cctype>
#include <nlohmann/json.hpp>
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

// "2024-05-01T12:00:00.123Z": UTC with milliseconds.
bool IsUtcTime(const std::string& text) {
  const std::string shape = "dddd-dd-ddTdd:dd:dd.dddZ";
  if (text.size() != shape.size()) return false;
  for (size_t i = 0; i < shape.size(); ++i) {
    if (shape[i] == 'd' ? !std::isdigit(static_cast<unsigned char>(text[i])) : text[i] != shape[i])
      return false;
  }
  return true;
}

std::vector<nlohmann::json> FaultRecords(const pbrtest::ElementEnv& env) {
  std::vector<nlohmann::json> records;
  std::istringstream lines(env.Faults());
  for (std::string line; std::getline(lines, line);) records.push_back(nlohmann::json::parse(line));
  return records;
}

TEST(Fault, RecordCarriesAllItsFieldsEvenAfterAFailedRegistration) {
  pbrtest::ElementEnv env;
  vqmw_t* mw = vqmw_init("pbr-app");
  ASSERT_NE(mw, nullptr);
  ASSERT_EQ(vqmw_init("pbr-app"), nullptr);
  vqmw_gen_fault(1, "main", "main", 39, "pbr-app unknown error\n");
  vqmw_gen_fault(0, "GetPbrRuleFromCdb", "config_handler", 55, "Could not read \"id\"");
  vqmw_gen_fault(1, nullptr, nullptr, 0, nullptr);

  auto records = FaultRecords(env);
  ASSERT_EQ(records.size(), 3u);
  const auto& fatal = records[0];
  EXPECT_TRUE(IsUtcTime(fatal["time"])) << fatal["time"];
  EXPECT_EQ(fatal["severity"], 1);
  EXPECT_EQ(fatal["application"], "pbr-app");
  EXPECT_EQ(fatal["pid"], getpid());
  EXPECT_EQ(fatal["function"], "main");
  EXPECT_EQ(fatal["file"], "main");
  EXPECT_EQ(fatal["line"], 39);
  EXPECT_EQ(fatal["message"], "pbr-app unknown error\n");
  EXPECT_EQ(records[1]["severity"], 0);
  EXPECT_EQ(records[1]["message"], "Could not read \"id\"");
  EXPECT_EQ(records[2]["function"], "");
  EXPECT_EQ(records[2]["message"], "");

  std::string log = env.Log();
  EXPECT_NE(log.find(" critical fault {"), std::string::npos) << log;
  EXPECT_NE(log.find(" error fault {"), std::string::npos);
  vqmw_finish(&mw);
}

TEST(Fault, BacktraceNamesTheCallersDemangled) {
  pbrtest::ElementEnv env;
  vqmw_t* mw = vqmw_init("pbr-app");
  pbrtest::BacktraceFromHere();

  auto records = FaultRecords(env);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0]["application"], "pbr-app");
  ASSERT_TRUE(records[0]["backtrace"].is_array());
  bool named = false;
  for (const auto& frame : records[0]["backtrace"])
    named |= frame.get<std::string>().find("pbrtest::BacktraceFromHere()") != std::string::npos;
  EXPECT_TRUE(named) << records[0];
  EXPECT_NE(env.Log().find("#0 "), std::string::npos);
  vqmw_finish(&mw);
}

}  // namespace
