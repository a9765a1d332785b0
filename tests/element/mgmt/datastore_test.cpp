// The datastore's commits: what a candidate's diff reports, in which order, and that a refused
// candidate changes nothing.
#include "element/mgmt/datastore.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/pbr_schema.h"
#include "element/mgmt/schema_info.h"
#include "element/mgmt/session_candidate.h"
#include "element/yang/module.h"
#include "element/yang/tags.h"

namespace pbr::mgmt {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

class DatastoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    ctx_ = pbr::yang::LoadContext(&error);
    ASSERT_TRUE(ctx_) << error;
    ly_log_options(LY_LOSTORE_LAST);
    ASSERT_TRUE(info_.Annotate(ctx_.get(), pbr::pbr__ns, &error)) << error;
    store_ = std::make_unique<Datastore>(ctx_.get());
  }

  static Load Merge(const std::string& json) {
    Load load;
    load.set_mode(Load::MERGE);
    load.set_data(json);
    return load;
  }

  static Edit Set(std::vector<std::pair<std::string, std::string>> leaves) {
    Edit edit;
    for (auto& [path, value] : leaves) {
      EditOperation* op = edit.add_operation();
      op->set_path(path);
      op->set_value(value);
    }
    return edit;
  }

  static Edit Delete(const std::string& path) {
    Edit edit;
    EditOperation* op = edit.add_operation();
    op->set_kind(EditOperation::DELETE);
    op->set_path(path);
    return edit;
  }

  // Commits and returns the changes as "OP /keypath [= old -> new]" lines.
  template <typename Request>
  std::vector<std::string> Commit(const Request& request) {
    CommitError error;
    auto candidate = store_->Prepare(request, &error);
    EXPECT_TRUE(candidate) << error.message << " at " << error.path;
    if (!candidate) return {};
    // The changes as a subscriber receives them.
    ChangeList list;
    store_->Diff(*candidate, &list);
    std::string wire;
    list.Encode(0, list.size(), &wire);
    store_->Apply(std::move(candidate));
    SubscriptionChanges changes;
    EXPECT_TRUE(changes.ParseFromString(wire));
    // Each change carries its keypath below the change that encloses it.
    std::vector<std::string> paths, lines;
    for (const Change& c : changes.change()) {
      std::string path = c.enclosing() ? paths[paths.size() - c.enclosing()] : "";
      for (const KeypathElement& e : c.keypath()) {
        path += e.key_size() == 0 ? "/" + std::string(pbr::yang::NameOfTag(e.tag()))
                                  : "{" + e.key(0).text() + "}";
      }
      paths.push_back(path);
      lines.push_back(Text(c, path));
    }
    return lines;
  }

  template <typename Request>
  CommitError Refuse(const Request& request) {
    CommitError error;
    EXPECT_FALSE(store_->Prepare(request, &error));
    return error;
  }

  static std::string Text(const Change& c, const std::string& path) {
    static const char* kOps[] = {"?", "CREATED", "DELETED", "MODIFIED", "VALUE_SET"};
    std::string line = std::string(kOps[c.op()]) + " " + path;
    if (c.has_old_value() || c.has_new_value()) {
      line += " = " + (c.has_old_value() ? c.old_value().text() : "-") + " -> " +
              (c.has_new_value() ? c.new_value().text() : "-");
    }
    if (c.descendants()) line += " +" + std::to_string(c.descendants());
    return line;
  }

  pbr::yang::Context ctx_;
  SchemaInfo info_;
  std::unique_ptr<Datastore> store_;
};

constexpr const char* kRule7 = R"({"pbr:router":{"pbr":[{"id":7,"rule":{
  "priority":10,"description":"seven",
  "match":{"interface":["eth1","eth2"],
           "source":{"ipv4-address":{"mask":{"ip":"10.1.2.3/16"}}},
           "destination":{"ipv4-address":{"no-mask":{"ip":"192.0.2.1"}}}},
  "action":{"next-hop":{"ip":"10.0.0.1"}}}}]}})";

TEST_F(DatastoreTest, ANewRuleIsReportedInSchemaOrderWhateverTheDocumentsOrder) {
  const std::vector<std::string> inOrder = Commit(Merge(kRule7));
  store_ = std::make_unique<Datastore>(ctx_.get());
  EXPECT_EQ(Commit(Merge(R"({"pbr:router":{"pbr":[{"rule":{
    "action":{"next-hop":{"ip":"10.0.0.1"}},
    "match":{"destination":{"ipv4-address":{"no-mask":{"ip":"192.0.2.1"}}},
             "interface":["eth1","eth2"],
             "source":{"ipv4-address":{"mask":{"ip":"10.1.2.3/16"}}}},
    "description":"seven","priority":10},"id":7}]}})")),
            inOrder);
}

// Creation, changes and deletions as commit callbacks are covered end to end with the framework;
// these are the diffs that a single commit there does not show.
TEST_F(DatastoreTest, ChangesCarryOldAndNewValuesAndEntriesComeInAscendingKeyOrder) {
  Commit(Merge(kRule7));
  EXPECT_THAT(Commit(Set({{"/router/pbr{7}/rule/priority", "20"}})),
              ElementsAre("MODIFIED /router/pbr{7} +1",
                          "VALUE_SET /router/pbr{7}/rule/priority = 10 -> 20"));
  EXPECT_THAT(Commit(Delete("/router/pbr{7}/rule/description")),
              ElementsAre("MODIFIED /router/pbr{7} +1",
                          "DELETED /router/pbr{7}/rule/description = seven -> -"));
  // Setting what is already there changes nothing.
  EXPECT_THAT(Commit(Set({{"/router/pbr{7}/rule/priority", "20"}})), IsEmpty());

  Commit(Merge(R"({"pbr:router":{"pbr":[{"id":300,"rule":{"priority":1}}]}})"));
  const std::vector<std::string> changes =
      Commit(Merge(R"({"pbr:router":{"pbr":[{"id":40,"rule":{"priority":2}},
                                            {"id":300,"rule":{"priority":2}},
                                            {"id":7,"rule":{"priority":2}}]}})"));
  ASSERT_EQ(changes.size(), 7u);
  EXPECT_EQ(changes[0], "MODIFIED /router/pbr{7} +1");
  EXPECT_EQ(changes[2], "CREATED /router/pbr{40} +2");
  EXPECT_EQ(changes[5], "MODIFIED /router/pbr{300} +1");

  // A replacing load diffs the whole configuration.
  Load load;
  load.set_mode(Load::REPLACE);
  load.set_data(R"({"pbr:router":{"pbr":[{"id":40,"rule":{"priority":2}},
                                          {"id":3,"rule":{"priority":1}}]}})");
  EXPECT_THAT(Commit(load),
              ElementsAre("CREATED /router/pbr{3} +2", "VALUE_SET /router/pbr{3}/id = - -> 3",
                          "VALUE_SET /router/pbr{3}/rule/priority = - -> 1",
                          "DELETED /router/pbr{7}", "DELETED /router/pbr{300}"));
}

// Refusals as operators see them are covered through pbr-cli; these are the edits it cannot make.
TEST_F(DatastoreTest, EditsThatBreakTheModuleOrNameNoEntryAreRefusedAndChangeNothing) {
  Commit(Merge(kRule7));
  const std::string before = store_->RunningJson();
  EXPECT_THAT(Refuse(Delete("/router/pbr{7}/rule/priority")).message, HasSubstr("priority"));
  EXPECT_THAT(Refuse(Set({{"/router/pbr[1]/rule/priority", "1"}})).message, HasSubstr("keys"));
  EXPECT_EQ(store_->RunningJson(), before);
}

// Every way of committing names the rule at fault, and holds descriptions to their byte limit:
// "a" and 16 two-byte characters are 17 characters in 33 bytes.
TEST_F(DatastoreTest, RefusalsNameTheRuleWhicheverWayTheConfigurationComes) {
  std::string wide = "a", utf8 = "a";
  for (int i = 0; i < 16; ++i) {
    wide += "\\u00e9";
    utf8 += "\xc3\xa9";
  }
  const std::string overlong =
      R"({"pbr:router":{"pbr":[{"id":1,"rule":{"priority":1,"description":")" + wide + R"("}}]}})";
  const std::string noPriority =
      R"({"pbr:router":{"pbr":[{"id":50,"rule":{"priority":1}},{"id":51,"rule":{}}]}})";
  const std::string badId = R"({"pbr:router":{"pbr":[{"id":70000,"rule":{"priority":1}}]}})";
  const std::string twice =
      R"({"pbr:router":{"pbr":[{"id":7,"rule":{"priority":1}},{"id":7,"rule":{"priority":2}}]}})";
  Commit(Merge(kRule7));
  auto replace = [](const std::string& json) {
    Load load = Merge(json);
    load.set_mode(Load::REPLACE);
    return load;
  };
  const std::string before = store_->RunningJson();
  const std::string tooLong = "at most 32 bytes, the value has 33";
  const struct {
    CommitError error;
    std::string path, message;
  } cases[] = {
      {Refuse(
           Set({{"/router/pbr{1}/rule/priority", "1"}, {"/router/pbr{1}/rule/description", utf8}})),
       "/pbr:router/pbr[id='1']/rule/description", tooLong},
      {Refuse(Merge(overlong)), "/pbr:router/pbr[id='1']/rule/description", tooLong},
      {Refuse(replace(overlong)), "/pbr:router/pbr[id='1']/rule/description", tooLong},
      {Refuse(replace(noPriority)), "/pbr:router/pbr[id='51']/rule/priority", "Mandatory"},
      {Refuse(Merge(noPriority)), "/pbr:router/pbr[id='51']/rule/priority", "Mandatory"},
      {Refuse(replace(badId)), "/pbr:router/pbr[id='70000']/id\"", "70000"},
      {Refuse(Merge(badId)), "/pbr:router/pbr[id='70000']/id\"", "70000"},
      {Refuse(replace(twice)), "/pbr:router/pbr[id='7']", "Duplicate instance"},
      {Refuse(Merge(twice)), "/pbr:router/pbr[id='7']", "Duplicate instance"},
  };
  for (const auto& c : cases) {
    EXPECT_THAT(c.error.path, HasSubstr(c.path)) << c.error.message;
    EXPECT_THAT(c.error.message, HasSubstr(c.message)) << c.error.path;
  }
  EXPECT_EQ(store_->RunningJson(), before);
}

// A description stored before the limit held is cut at a character boundary, and said so.
// NETCONF's way into a candidate: whole entries set and removed beside single edits, seen by
// later steps, replayed by an update and committed with the removals.
TEST_F(DatastoreTest, ACandidateTakesWholeEntriesBesideEditsAndKeepsThemOnUpdate) {
  Commit(Merge(kRule7));
  Commit(Merge(R"({"pbr:router":{"pbr":[{"id":8,"rule":{"priority":8}}]}})"));
  SessionCandidate candidate(ctx_.get(), store_.get());
  CommitError error;
  auto set = [&](const std::string& json, const std::vector<std::string>& deleted) {
    lyd_node* tree = nullptr;
    return store_->ParseEntries(json, &tree, &error) &&
           candidate.SetEntries(tree, json, deleted, true, &error);
  };
  EXPECT_FALSE(set(R"({"pbr:router":{"pbr":[{"id":10,"rule":{"description":"x"}}]}})", {}));
  EXPECT_THAT(error.path, HasSubstr("pbr[id='10']/rule/priority"));
  ASSERT_TRUE(set(R"({"pbr:router":{"pbr":[{"id":9,"rule":{"priority":9}}]}})", {"/router/pbr{8}"}))
      << error.message;
  ASSERT_TRUE(
      candidate.Edit(Set({{"/router/pbr{9}/rule/description", "nine"}}).operation(), &error))
      << error.message;
  bool touched = false;
  EXPECT_EQ(candidate.Entry("/pbr:router/pbr[id='8']", &touched), nullptr);
  EXPECT_TRUE(touched);
  Commit(Set({{"/router/pbr{7}/rule/priority", "70"}}));  // another session's commit
  ASSERT_TRUE(candidate.Update(&error)) << error.message;
  auto prepared = candidate.Prepare(&error);
  ASSERT_TRUE(prepared) << error.message;
  const ChangeCounts counts = store_->Count(*prepared);
  EXPECT_EQ(counts.added, 1u);
  EXPECT_EQ(counts.deleted, 1u);
  EXPECT_EQ(counts.changed, 0u);
  store_->Apply(std::move(prepared));
  EXPECT_THAT(store_->RunningJson(true),
              AllOf(HasSubstr(R"("description":"nine")"), Not(HasSubstr(R"("id":8)")),
                    Not(HasSubstr(R"("id":10)")), HasSubstr(R"("priority":70)")));
}

TEST_F(DatastoreTest, AStoredOverlongDescriptionIsCutToWholeCharacters) {
  std::string wide = "ab";
  for (int i = 0; i < 16; ++i) wide += "\u00e9";
  CommitError error;
  ASSERT_TRUE(store_->LoadRunning(R"({"pbr:router":{"pbr":[{"id":4,"rule":{"priority":1,
      "description":")" + wide + R"("}}]}})",
                                  &error))
      << error.message;
  std::vector<CutValue> cut;
  ASSERT_TRUE(store_->FitStored(&cut, &error));
  ASSERT_EQ(cut.size(), 1u);
  EXPECT_EQ(cut[0].path, "/pbr:router/pbr[id='4']/rule/description");
  EXPECT_EQ(cut[0].original.size(), 34u);
  EXPECT_EQ(cut[0].kept.size(), 32u);  // "ab" and 15 characters, not half of the 16th
  EXPECT_THAT(store_->RunningJson(), HasSubstr(cut[0].kept + "\""));
}

TEST_F(DatastoreTest, ACommitMessageCarriesEachSubscriptionsChangesAfterTheRoomAskedFor) {
  Commit(Merge(kRule7));
  CommitError error;
  auto candidate = store_->Prepare(Merge(R"({"pbr:router":{"pbr":[{"id":7,"rule":{"priority":11}},
                                      {"id":8,"rule":{"priority":12}}]}})"),
                                   &error);
  ASSERT_TRUE(candidate) << error.message;
  ChangeList changes;
  store_->Diff(*candidate, &changes);
  ASSERT_EQ(changes.size(), 5u);  // pbr{7} +1, pbr{8} +2
  const std::string message = changes.CommitMessage(9, {{0, {{0, 2}}}, {3, {{0, 2}, {2, 5}}}}, 4);
  ServerMessage parsed;
  ASSERT_TRUE(parsed.ParseFromString(message.substr(4)));
  ASSERT_TRUE(parsed.has_commit());
  EXPECT_EQ(parsed.commit().seq(), 9u);
  ASSERT_EQ(parsed.commit().subscription_size(), 2);
  EXPECT_EQ(parsed.commit().subscription(0).subscription(), 0u);
  EXPECT_EQ(parsed.commit().subscription(0).change_size(), 2);
  EXPECT_EQ(parsed.commit().subscription(1).subscription(), 3u);
  ASSERT_EQ(parsed.commit().subscription(1).change_size(), 5);
  const Change& created = parsed.commit().subscription(1).change(2);
  EXPECT_EQ(created.op(), static_cast<uint32_t>(MOP_CREATED));
  EXPECT_EQ(created.descendants(), 2u);
  ASSERT_EQ(created.keypath_size(), 3);
  EXPECT_EQ(created.keypath(2).key(0).text(), "8");
  EXPECT_EQ(created.keypath(2).key(0).type(), static_cast<uint32_t>(C_UINT32));
}

}  // namespace
}  // namespace pbr::mgmt
