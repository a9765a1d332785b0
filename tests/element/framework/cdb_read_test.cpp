// The CDB reads a handler makes during ReadInitialConfig, on a snapshot as the server sends it:
// positional and keyed paths, short and long lists, and their errors.
#include <gtest/gtest.h>

#include <string>

#include "element/framework/cdb.h"
#include "element/framework/commit_wire.h"
#include "platform/confd_lib.h"
#include "tests/support/running_config.h"

namespace vqconfd::detail {
namespace {

constexpr int kSock = 1000;

// /router/pbr entries with ids 10, 20, ... in key order; long enough to be indexed.
void AddRules(build::RunningConfig* cdb, int count) {
  for (int i = 1; i <= count; ++i) {
    const std::string p = cdb->Rule(i - 1);
    cdb->Add(p + "/id", C_UINT32, std::to_string(10 * i));
    cdb->Add(p + "/rule/priority", C_UINT32, std::to_string(i));
    cdb->Add(p + "/rule/description", C_BUF, "rule " + std::to_string(i));
    cdb->Add(p + "/rule/match/mask/ip", C_IPV4_AND_PLEN, "10.1.2.3/16");
  }
}

// Leaves of each type and leaf-lists are read as the daemon reads them in its tests
// (tests/daemon/initial_load_test.cpp); these are the paths and errors it does not meet.
class CdbReadTest : public ::testing::TestWithParam<int> {
 protected:
  void SetUp() override {
    AddRules(&cdb_, GetParam());
    cdb_.Open(kSock);
  }
  build::RunningConfig cdb_;
};

TEST_P(CdbReadTest, EntriesAreReadByPositionAndByKey) {
  const int n = GetParam();
  EXPECT_EQ(cdb_num_instances(kSock, "/router/pbr"), n);
  uint32_t v = 0;
  ASSERT_EQ(cdb_get_u_int32(kSock, &v, "/router/pbr[%d]/id", n - 1), CONFD_OK);
  EXPECT_EQ(v, 10u * n);
  ASSERT_EQ(cdb_get_u_int32(kSock, &v, "/router/pbr{%d}/rule/priority", 20), CONFD_OK);
  EXPECT_EQ(v, 2u);
  EXPECT_EQ(cdb_exists(kSock, "/router/pbr{15}"), 0);
  EXPECT_EQ(cdb_exists(kSock, "/router/pbr[%d]", n), 0);
  EXPECT_EQ(cdb_exists(kSock, "/router/pbr[0]/rule/match/mask/ip"), 1);
}

TEST_P(CdbReadTest, FailedReadsSayWhy) {
  // A string fits with its NUL ("rule 1": 7 bytes) or is not read at all: never cut.
  char fits[7];
  ASSERT_EQ(cdb_get_str(kSock, fits, sizeof fits, "/router/pbr[0]/rule/description"), CONFD_OK);
  EXPECT_STREQ(fits, "rule 1");
  char small[6] = "-";
  EXPECT_EQ(cdb_get_str(kSock, small, sizeof small, "/router/pbr[%d]/rule/description", 0),
            CONFD_ERR);
  EXPECT_STREQ(confd_lasterr(), "value does not fit in 6 bytes");
  EXPECT_STREQ(small, "-");
  EXPECT_EQ(cdb_num_instances(kSock + 1, "/router/pbr"), CONFD_ERR);
  EXPECT_EQ(cdb_exists(kSock, "router"), CONFD_ERR);
  confd_value_t* values = nullptr;
  int count = 0;
  EXPECT_EQ(cdb_get_list(kSock, &values, &count, "/router/pbr[0]/rule/match/none"), CONFD_ERR);
}

// A short list is searched directly, a long one through its index.
INSTANTIATE_TEST_SUITE_P(ListLengths, CdbReadTest, ::testing::Values(3, 40));

// Messages as they arrive are read in place: every attachment and commit of the framework's
// end-to-end tests goes that way. Damaged ones are refused whole, wherever they are cut.
TEST(WireMessages, DamagedSnapshotsAndChangeListsAreRefused) {
  build::RunningConfig cdb;
  AddRules(&cdb, 3);
  const std::string root = cdb.root().SerializeAsString();
  for (size_t cut = 1; cut < root.size(); cut += 7) {
    EXPECT_FALSE(CdbSnapshot(std::string_view(root).substr(0, cut)).valid()) << "cut at " << cut;
  }

  pbr::mgmt::ServerMessage message;
  message.mutable_commit()->add_subscription()->add_change()->set_op(MOP_CREATED);
  const std::string wire = message.SerializeAsString();
  uint64_t seq = 0;
  std::string_view attach;
  EXPECT_FALSE(PeekAttachReply(wire, &seq, &attach)) << "a commit is no attachment";
  std::vector<std::pair<uint32_t, std::string_view>> subscriptions;
  ASSERT_TRUE(PeekCommit(wire, &seq, &subscriptions));
  ASSERT_EQ(subscriptions.size(), 1u);
  ChangeCursor damaged(subscriptions[0].second.substr(0, subscriptions[0].second.size() - 1));
  while (damaged.Next() != nullptr) {
  }
  EXPECT_FALSE(damaged.ok());
  EXPECT_FALSE(PeekCommit(std::string_view(wire).substr(0, wire.size() - 1), &seq, &subscriptions));
}

}  // namespace
}  // namespace vqconfd::detail
