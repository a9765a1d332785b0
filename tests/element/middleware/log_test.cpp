// zlog on the element's log: categories, per-category trace levels and the records' fields.
#include <gtest/gtest.h>

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
  static bool Enabled(const char* category, int level) {
    return zlog_level_enabled(vqmw_trace_register_category(category), level);
  }

  pbrtest::ElementEnv env_;
  vqmw_t* mw_ = nullptr;
};

TEST_F(LogTest, TraceEntriesEnableLevelsPerCategoryAndMalformedOnesAreReportedAndSkipped) {
  // Registered before the configuration is read: it applies all the same.
  zlog_category_t* early = vqmw_trace_register_category("registered-early");
  Start("*=10, quiet=100,pbr-app=loud,=3,pbr-app_cache=20,pbr-app=-1,registered-early=40");
  struct Case {
    const char* category;
    int level;
    bool enabled;
  };
  for (const Case& c :
       {Case{"anything", 10, true}, Case{"anything", 9, false}, Case{"quiet", 10, false},
        Case{"quiet", 100, true}, Case{"pbr-app", 9, false}, Case{"pbr-app_cache", 10, false},
        Case{"pbr-app_cache", 20, true}}) {
    EXPECT_EQ(Enabled(c.category, c.level), c.enabled) << c.category << " " << c.level;
  }
  EXPECT_TRUE(zlog_level_enabled(early, 40));
  EXPECT_FALSE(zlog_level_enabled(early, 10));
  EXPECT_FALSE(zlog_level_enabled(nullptr, 10));
  const std::string log = env_.Log();
  for (const char* bad : {"'pbr-app=loud'", "'=3'", "'pbr-app=-1'"}) {
    EXPECT_NE(log.find(std::string("ignored trace entry ") + bad), std::string::npos) << log;
  }
}

TEST_F(LogTest, DisabledLevelsWriteAndFormatNothingAndEverythingIsOffByDefault) {
  Start("pbr-app=10");
  zlog_category_t* app = vqmw_trace_register_category("pbr-app");
  zlog_category_t* cache = vqmw_trace_register_category("pbr-app_cache");
  // Formatting any of these records would read through this pointer and fault.
  const char* poisoned = reinterpret_cast<const char*>(16);
  zlog(app, "f", 1, "g", 1, 1, 9, "%s", poisoned);
  zlog(cache, "f", 1, "g", 1, 1, 10, "%s", poisoned);
  zlog(nullptr, "f", 1, "g", 1, 1, 10, "%s", poisoned);
  EXPECT_EQ(env_.Log(), "");
  env_.Set("PBR_ELEMENT_TRACE", "");
  vqmw_finish(&mw_);
  Start("");
  EXPECT_FALSE(Enabled("pbr-app", 1000));
}

TEST_F(LogTest, RecordCarriesCategoryLevelFileLineAndFunctionAndIsWrittenWhole) {
  Start("pbr-app_cache=10");
  zlog_category_t* cache = vqmw_trace_register_category("pbr-app_cache");
  EXPECT_EQ(cache, vqmw_trace_register_category("pbr-app_cache"));
  // File and function are cut at their lengths, not at a NUL.
  zlog(cache, "cache.cppTAIL", 9, "HandlePbrEntryTAIL", 14, 42, 10, "rule %u at %s\n", 7u,
       "10.1.0.0");
  const std::string log = env_.Log();
  EXPECT_NE(log.find(" trace pbr-app_cache[10] cache.cpp:42 HandlePbrEntry: rule 7 at 10.1.0.0\n"),
            std::string::npos)
      << log;
  EXPECT_EQ(log.find("TAIL"), std::string::npos);
  EXPECT_EQ(log.find("\n\n"), std::string::npos);

  // zlog's error level maps onto the log's error level; long records are not cut.
  const std::string text = std::string(5000, 'x') + "END";
  zlog(cache, "cache.cpp", 9, "HandlePbrEntry", 14, 42, 100, "%s", text.c_str());
  EXPECT_NE(
      env_.Log().find(" error pbr-app_cache[100] cache.cpp:42 HandlePbrEntry: " + text + "\n"),
      std::string::npos);
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

}  // namespace
