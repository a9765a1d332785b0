// The texts pbr-cli prints: the configuration tree, the rule table and refusals.
#include <gtest/gtest.h>

#include "element/cli/config_tree.h"
#include "element/cli/error_text.h"
#include "element/cli/status_table.h"
#include "element/yang/module.h"
#include "tests/element/cli/golden.h"

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

TEST(StatusTable, OneRowPerRuleWithStatusNamesAndAbsentAddressesMarked) {
  std::string table, error;
  ASSERT_TRUE(FormatStatusTable(ReadGolden("status.json"), &table, &error)) << error;
  ExpectGolden("status.table", table);
}

TEST(StatusTable, EmptyViewIsTheHeaderAloneAndAnUnreadableOnePrintsNothing) {
  std::string table, error;
  ASSERT_TRUE(FormatStatusTable("{}\n", &table, &error)) << error;
  EXPECT_EQ(table.find('\n'), table.size() - 1);
  EXPECT_TRUE(table.starts_with("ID")) << table;
  table = "kept\n";
  EXPECT_FALSE(FormatStatusTable(R"({"pbr:router": {"pbr-status": [{"id": 1,)", &table, &error));
  EXPECT_EQ(table, "kept\n");
  EXPECT_NE(error.find("not readable"), std::string::npos) << error;
}

TEST(StatusTable, OverlongCellsKeepTheColumnsApart) {
  std::string table, error;
  ASSERT_TRUE(FormatStatusTable(
      R"({"pbr:router": {"pbr-status": [{"id": 4294967295, "rule": {"source-ip": )"
      R"("255.255.255.255/32-and-more", "action": "l3-routing", "hw-status": "failed"}}]}})",
      &table, &error))
      << error;
  EXPECT_NE(table.find("4294967295 255.255.255.255/32-and-more -"), std::string::npos) << table;
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
