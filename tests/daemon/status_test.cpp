// Hardware status table and the "show_pbr" reply.
#include "status/status.h"

#include "common/pbr_schema.h"
#include "element/framework/data_reply.h"
#include "tests/daemon/daemon_test.h"
#include "tests/support/builders.h"
#include "tests/support/entry_builder.h"

namespace pbr {
namespace {

using ::testing::ElementsAre;
using ::testing::SizeIs;

class StatusTest : public DaemonTest {
 protected:
  // Serves one get-object request for `id` and returns the reply as the server receives it.
  std::vector<mgmt::TagValue> Show(uint32_t id) {
    confd_hkeypath_t kp = build::Kp("/router/pbr-status{" + std::to_string(id) + "}");
    mgmt::ObjectReply reply;
    confd_trans_ctx request{&reply};
    EXPECT_EQ(Callpoint().GetObjectCallback(&request, &kp), CONFD_OK);
    return {reply.value().begin(), reply.value().end()};
  }
  vqconfd::DataHandler::Callpoint& Callpoint() { return *status.GetCallpoints().at(0); }
  // Rule 5 of the documentation's example.
  void AddExampleRule() {
    cache.GetConfig(5).entry = pbrtest::EntryBuilder(5)
                                   .Priority(3)
                                   .From("10.1.0.0/16")
                                   .To("192.168.2.1")
                                   .Via("10.0.0.1")
                                   .Build();
    cache.GetConfig(5).description = "not shown";
  }
  static std::vector<int> Types(const std::vector<mgmt::TagValue>& reply) {
    std::vector<int> types;
    for (const auto& v : reply) types.push_back(static_cast<int>(v.value().type()));
    return types;
  }

  zlog_category_t* category = vqmw_trace_register_category("pbr-app");
  ConfigCache cache;
  Status status{category, &cache};
  PbrStatusItf& listener = status;
};

TEST_F(StatusTest, ServesShowPbrAndReportsOverwriteWithUnknownIdsReadingZero) {
  ASSERT_THAT(status.GetCallpoints(), SizeIs(1));
  EXPECT_STREQ(Callpoint().GetCallpointName(), "show_pbr");
  EXPECT_THAT(status.GetCallpointNames(), ElementsAre("show_pbr"));
  EXPECT_TRUE(fake::Middleware().Logged("Status handling initialized"));

  listener.StatusUpdateCb(7, 1);
  listener.StatusUpdateCb(7, 2);
  EXPECT_EQ(status.GetHwStatus(7), 2u);
  EXPECT_EQ(status.GetHwStatus(9), 0u);
  status.SetHwStatus(9, 1);
  EXPECT_EQ(status.GetHwStatus(9), 1u);
  listener.StatusUpdateCb(11, 5);
  EXPECT_EQ(status.GetHwStatus(11), 5u);
  EXPECT_TRUE(fake::Middleware().Logged("PBR next-hop update callback: id 7 = 2"));
}

TEST_F(StatusTest, ARuleIsShownWithItsAddressesActionAndStatus) {
  AddExampleRule();
  listener.StatusUpdateCb(5, 1);
  std::vector<mgmt::TagValue> reply = Show(5);
  ASSERT_THAT(reply, SizeIs(10));
  EXPECT_THAT(Types(reply), ElementsAre(C_UINT32, C_XMLBEGIN, C_NOEXISTS, C_STR, C_STR, C_NOEXISTS,
                                        C_STR, C_ENUM_VALUE, C_NOEXISTS, C_XMLEND));
  std::vector<uint32_t> tags;
  std::vector<uint32_t> namespaces;
  for (const auto& v : reply) {
    tags.push_back(v.tag());
    namespaces.push_back(v.ns());
  }
  EXPECT_THAT(tags,
              ElementsAre(pbr_id, pbr_rule, pbr_priority, pbr_source_ip, pbr_destination_ip,
                          pbr_interfaces, pbr_action, pbr_hw_status, pbr_description, pbr_rule));
  EXPECT_THAT(namespaces, ElementsAre(0u, pbr__ns, 0u, 0u, 0u, 0u, 0u, 0u, 0u, pbr__ns));
  EXPECT_EQ(reply[0].value().text(), "5");
  EXPECT_EQ(reply[3].value().text(), "10.1.0.0/16");
  EXPECT_EQ(reply[4].value().text(), "192.168.2.1");
  EXPECT_EQ(reply[6].value().text(), "10.0.0.1");
  EXPECT_EQ(reply[7].value().text(), "1");
  EXPECT_TRUE(fake::Middleware().Logged("Received getObject request for '/router/pbr-status{5}'"));
  char stored[16];  // the address as stored, printed as a host integer
  snprintf(stored, sizeof(stored), "%x", pbrtest::Ip("10.1.0.0").s_addr);
  EXPECT_TRUE(fake::Middleware().Logged(std::string("source ip = '10.1.0.0[") + stored +
                                        "] - 255.255.0.0[10]'"));
}

TEST_F(StatusTest, MissingMatchesAreAbsentAndAMissingNextHopIsL3Routing) {
  AddExampleRule();
  EXPECT_EQ(Show(5)[7].value().text(), "0");  // not reported yet
  Entry& entry = cache.GetConfig(5).entry;
  entry.deleteAction(ACTION_L3_NEXT_HOP);
  entry.deleteMatch(MATCH_SRC_IPV4);
  listener.StatusUpdateCb(5, 2);
  std::vector<mgmt::TagValue> reply = Show(5);
  ASSERT_THAT(reply, SizeIs(10));
  EXPECT_EQ(Types(reply)[3], C_NOEXISTS);
  EXPECT_EQ(reply[4].value().text(), "192.168.2.1");
  EXPECT_EQ(reply[6].value().text(), "l3-routing");
  EXPECT_EQ(reply[7].value().text(), "2");

  // A code without a name leaves the status out.
  listener.StatusUpdateCb(5, 3);
  reply = Show(5);
  ASSERT_THAT(reply, SizeIs(9));
  EXPECT_EQ(reply[7].tag(), pbr_description);
  EXPECT_EQ(Types(reply)[8], C_XMLEND);
}

TEST_F(StatusTest, AddressTextsKeepHostBitsAndShowZeroLengthPrefixes) {
  cache.GetConfig(6).entry = pbrtest::EntryBuilder(6).From("0.0.0.0/0").To("10.1.2.3/16").Build();
  std::vector<mgmt::TagValue> reply = Show(6);
  EXPECT_EQ(reply[3].value().text(), "0.0.0.0/0");
  EXPECT_EQ(reply[4].value().text(), "10.1.2.3/16");
}

TEST_F(StatusTest, AnUnconfiguredIdIsShownEmptyAndCreated) {
  std::vector<mgmt::TagValue> reply = Show(70000);
  ASSERT_THAT(reply, SizeIs(10));
  EXPECT_EQ(reply[0].value().text(), "70000");
  EXPECT_EQ(Types(reply)[3], C_NOEXISTS);
  EXPECT_EQ(Types(reply)[4], C_NOEXISTS);
  EXPECT_EQ(reply[6].value().text(), "l3-routing");
  EXPECT_EQ(reply[7].value().text(), "0");
  EXPECT_EQ(cache.configs.count(70000), 1u);
  EXPECT_EQ(status.GetHwStatus(70000 & 0xffff), 0u);
}

TEST_F(StatusTest, TheKeyMustBeAnUnsignedInteger) {
  confd_hkeypath_t kp = build::Kp("/router/pbr-status{x5}");
  EXPECT_DEATH(Callpoint().GetObjectCallback(nullptr, &kp),
               "`\\(&\\(keypath->v\\[0\\]\\[0\\]\\)\\)->type == C_UINT32' failed");
}

}  // namespace
}  // namespace pbr
