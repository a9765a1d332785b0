// The server's own text printers: the configuration as XML and the operational view as JSON
// and XML must read exactly as libyang prints the same data.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "element/mgmt/json_text.h"
#include "element/mgmt/operational.h"
#include "element/yang/module.h"
#include "element/yang/tags.h"
#include "platform/confd_lib.h"

namespace pbr::mgmt {
namespace {

using ::testing::HasSubstr;

class ViewTextTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    ctx_ = pbr::yang::LoadContext(&error);
    ASSERT_TRUE(ctx_) << error;
    ly_log_options(LY_LOSTORE_LAST);
  }
  void TearDown() override { lyd_free_all(tree_); }

  // libyang's own XML of `tree_`.
  std::string LibyangXml() const {
    char* text = nullptr;
    lyd_print_mem(&text, tree_, LYD_XML, LYD_PRINT_WITHSIBLINGS | LYD_PRINT_SHRINK);
    std::string out = text ? text : "";
    std::free(text);
    return out;
  }
  void Parse(const std::string& json, uint32_t options) {
    lyd_free_all(tree_);
    tree_ = nullptr;
    ASSERT_EQ(lyd_parse_data_mem(ctx_.get(), json.c_str(), LYD_JSON, options, 0, &tree_),
              LY_SUCCESS)
        << ly_errmsg(ctx_.get()) << "\n"
        << json;
  }

  static void Leaf(ObjectReply* reply, const char* name, uint32_t type, const std::string& text) {
    TagValue* tv = reply->add_value();
    tv->set_tag(*pbr::yang::TagOfName(name));
    tv->mutable_value()->set_type(type);
    tv->mutable_value()->set_text(text);
  }
  static Value Key(const std::string& text) {
    Value key;
    key.set_type(C_UINT32);
    key.set_text(text);
    return key;
  }
  // A reply as the status callpoint gives it, with hw-status before source-ip to check that
  // the view prints in schema order.
  static ObjectReply Reply(const std::string& id, const std::string& source, int status) {
    ObjectReply reply;
    reply.set_replied(true);
    Leaf(&reply, "id", C_UINT32, id);
    Leaf(&reply, "rule", C_XMLBEGIN, "");
    Leaf(&reply, "hw-status", C_ENUM_VALUE, std::to_string(status));
    Leaf(&reply, "source-ip", C_BUF, source);
    Leaf(&reply, "destination-ip", C_NOEXISTS, "");
    Leaf(&reply, "action", C_BUF, "192.0.2.1");
    Leaf(&reply, "rule", C_XMLEND, "");
    return reply;
  }

  const lysc_node* StatusList() const {
    return lys_find_path(ctx_.get(), nullptr, "/pbr:router/pbr-status", 0);
  }

  pbr::yang::Context ctx_;
  lyd_node* tree_ = nullptr;
};

TEST_F(ViewTextTest, ConfigurationXmlIsLibyangsToTheByte) {
  Parse(R"({"pbr:router": {"pbr": [
      {"id": 7, "rule": {"priority": 10, "description": "a&b <c> \"d\" 'e'",
        "match": {"interface": ["eth1", "eth2"],
                  "source": {"ipv4-address": {"mask": {"ip": "10.1.0.0/16"}}},
                  "destination": {"ipv4-address": {"no-mask": {"ip": "10.9.9.9"}}}},
        "action": {"next-hop": {"ip": "192.0.2.1"}}}},
      {"id": 20, "rule": {"priority": 20, "ignored-node": "", "match": {}}}]}})",
        LYD_PARSE_STRICT);
  EXPECT_EQ(PrintXml(tree_), LibyangXml());
  EXPECT_THAT(PrintXml(tree_), HasSubstr("<description>a&amp;b &lt;c&gt; \"d\" 'e'</description>"));
  EXPECT_THAT(PrintXml(tree_), HasSubstr("<ignored-node/>"));
  EXPECT_EQ(PrintXml(nullptr), "");
}

TEST_F(ViewTextTest, TheViewPrintsAsLibyangPrintsItsOwnParseOfTheViewsJson) {
  OperationalView view(ctx_.get(), StatusList());
  std::string error;
  ASSERT_TRUE(view.Add(Key("5"), Reply("5", "10.0.5.0/24", 1), &error)) << error;
  const size_t five = view.LastAdded();
  ASSERT_TRUE(view.Add(Key("6"), Reply("6", "10.0.6.0/24", 2), &error)) << error;
  view.AddRuleLeaf(five, "hw-reason", "next-hop <link> down & out");
  view.AddRuleLeaf(view.LastAdded(), "no-such-leaf", "left out");

  // The JSON is RFC 7951 that libyang takes strictly; libyang's XML of it is the view's XML.
  Parse(view.Json(), LYD_PARSE_STRICT | LYD_PARSE_ONLY);
  EXPECT_EQ(view.Xml(), LibyangXml());
  EXPECT_THAT(view.Json(), HasSubstr(R"({"id":5,"rule":{"source-ip":"10.0.5.0/24","action":)"
                                     R"("192.0.2.1","hw-status":"programmed","hw-reason":)"));
  EXPECT_THAT(view.Xml(), HasSubstr("<hw-reason>next-hop &lt;link&gt; down &amp; out</hw-reason>"));
}

TEST_F(ViewTextTest, RepliesThatDoNotFitTheSchemaAreRefusedByName) {
  OperationalView view(ctx_.get(), StatusList());
  struct Case {
    ObjectReply reply;
    const char* error;
  };
  ObjectReply badStatus = Reply("1", "10.0.0.0/8", 7);
  ObjectReply twice = Reply("1", "10.0.0.0/8", 1);
  Leaf(&twice, "rule", C_XMLBEGIN, "");
  Leaf(&twice, "action", C_BUF, "l3-routing");
  ObjectReply unbalanced;
  Leaf(&unbalanced, "rule", C_XMLEND, "");
  ObjectReply badPriority;
  Leaf(&badPriority, "rule", C_XMLBEGIN, "");
  Leaf(&badPriority, "priority", C_UINT32, "-1");
  for (const Case& c : {Case{badStatus, "no value 7 for hw-status"}, Case{twice, "duplicate rule"},
                        Case{unbalanced, "unbalanced end of rule"}, Case{badPriority, "-1"}}) {
    std::string error;
    EXPECT_FALSE(view.Add(Key("1"), c.reply, &error));
    EXPECT_THAT(error, HasSubstr(c.error));
    EXPECT_EQ(view.LastAdded(), OperationalView::kNone);
  }
  std::string error;
  EXPECT_FALSE(view.Add(Key("x"), Reply("1", "10.0.0.0/8", 1), &error));
  EXPECT_EQ(error, "bad key x");
  EXPECT_EQ(view.Json(), "{}");
  EXPECT_EQ(view.Xml(), "");
}

}  // namespace
}  // namespace pbr::mgmt
