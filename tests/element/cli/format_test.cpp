// The texts pbr-cli prints: the configuration tree, the rule table and refusals.
#include <gtest/gtest.h>

#include <algorithm>

#include "element/cli/config_tree.h"
#include "element/cli/error_text.h"
#include "element/cli/rule_view.h"
#include "element/yang/module.h"
#include "tests/support/golden.h"

namespace pbr::cli {
namespace {

using pbrtest::ExpectGolden;
using pbrtest::ReadGolden;

class SchemaTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ly_log_options(LY_LOSTORE_LAST);
    std::string error;
    ctx_ = yang::LoadContext(&error);
    ASSERT_TRUE(ctx_) << error;
  }
  yang::Context ctx_;
};

using ConfigTree = SchemaTest;

TEST_F(ConfigTree, ShowsEveryKindOfNodeWithEntriesInKeyOrder) {
  std::string tree, error;
  ASSERT_TRUE(FormatConfigTree(ctx_.get(), ReadGolden("running.json"), &tree, &error)) << error;
  ExpectGolden("running.tree", tree);
}

TEST_F(ConfigTree, EmptyConfigurationShowsNothingAndOthersOutsideTheSchemaAreRefused) {
  std::string tree, error;
  ASSERT_TRUE(FormatConfigTree(ctx_.get(), "{}\n", &tree, &error)) << error;
  EXPECT_EQ(tree, "");
  EXPECT_FALSE(FormatConfigTree(ctx_.get(), R"({"pbr:router": {"colour": 1}})", &tree, &error));
  EXPECT_NE(error.find("colour"), std::string::npos) << error;
  EXPECT_FALSE(FormatConfigTree(ctx_.get(), R"({"pbr:router": {"pbr": [)", &tree, &error));
  EXPECT_EQ(tree, "");
}

// Rules 2, 5, 7 and 65535 as configured; 9 is configured but has no status yet.
constexpr std::string_view kRunning = R"({"pbr:router": {"pbr": [
  {"id": 9, "rule": {"priority": 1}},
  {"id": 7, "rule": {"priority": 5, "description": "web servers",
                     "match": {"interface": ["eth2", "eth3"]}}},
  {"id": 5, "rule": {"priority": 20, "match": {"interface": ["eth2"]}}},
  {"id": 2, "rule": {"priority": 5}},
  {"id": 65535, "rule": {"priority": 0, "description": "catch-all"}}]}})";

std::vector<RuleRow> JoinedRows() {
  std::vector<RuleRow> rows;
  std::string error;
  EXPECT_TRUE(ReadRuleStatus(ReadGolden("status.json"), &rows, &error)) << error;
  EXPECT_TRUE(JoinRuleConfig(kRunning, &rows, &error)) << error;
  return rows;
}

TEST(RuleView, JoinsTheConfiguredPriorityInterfacesAndDescriptionIntoTheTable) {
  std::string table;
  FormatRuleTable(JoinedRows(), 4, &table);
  ExpectGolden("status.table", table);

  std::string json;
  std::vector<RuleRow> rows = JoinedRows();
  rows.resize(3);
  FormatRuleJson({rows[2]}, &json);
  EXPECT_EQ(json,
            "{\n  \"pbr:router\": {\n    \"pbr-status\": [\n      {\"id\": 7, \"rule\": "
            "{\"priority\":5,\"destination-ip\":\"255.255.255.255/31\",\"interfaces\":"
            "\"eth2,eth3\",\"action\":\"l3-routing\",\"hw-status\":\"failed\",\"hw-reason\":"
            "\"Nexthop has invalid gateway\",\"description\":\"web servers\"}}\n    ]\n  }\n}\n");
  // The module reads it back.
  std::vector<RuleRow> back;
  std::string error;
  ASSERT_TRUE(ReadRuleStatus(json, &back, &error)) << error;
  ASSERT_EQ(back.size(), 1u);
  EXPECT_EQ(back[0].reason, "Nexthop has invalid gateway");
}

TEST(RuleView, FiltersCombineAndPriorityOrderBreaksTiesById) {
  struct Case {
    const char* what;
    RuleQuery query;
    std::vector<uint32_t> ids;
    std::string summary;
  };
  const auto query = [](auto set) {
    RuleQuery q;
    set(q);
    return q;
  };
  const std::vector<Case> cases = {
      {"all by id", {}, {2, 5, 7, 65535}, "4 rules: 1 programmed, 1 failed, 1 not programmed"},
      {"evaluation order", query([](RuleQuery& q) { q.byPriority = true; }), {65535, 2, 7, 5}, ""},
      {"status",
       query([](RuleQuery& q) { q.status = "failed"; }),
       {7},
       "1 rule of 4: 0 programmed, 1 failed, 0 not programmed"},
      {"interface", query([](RuleQuery& q) { q.interface = "eth2"; }), {5, 7}, ""},
      {"next hop", query([](RuleQuery& q) { q.nextHop = "10.0.0.1"; }), {5}, ""},
      {"combined, in order",
       query([](RuleQuery& q) {
         q.interface = "eth2";
         q.byPriority = true;
         q.status = "programmed";
       }),
       {5},
       ""},
      {"nothing matches",
       query([](RuleQuery& q) { q.interface = "eth9"; }),
       {},
       "0 rules of 4: 0 programmed, 0 failed, 0 not programmed"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<RuleRow> rows = JoinedRows();
    SelectRules(c.query, &rows);
    std::vector<uint32_t> ids;
    for (const RuleRow& r : rows) ids.push_back(r.id);
    EXPECT_EQ(ids, c.ids);
    std::string table;
    FormatRuleTable(rows, 4, &table);
    if (!c.summary.empty()) {
      EXPECT_TRUE(table.ends_with(c.summary + "\n")) << table;
    }
  }
}

TEST(RuleView, UnreadableDocumentsAreRefusedAndOverlongCellsKeepColumnsApart) {
  std::vector<RuleRow> rows;
  std::string error, table;
  EXPECT_FALSE(ReadRuleStatus(R"({"pbr:router": {"pbr-status": [{"id": 1,)", &rows, &error));
  EXPECT_NE(error.find("not readable"), std::string::npos) << error;
  EXPECT_FALSE(JoinRuleConfig("{", &rows, &error));

  ASSERT_TRUE(ReadRuleStatus(
      R"({"pbr:router": {"pbr-status": [{"id": 4294967295, "rule": {"source-ip": )"
      R"("255.255.255.255/32-and-more", "action": "l3-routing", "hw-status": "failed"}}]}})",
      &rows, &error))
      << error;
  FormatRuleTable(rows, 1, &table);
  EXPECT_NE(table.find("4294967295 -          -               255.255.255.255/32-and-more -"),
            std::string::npos)
      << table;

  // Control characters in names and descriptions neither break rows nor reach the terminal.
  rows[0].interfaces = {"e\tx"};
  rows[0].description = "two\nlines \x1b[2J";
  table.clear();
  FormatRuleTable(rows, 1, &table);
  EXPECT_EQ(std::count(table.begin(), table.end(), '\n'), 3) << table;
  EXPECT_NE(table.find(" e\\tx            "), std::string::npos) << table;
  EXPECT_NE(table.find(" two\\nlines \\x1b[2J\n"), std::string::npos) << table;
}

using Keypath = SchemaTest;

// Data paths become keypaths; schema paths lose their choices and cases; without the schema
// nothing is dropped; unknown steps stop the lookup, not the conversion; text that is no path
// stays as it is.
TEST_F(Keypath, DataAndSchemaPathsBecomeKeypathsAndOtherTextStaysAsItIs) {
  const struct {
    const char* text;
    bool schema;
    const char* keypath;
  } cases[] = {
      {"/pbr:router/pbr[id='7']/rule/priority", true, "/router/pbr{7}/rule/priority"},
      {"/pbr:router/pbr[id='7']/rule/match/interface[.='eth 1']", true,
       R"(/router/pbr{7}/rule/match/interface{"eth 1"})"},
      {R"(/pbr:router/pbr[id="7"])", false, "/router/pbr{7}"},
      {"/pbr:router/pbr/rule/match/source/ipv4-address/address/no-mask/no-mask/ip", true,
       "/router/pbr/rule/match/source/ipv4-address/no-mask/ip"},
      {"/pbr:router/pbr/rule/match/destination/ipv4-address/address", true,
       "/router/pbr/rule/match/destination/ipv4-address"},
      {"/pbr:router/pbr/rule/match/source/ipv4-address/address", false,
       "/router/pbr/rule/match/source/ipv4-address/address"},
      {"/pbr:router/bogus/address", true, "/router/bogus/address"},
      {"", true, ""},
      {"router", true, "router"},
      {"/router/pbr{7}/rule/prio", true, "/router/pbr{7}/rule/prio"},
      {"/pbr:router/pbr[1", true, "/pbr:router/pbr[1"},
      {"/pbr:router/pbr[id=7]", true, "/pbr:router/pbr[id=7]"},
      {"//x", true, "//x"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(KeypathOf(c.text, c.schema ? ctx_.get() : nullptr), c.keypath) << c.text;
  }
}

TEST_F(Keypath, RefusalsNameTheNodeAndTheFileLine) {
  const struct {
    const char* message;
    const char* path;
    const char* file;
    const char* text;
  } cases[] = {
      {"Mandatory node \"priority\" instance does not exist.",
       R"(Schema location "/pbr:router/pbr/rule/priority".)", "",
       R"(/router/pbr/rule/priority: Mandatory node "priority" instance does not exist.)"},
      {"Invalid type uint32 value \"x\".",
       R"(Data location "/pbr:router/pbr[id='5']/rule/priority", line number 3.)", "rules.xml",
       R"(rules.xml:3: /router/pbr{5}/rule/priority: Invalid type uint32 value "x".)"},
      {"Unexpected end-of-input.", "Line number 1.", "a.json",
       "a.json:1: Unexpected end-of-input."},
      {"Unexpected end-of-input.", "Line number 1.", "", "line 1: Unexpected end-of-input."},
      {"no such node to delete", "/router/pbr{99}", "", "/router/pbr{99}: no such node to delete"},
      {"no daemon serves show_pbr", "", "", "no daemon serves show_pbr"},
      {"", "", "a.json", "a.json: refused"},
  };
  for (const auto& c : cases) {
    mgmt::Error error;
    error.set_message(c.message);
    error.set_path(c.path);
    EXPECT_EQ(ErrorText(error, ctx_.get(), c.file), c.text);
  }
}

}  // namespace
}  // namespace pbr::cli
