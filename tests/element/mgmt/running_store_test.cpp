// The running configuration on disk: what a restarted server loads after commits, after a
// crash in the middle of a record, and after a crash in the middle of a compaction.
#include "element/mgmt/running_store.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "common/pbr_schema.h"
#include "element/mgmt/schema_info.h"
#include "element/yang/module.h"

namespace pbr::mgmt {
namespace {

namespace fs = std::filesystem;

class RunningStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string tmpl = (fs::temp_directory_path() / "pbr-running.XXXXXX").string();
    ASSERT_NE(mkdtemp(tmpl.data()), nullptr);
    dir_ = tmpl;
    std::string error;
    ctx_ = pbr::yang::LoadContext(&error);
    ly_log_options(LY_LOSTORE_LAST);
    ASSERT_TRUE(info_.Annotate(ctx_.get(), pbr::pbr__ns, &error)) << error;
  }
  void TearDown() override { fs::remove_all(dir_); }

  // A server's datastore and files in `dir`, loaded as at start-up.
  struct Server {
    Server(ly_ctx* ctx, const std::string& dir, uint64_t compactFrom)
        : store(ctx), files(dir, compactFrom) {
      loaded = files.Load(&store, &error);
    }
    void Commit(const std::string& path, const std::string& value, bool remove = false) {
      Edit edit;
      EditOperation* op = edit.add_operation();
      op->set_path(path);
      op->set_value(value);
      if (remove) op->set_kind(EditOperation::DELETE);
      CommitError bad;
      Save(store.Prepare(edit, &bad), bad);
    }
    void Replace(const std::string& json) {
      Load load;
      load.set_mode(Load::REPLACE);
      load.set_data(json);
      CommitError bad;
      Save(store.Prepare(load, &bad), bad);
    }
    void Save(std::unique_ptr<Candidate> candidate, const CommitError& bad) {
      ASSERT_TRUE(candidate) << bad.message;
      const JournalRecord record = store.Record(candidate.get());
      store.Apply(std::move(candidate));
      ASSERT_TRUE(files.Append(record, &error)) << error;
      if (compactAtOnce && files.CompactionDue()) {
        ASSERT_TRUE(files.Compact(store, &error)) << error;
      }
    }
    Datastore store;
    RunningStore files;
    std::string error;
    bool loaded;
    bool compactAtOnce = true;
  };

  std::string Read(const std::string& name) {
    std::ifstream in(dir_ / name, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }
  void Write(const std::string& name, const std::string& text) {
    std::ofstream(dir_ / name, std::ios::binary | std::ios::trunc) << text;
  }

  fs::path dir_;
  pbr::yang::Context ctx_;
  SchemaInfo info_;
};

constexpr uint64_t kNever = 1ull << 40;

TEST_F(RunningStoreTest, ARestartedServerHasEveryAnsweredCommit) {
  std::string expected;
  {
    Server s(ctx_.get(), dir_, kNever);
    ASSERT_TRUE(s.loaded) << s.error;
    s.Commit("/router/pbr{1}/rule/priority", "10");
    s.Commit("/router/pbr{2}/rule/priority", "20");
    s.Commit("/router/pbr{1}/rule/match/source/ipv4-address/mask/ip", "10.1.2.3/16");
    s.Commit("/router/pbr{2}", "", true);
    expected = s.store.RunningJson();
  }
  Server again(ctx_.get(), dir_, kNever);
  ASSERT_TRUE(again.loaded) << again.error;
  EXPECT_EQ(again.store.RunningJson(), expected);
  // Host bits and the chosen case survive as committed.
  EXPECT_NE(expected.find("10.1.2.3/16"), std::string::npos);
}

TEST_F(RunningStoreTest, ARecordTornByACrashIsDroppedAndTheRestKept) {
  std::string expected;
  {
    Server s(ctx_.get(), dir_, kNever);
    s.Commit("/router/pbr{1}/rule/priority", "10");
    expected = s.store.RunningJson();
    s.Commit("/router/pbr{1}/rule/priority", "11");
  }
  const std::string journal = Read("running.journal");
  Write("running.journal", journal.substr(0, journal.size() - 3));
  {
    Server s(ctx_.get(), dir_, kNever);
    ASSERT_TRUE(s.loaded) << s.error;
    EXPECT_EQ(s.store.RunningJson(), expected);
    // Later commits go after the last whole record.
    s.Commit("/router/pbr{1}/rule/priority", "12");
  }
  Server s(ctx_.get(), dir_, kNever);
  ASSERT_TRUE(s.loaded) << s.error;
  EXPECT_NE(s.store.RunningJson().find("\"priority\": 12"), std::string::npos);
}

TEST_F(RunningStoreTest, CompactionEmptiesTheJournalAndACrashBeforeThatLosesNothing) {
  {
    Server s(ctx_.get(), dir_, 1);
    s.Commit("/router/pbr{1}/rule/priority", "9");
    EXPECT_EQ(Read("running.journal"), "");
    EXPECT_NE(Read("running.json").find("\"priority\": 9"), std::string::npos);
    // A replace is written as it came, without printing the configuration again.
    const std::string replaced = R"({"pbr:router":{"pbr":[{"id":3,"rule":{"priority":30}}]}})";
    s.Replace(replaced);
    EXPECT_EQ(Read("running.json"), replaced);
  }
  std::string journal, expected;
  {
    Server s(ctx_.get(), dir_, kNever);
    s.Commit("/router/pbr{1}/rule/priority", "10");
    s.Commit("/router/pbr{2}/rule/priority", "20");
    s.Commit("/router/pbr{1}/rule/priority", "11");
    s.Commit("/router/pbr{2}", "", true);
    journal = Read("running.journal");
    expected = s.store.RunningJson();
  }
  // What a compaction writes, with the journal it had not emptied yet.
  Write("running.json", expected);
  Write("running.journal", journal);
  Server s(ctx_.get(), dir_, kNever);
  ASSERT_TRUE(s.loaded) << s.error;
  EXPECT_EQ(s.store.RunningJson(), expected);
}

TEST_F(RunningStoreTest, AReplaceLoadAndTheCommitsAfterItSurviveARestartAndACompaction) {
  const std::string replaced = R"({"pbr:router":{"pbr":[{"id":3,"rule":{"priority":30}}]}})";
  std::string expected;
  {
    // Replayed from the journal.
    Server s(ctx_.get(), dir_, kNever);
    s.compactAtOnce = false;
    s.Commit("/router/pbr{1}/rule/priority", "10");
    s.Replace(replaced);
    expected = s.store.RunningJson();
  }
  {
    Server s(ctx_.get(), dir_, kNever);
    ASSERT_TRUE(s.loaded) << s.error;
    EXPECT_EQ(s.store.RunningJson(), expected);
  }
  {
    // The compaction due after a replace comes once a later commit is in the journal too:
    // it writes both, not the replace alone.
    Server s(ctx_.get(), dir_, kNever);
    s.compactAtOnce = false;
    s.Replace(replaced);
    s.Commit("/router/pbr{4}/rule/priority", "40");
    ASSERT_TRUE(s.files.CompactionDue());
    ASSERT_TRUE(s.files.Compact(s.store, &s.error)) << s.error;
    expected = s.store.RunningJson();
  }
  Server s(ctx_.get(), dir_, kNever);
  ASSERT_TRUE(s.loaded) << s.error;
  EXPECT_EQ(s.store.RunningJson(), expected);
  EXPECT_NE(expected.find("\"priority\": 40"), std::string::npos);
  EXPECT_EQ(expected.find("\"priority\": 10"), std::string::npos);
}

TEST_F(RunningStoreTest, AnInvalidStoredConfigurationStopsTheLoadAndIsKept) {
  Write("running.json", R"({"pbr:router":{"pbr":[{"id":1}]}})");
  Server s(ctx_.get(), dir_, kNever);
  EXPECT_FALSE(s.loaded);
  EXPECT_NE(s.error.find("priority"), std::string::npos) << s.error;
  EXPECT_EQ(Read("running.json"), R"({"pbr:router":{"pbr":[{"id":1}]}})");
}

}  // namespace
}  // namespace pbr::mgmt
