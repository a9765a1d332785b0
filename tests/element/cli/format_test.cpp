// The texts pbr-cli prints: the configuration tree, the rule table and refusals.
#include <gtest/gtest.h>

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
}

using Keypath = SchemaTest;

TEST_F(Keypath, DataPathsBecomeKeypaths) {
  EXPECT_EQ(KeypathOf("/pbr:router/pbr[id='7']/rule/priority", ctx_.get()),
            "/router/pbr{7}/rule/priority");
  EXPECT_EQ(KeypathOf("/pbr:router/pbr[id='7']/rule/match/interface[.='eth 1']", ctx_.get()),
            R"(/router/pbr{7}/rule/match/interface{"eth 1"})");
  EXPECT_EQ(KeypathOf(R"(/pbr:router/pbr[id="7"])", nullptr), "/router/pbr{7}");
}

TEST_F(Keypath, SchemaPathsLoseTheirChoicesAndCases) {
  EXPECT_EQ(KeypathOf("/pbr:router/pbr/rule/match/source/ipv4-address/address/no-mask/no-mask/ip",
                      ctx_.get()),
            "/router/pbr/rule/match/source/ipv4-address/no-mask/ip");
  EXPECT_EQ(KeypathOf("/pbr:router/pbr/rule/match/destination/ipv4-address/address", ctx_.get()),
            "/router/pbr/rule/match/destination/ipv4-address");
  // Without the schema nothing is dropped; unknown steps stop the lookup, not the conversion.
  EXPECT_EQ(KeypathOf("/pbr:router/pbr/rule/match/source/ipv4-address/address", nullptr),
            "/router/pbr/rule/match/source/ipv4-address/address");
  EXPECT_EQ(KeypathOf("/pbr:router/bogus/address", ctx_.get()), "/router/bogus/address");
}

TEST_F(Keypath, TextThatIsNoPathStaysAsItIs) {
  for (const char* text : {"", "router", "/router/pbr{7}/rule/prio", "/pbr:router/pbr[1",
                           "/pbr:router/pbr[id=7]", "//x"}) {
    EXPECT_EQ(KeypathOf(text, ctx_.get()), text);
  }
}

mgmt::Error MakeError(std::string message, std::string path) {
  mgmt::Error error;
  error.set_message(std::move(message));
  error.set_path(std::move(path));
  return error;
}

TEST_F(Keypath, RefusalsNameTheNodeAndTheFileLine) {
  EXPECT_EQ(ErrorText(MakeError("Mandatory node \"priority\" instance does not exist.",
                                R"(Schema location "/pbr:router/pbr/rule/priority".)"),
                      ctx_.get()),
            R"(/router/pbr/rule/priority: Mandatory node "priority" instance does not exist.)");
  EXPECT_EQ(ErrorText(MakeError("Invalid type uint32 value \"x\".",
                                R"(Data location "/pbr:router/pbr[id='5']/rule/priority", )"
                                R"(line number 3.)"),
                      ctx_.get(), "rules.xml"),
            R"(rules.xml:3: /router/pbr{5}/rule/priority: Invalid type uint32 value "x".)");
  EXPECT_EQ(
      ErrorText(MakeError("Unexpected end-of-input.", "Line number 1."), ctx_.get(), "a.json"),
      "a.json:1: Unexpected end-of-input.");
  EXPECT_EQ(ErrorText(MakeError("Unexpected end-of-input.", "Line number 1."), ctx_.get()),
            "line 1: Unexpected end-of-input.");
  EXPECT_EQ(ErrorText(MakeError("no such node to delete", "/router/pbr{99}"), ctx_.get()),
            "/router/pbr{99}: no such node to delete");
  EXPECT_EQ(ErrorText(MakeError("no daemon serves show_pbr", ""), ctx_.get()),
            "no daemon serves show_pbr");
  EXPECT_EQ(ErrorText(MakeError("", ""), nullptr, "a.json"), "a.json: refused");
}

}  // namespace
}  // namespace pbr::cli
