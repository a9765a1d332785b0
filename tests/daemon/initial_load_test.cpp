// The initial load: the cache rebuilt from CDB by list position, then every rule sent.
#include "common/pbr_schema.h"
#include "config/config_handler.h"
#include "tests/daemon/daemon_test.h"
#include "tests/support/entry_builder.h"
#include "tests/support/recording_client.h"

namespace pbr {
namespace {

using pbrtest::EntryBuilder;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr int kSocket = 42;

class InitialLoadTest : public DaemonTest {
 protected:
  fake::Cdb& cdb = fake::TheCdb();

  // A rule at a list position with its id and priority; further leaves are set per test.
  std::string AddRule(int position, uint32_t id, uint32_t priority) {
    const std::string prefix = cdb.Prefix(position);
    cdb.SetU32(prefix + "/id", id);
    cdb.SetU32(prefix + "/rule/priority", priority);
    cdb.SetRuleCount(position + 1);
    return prefix;
  }
  void Load() {
    handler.ReadInitialConfig(kSocket);
    handler.ApplyInitialConfig();
  }
  const Entry& Rule(uint32_t id) { return cache.configs.at(id).entry; }

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
  EXPECT_EQ(cdb.InstanceQueries(), 1);
}

TEST_F(InitialLoadTest, LoadsByPositionAndSendsInIdOrderAskingTheCountEachTime) {
  // A failed interface list read leaves the rule without the match, unreported; absent optional
  // leaves leave the rule without them.
  cdb.FailRead("/router/pbr[0]/rule/match/interface", "busy");
  AddRule(0, 20, 5);
  AddRule(1, 10, 6);
  Load();
  EXPECT_THAT(client.Summary(), ElementsAre("set 10", "set 20"));
  EXPECT_EQ(client.calls[0].entry, EntryBuilder(10).Priority(6).Build());
  EXPECT_EQ(client.calls[1].entry, EntryBuilder(20).Priority(5).Build());
  EXPECT_EQ(cache.configs.at(20).description, "");
  EXPECT_EQ(cdb.InstanceQueries(), 3);
  EXPECT_EQ(cdb.Reads("cdb_get_u_int32", "/router/pbr[0]/id"), 1);
  EXPECT_EQ(cdb.Reads("cdb_get_u_int32", "/router/pbr[1]/id"), 1);
  EXPECT_THAT(cache.changedIds, IsEmpty());
  EXPECT_THAT(fake::Middleware().faults, IsEmpty());
  EXPECT_THAT(fake::Middleware().Texts("GetPbrRuleFromCdb"),
              ElementsAre("Entry Point", "Src IP addr not set on db", "Entry Point",
                          "Src IP addr not set on db"));
  EXPECT_THAT(fake::Middleware().Texts("ApplyInitialConfig"), ElementsAre("Entry Point"));

  // A negative count, a CDB error, ends the next load silently.
  cdb.ScriptInstances({5, -1});
  client.calls.clear();
  Load();
  EXPECT_THAT(client.Summary(), ElementsAre("set 20"));
  EXPECT_THAT(fake::Middleware().faults, IsEmpty());
}

TEST_F(InitialLoadTest, ReadsEveryFieldOfARule) {
  std::string p = AddRule(0, 70000, 9);
  cdb.SetStr(p + "/rule/description", std::string(32, 'd'));
  cdb.SetIpv4AndPlen(p + "/rule/match/source/ipv4-address/mask/ip", "10.1.2.3", 16);
  cdb.SetIpv4(p + "/rule/match/destination/ipv4-address/no-mask/ip", "192.0.2.1");
  cdb.SetList(p + "/rule/match/interface", {"eth1", "eth2"});
  cdb.SetIpv4(p + "/rule/action/next-hop/ip", "10.0.0.1");
  p = AddRule(1, 2, 1);
  cdb.SetList(p + "/rule/match/interface", {});  // an empty match
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
  Entry empty = EntryBuilder(2).Priority(1).Build();
  empty.setMatch(MatchIngressPorts({}));
  EXPECT_EQ(Rule(2), empty);
  EXPECT_THAT(client.Summary(), ElementsAre("set 2", "set 4464"));
  EXPECT_EQ(fake::Middleware().Texts("GetPbrRuleFromCdb").size(), 3u);  // one source is absent
}

TEST_F(InitialLoadTest, WhenBothAddressFormsExistTheMaskFormWins) {
  std::string p = AddRule(0, 1, 1);
  cdb.SetIpv4(p + "/rule/match/source/ipv4-address/no-mask/ip", "192.0.2.1");
  cdb.SetIpv4AndPlen(p + "/rule/match/source/ipv4-address/mask/ip", "10.1.2.3", 24);
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
  const char* leaf;  // relative path whose read fails
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
  std::string p = AddRule(1, 2, 1);
  cdb.SetStr(p + "/rule/description", "x");
  cdb.SetIpv4(p + "/rule/action/next-hop/ip", "10.0.0.1");
  cdb.SetIpv4(p + "/rule/match/source/ipv4-address/no-mask/ip", "10.0.0.2");
  cdb.SetIpv4AndPlen(p + "/rule/match/destination/ipv4-address/mask/ip", "10.0.0.3", 8);
  const std::string path = p + GetParam().leaf;
  cdb.FailRead(path, "access denied");
  EXPECT_FATAL(Load(), std::string("backtrace\n.*fault severity=1 func=") + GetParam().func +
                           " file=config_handler.cpp line=" + std::to_string(GetParam().line) +
                           " message=" +
                           Literal("[Could not read PBR config entry '1' at '" + path +
                                   "' from CDB (Error: access denied).]"));
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
  cdb.SetU32(cdb.Prefix(0) + "/id", 5);
  cdb.SetRuleCount(1);
  EXPECT_FATAL(Load(),
               "line=70 message=\\[Could not read PBR config entry '0' at "
               "'/router/pbr\\[0\\]/rule/priority' from CDB \\(Error: item does not "
               "exist\\)\\.\\]");
}

TEST_F(InitialLoadTest, ALongFaultMessageIsCutAtThreeHundredFortyNineCharacters) {
  std::string p = AddRule(0, 1, 1);
  cdb.FailRead(p + "/rule/priority", std::string(400, 'e'));
  const std::string full = "Could not read PBR config entry '0' at '" + p +
                           "/rule/priority' from CDB (Error: " + std::string(400, 'e') + ").";
  EXPECT_FATAL(Load(), "line=70 message=" + Literal("[" + full.substr(0, 349) + "]") + "\n");
}

}  // namespace
}  // namespace pbr
