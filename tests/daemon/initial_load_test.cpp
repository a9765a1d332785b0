// The initial load: the cache rebuilt from CDB by list position, then every rule sent.
#include "common/fault.h"
#include "common/pbr_schema.h"
#include "config/config_handler.h"
#include "tests/daemon/daemon_test.h"
#include "tests/support/entry_builder.h"
#include "tests/support/recording_client.h"
#include "tests/support/running_config.h"

namespace pbr {
namespace {

using pbrtest::EntryBuilder;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr int kSocket = 42;

class InitialLoadTest : public DaemonTest {
 protected:
  // A rule at a list position with its id and priority; further leaves are added per test.
  std::string AddRule(int position, uint32_t id, uint32_t priority) {
    const std::string prefix = cdb.Rule(position);
    cdb.Add(prefix + "/id", C_UINT32, std::to_string(id));
    cdb.Add(prefix + "/rule/priority", C_UINT32, std::to_string(priority));
    return prefix;
  }
  void Load(int socket = kSocket) {
    cdb.Open(kSocket);
    handler.ReadInitialConfig(socket);
    handler.ApplyInitialConfig();
  }
  const Entry& Rule(uint32_t id) { return cache.configs.at(id).entry; }

  build::RunningConfig cdb;
  zlog_category_t* category = vqmw_trace_register_category("pbr-app");
  fake::RecordingClient client;
  ConfigCache cache;
  ConfigHandler handler{category, &client, &cache};
};

TEST_F(InitialLoadTest, AnEmptyListLeavesAnEmptyCacheAndSendsNothing) {
  cache.GetConfig(3);
  cache.changedIds.insert(3);
  cache.deletedIds.insert(4);
  Load();
  EXPECT_THAT(cache.configs, IsEmpty());
  EXPECT_THAT(cache.changedIds, IsEmpty());
  EXPECT_THAT(cache.deletedIds, IsEmpty());
  EXPECT_THAT(client.calls, IsEmpty());
}

TEST_F(InitialLoadTest, LoadsByPositionAndSendsInIdOrder) {
  // A failed interface list read (here: not a leaf-list) leaves the rule without the match,
  // unreported; absent optional leaves leave the rule without them.
  cdb.Add("/router/pbr[0]/rule/match/interface/name", C_BUF, "eth1");
  AddRule(0, 20, 5);
  AddRule(1, 10, 6);
  Load();
  EXPECT_THAT(client.Summary(), ElementsAre("set 10", "set 20"));
  EXPECT_EQ(client.calls[0].entry, EntryBuilder(10).Priority(6).Build());
  EXPECT_EQ(client.calls[1].entry, EntryBuilder(20).Priority(5).Build());
  EXPECT_EQ(cache.configs.at(20).description, "");
  EXPECT_THAT(cache.changedIds, IsEmpty());
  EXPECT_THAT(fake::Middleware().faults, IsEmpty());
  EXPECT_THAT(fake::Middleware().Texts("GetPbrRuleFromCdb"),
              ElementsAre("Entry Point", "Src IP addr not set on db", "Entry Point",
                          "Src IP addr not set on db"));
  EXPECT_THAT(fake::Middleware().Texts("ApplyInitialConfig"), ElementsAre("Entry Point"));

  // A negative count, a CDB error, ends the load silently.
  client.calls.clear();
  Load(kSocket + 1);
  EXPECT_THAT(client.calls, IsEmpty());
  EXPECT_THAT(fake::Middleware().faults, IsEmpty());
}

TEST_F(InitialLoadTest, ReadsEveryFieldOfARule) {
  const std::string p = AddRule(0, 70000, 9);
  cdb.Add(p + "/rule/description", C_BUF, std::string(32, 'd'));
  cdb.Add(p + "/rule/match/source/ipv4-address/mask/ip", C_IPV4_AND_PLEN, "10.1.2.3/16");
  cdb.Add(p + "/rule/match/destination/ipv4-address/no-mask/ip", C_IPV4, "192.0.2.1");
  cdb.Add(p + "/rule/match/interface", C_BUF, "eth1");
  cdb.Add(p + "/rule/match/interface", C_BUF, "eth2");
  cdb.Add(p + "/rule/action/next-hop/ip", C_IPV4, "10.0.0.1");
  AddRule(1, 2, 1);
  Load();

  EXPECT_EQ(cache.configs.at(70000).id, 70000u);
  EXPECT_EQ(cache.configs.at(70000).description, std::string(32, 'd'));
  EXPECT_EQ(Rule(70000), EntryBuilder(70000 & 0xffff)
                             .Priority(9)
                             .From("10.1.2.3/16")
                             .To("192.0.2.1")
                             .Iif("eth1")
                             .Iif("eth2")
                             .Via("10.0.0.1")
                             .Build());
  EXPECT_EQ(Rule(2), EntryBuilder(2).Priority(1).Build());
  EXPECT_THAT(client.Summary(), ElementsAre("set 2", "set 4464"));
  EXPECT_EQ(fake::Middleware().Texts("GetPbrRuleFromCdb").size(), 3u);  // one source is absent
}

TEST_F(InitialLoadTest, WhenBothAddressFormsExistTheMaskFormWins) {
  std::string p = AddRule(0, 1, 1);
  cdb.Add(p + "/rule/match/source/ipv4-address/no-mask/ip", C_IPV4, "192.0.2.1");
  cdb.Add(p + "/rule/match/source/ipv4-address/mask/ip", C_IPV4_AND_PLEN, "10.1.2.3/24");
  Load();
  EXPECT_EQ(Rule(1), EntryBuilder(1).Priority(1).From("10.1.2.3/24").Build());
  EXPECT_THAT(fake::Middleware().Texts("GetIpAddrAndMaskFromCdb"),
              ElementsAre("Entry Point", "Entry Point",
                          "Loaded IP addr from /router/pbr[0]/rule/match/source/ipv4-address/"
                          "no-mask/ip",
                          "Entry Point",
                          "Loaded IP addr from /router/pbr[0]/rule/match/source/ipv4-address/"
                          "mask/ip",
                          "Entry Point"));
}

struct ReadFault {
  const char* leaf;  // relative path whose read fails: its value is of another type
  const char* func;
  int line;
};

void PrintTo(const ReadFault& fault, std::ostream* os) {
  *os << fault.leaf;
}

class InitialLoadFaultTest : public InitialLoadTest,
                             public ::testing::WithParamInterface<ReadFault> {};

TEST_P(InitialLoadFaultTest, AFailedReadIsFatalAndNamesThePositionAndPath) {
  AddRule(0, 1, 1);
  const std::string p = cdb.Rule(1);
  const std::string path = p + GetParam().leaf;
  const auto add = [&](const std::string& leaf, confd_vtype type, const std::string& text) {
    cdb.Add(p + leaf, p + leaf == path ? C_BOOL : type, text);
  };
  add("/id", C_UINT32, "2");
  add("/rule/priority", C_UINT32, "1");
  add("/rule/description", C_BUF, "x");
  add("/rule/action/next-hop/ip", C_IPV4, "10.0.0.1");
  add("/rule/match/source/ipv4-address/no-mask/ip", C_IPV4, "10.0.0.2");
  add("/rule/match/destination/ipv4-address/mask/ip", C_IPV4_AND_PLEN, "10.0.0.3/8");
  EXPECT_FATAL(Load(), std::string("backtrace\n.*fault severity=1 func=") + GetParam().func +
                           " file=config_handler.cpp line=" + std::to_string(GetParam().line) +
                           " message=" +
                           Literal("[Could not read PBR config entry '1' at '" + path +
                                   "' from CDB (Error: item has a different type).]"));
}

INSTANTIATE_TEST_SUITE_P(EveryRead, InitialLoadFaultTest,
                         ::testing::Values(ReadFault{"/id", "GetPbrRuleFromCdb", 55},
                                           ReadFault{"/rule/priority", "GetPbrRuleFromCdb", 70},
                                           ReadFault{"/rule/description", "GetPbrRuleFromCdb", 81},
                                           ReadFault{"/rule/action/next-hop/ip",
                                                     "GetPbrRuleFromCdb", 131},
                                           ReadFault{"/rule/match/source/ipv4-address/no-mask/ip",
                                                     "GetIpAddrAndMaskFromCdb", 157},
                                           ReadFault{"/rule/match/destination/ipv4-address/mask/ip",
                                                     "GetIpAddrAndMaskFromCdb", 168}));

TEST_F(InitialLoadTest, AMissingPriorityIsFatal) {
  cdb.Add(cdb.Rule(0) + "/id", C_UINT32, "5");
  EXPECT_FATAL(Load(),
               "line=70 message=\\[Could not read PBR config entry '0' at "
               "'/router/pbr\\[0\\]/rule/priority' from CDB \\(Error: item does not "
               "exist\\)\\.\\]");
}

TEST_F(InitialLoadTest, AFaultMessageIsCutAtThreeHundredFortyNineCharacters) {
  const std::string text = std::string(400, 'e');
  EXPECT_FATAL(FatalFault("f", "x.cpp", 1, "%s", text.c_str()),
               "line=1 message=\\[" + text.substr(0, 349) + "\\]\n");
}

}  // namespace
}  // namespace pbr
