// zlog on the element's log: categories, per-category trace levels and the records' fields.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "element/middleware/log.h"
#include "platform/vqmw.h"
#include "platform/zlog.h"
#include "tests/element/middleware/element_env.h"

namespace {

// A process configured with `trace` (PBR_ELEMENT_TRACE), registered as the daemon.
class LogTest : public ::testing::Test {
 protected:
  void Start(const std::string& trace) {
    env_.Set("PBR_ELEMENT_TRACE", trace);
    mw_ = vqmw_init("pbr-app");
    ASSERT_NE(mw_, nullptr);
  }
  void TearDown() override { vqmw_finish(&mw_); }

  // As zlog's macros call it.
  static void Record(zlog_category_t* c, int level, const char* text) {
    zlog(c, "cache.cpp", 9, "HandlePbrEntry", 14, 42, level, "%s", text);
  }

  pbrtest::ElementEnv env_;
  vqmw_t* mw_ = nullptr;
};

TEST_F(LogTest, EverythingIsOffByDefault) {
  Start("");
  zlog_category_t* app = vqmw_trace_register_category("pbr-app");
  EXPECT_FALSE(zlog_level_enabled(app, 10));
  EXPECT_FALSE(zlog_level_enabled(app, 1000));
  Record(app, 10, "hidden");
  EXPECT_EQ(env_.Log().find("hidden"), std::string::npos);
}

TEST_F(LogTest, DisabledLevelWritesNothingAndFormatsNothing) {
  Start("pbr-app=10");
  zlog_category_t* app = vqmw_trace_register_category("pbr-app");
  zlog_category_t* cache = vqmw_trace_register_category("pbr-app_cache");
  EXPECT_FALSE(zlog_level_enabled(app, 9));
  EXPECT_FALSE(zlog_level_enabled(cache, 10));
  EXPECT_FALSE(zlog_level_enabled(nullptr, 10));

  // Formatting either record would read through this pointer and fault.
  const char* poisoned = reinterpret_cast<const char*>(16);
  zlog(app, "f", 1, "g", 1, 1, 9, "%s", poisoned);
  zlog(cache, "f", 1, "g", 1, 1, 10, "%s", poisoned);
  zlog(nullptr, "f", 1, "g", 1, 1, 10, "%s", poisoned);
  EXPECT_EQ(env_.Log(), "");
}

TEST_F(LogTest, RecordCarriesCategoryLevelFileLineAndFunction) {
  Start("pbr-app_cache=10");
  zlog_category_t* cache = vqmw_trace_register_category("pbr-app_cache");
  EXPECT_EQ(cache, vqmw_trace_register_category("pbr-app_cache"));
  ASSERT_TRUE(zlog_level_enabled(cache, 10));

  // File and function are cut at their lengths, not at a NUL.
  zlog(cache, "cache.cppTAIL", 9, "HandlePbrEntryTAIL", 14, 42, 10, "rule %u at %s\n", 7u,
       "10.1.0.0");
  std::string log = env_.Log();
  EXPECT_NE(log.find(" trace pbr-app_cache[10] cache.cpp:42 HandlePbrEntry: rule 7 at 10.1.0.0\n"),
            std::string::npos)
      << log;
  EXPECT_EQ(log.find("TAIL"), std::string::npos);
  EXPECT_EQ(log.find("\n\n"), std::string::npos);

  // zlog's error level maps onto the log's error level.
  Record(cache, 100, "went wrong");
  EXPECT_NE(env_.Log().find(" error pbr-app_cache[100] cache.cpp:42"), std::string::npos);
}

TEST_F(LogTest, LongRecordsAreWrittenWhole) {
  Start("pbr-app=0");
  std::string text(5000, 'x');
  text += "END";
  Record(vqmw_trace_register_category("pbr-app"), 10, text.c_str());
  EXPECT_NE(env_.Log().find(text + "\n"), std::string::npos);
}

TEST_F(LogTest, WildcardEnablesEveryCategoryExceptThoseNamed) {
  Start("*=10, quiet=100");
  EXPECT_TRUE(zlog_level_enabled(vqmw_trace_register_category("anything"), 10));
  EXPECT_FALSE(zlog_level_enabled(vqmw_trace_register_category("quiet"), 10));
  EXPECT_TRUE(zlog_level_enabled(vqmw_trace_register_category("quiet"), 100));
}

TEST_F(LogTest, RegistrationAppliesTheConfigurationToEarlierCategories) {
  zlog_category_t* early = vqmw_trace_register_category("registered-early");
  env_.Set("PBR_ELEMENT_TRACE", "");
  Start("registered-early=10");
  EXPECT_TRUE(zlog_level_enabled(early, 10));
}

TEST_F(LogTest, TraceLevelsChangeAtRunTimeAndTheWildcardResetsEveryCategory) {
  Start("pbr-app=10");
  zlog_category_t* app = vqmw_trace_register_category("pbr-app");
  zlog_category_t* cache = vqmw_trace_register_category("pbr-app_cache");
  std::string error;
  ASSERT_TRUE(vqmw::ChangeTrace("pbr-app_cache=20", &error)) << error;
  EXPECT_TRUE(zlog_level_enabled(app, 10));
  EXPECT_TRUE(zlog_level_enabled(cache, 20));
  const std::string levels = vqmw::TraceText();
  EXPECT_EQ(levels.find("*=off,"), 0u) << levels;
  EXPECT_NE(levels.find(",pbr-app=10,pbr-app_cache=20"), std::string::npos) << levels;

  EXPECT_FALSE(vqmw::ChangeTrace("pbr-app=loud", &error));
  EXPECT_NE(error.find("pbr-app=loud"), std::string::npos);
  EXPECT_TRUE(zlog_level_enabled(app, 10));

  ASSERT_TRUE(vqmw::ChangeTrace("*=off", &error));
  EXPECT_FALSE(zlog_level_enabled(app, 1000));
  EXPECT_FALSE(zlog_level_enabled(cache, 1000));
  ASSERT_TRUE(vqmw::ChangeTrace("*=0", &error));
  EXPECT_TRUE(zlog_level_enabled(cache, 0));
}

// Records name the source file, not the directory it was built in.
TEST_F(LogTest, RecordsAndFaultsNameFilesWithoutTheirDirectories) {
  Start("pbr-app=0");
  zlog(vqmw_trace_register_category("pbr-app"), "/build/src/config/cache.cpp", 27, "F", 1, 3, 10,
       "x");
  vqmw_gen_fault(0, "F", "/build/src/app/main.cpp", 19, "m");
  EXPECT_NE(env_.Log().find("] cache.cpp:3 F: x"), std::string::npos) << env_.Log();
  EXPECT_NE(env_.Faults().find("\"file\":\"main.cpp\""), std::string::npos) << env_.Faults();
  EXPECT_EQ(env_.Log().find("/build/"), std::string::npos);
}

TEST_F(LogTest, MalformedTraceEntriesAreReportedAndSkipped) {
  Start("pbr-app=loud,=3,pbr-app_cache=10,pbr-app=-1");
  std::string log = env_.Log();
  EXPECT_NE(log.find("ignored trace entry 'pbr-app=loud'"), std::string::npos) << log;
  EXPECT_NE(log.find("ignored trace entry '=3'"), std::string::npos);
  EXPECT_NE(log.find("ignored trace entry 'pbr-app=-1'"), std::string::npos);
  EXPECT_FALSE(zlog_level_enabled(vqmw_trace_register_category("pbr-app"), 10));
  EXPECT_TRUE(zlog_level_enabled(vqmw_trace_register_category("pbr-app_cache"), 10));
}

}  // namespace
