// The application object and the process entry. The entry's exit paths run in child processes,
// where the fakes echo their journal to stderr for the parent to match.
#include "app/app.h"

#include <stdexcept>

#include "app/main.h"
#include "tests/daemon/daemon_test.h"
#include "tests/support/fake_framework.h"
#include "tests/support/recording_client.h"

namespace pbr {
namespace {

using ::testing::ElementsAre;

class AppTest : public DaemonTest {
 protected:
  zlog_category_t* category = vqmw_trace_register_category("pbr-app");
  vqmw_t* mw = vqmw_init("pbr-app");
  fake::RecordingClient client;
  ConfigCache cache;
  Status status{category, &cache};
};

TEST_F(AppTest, BindsOneConfigurationHandlerNoActionHandlerAndTheStatusHandler) {
  {
    App app(mw, category, &client, &status, &cache);
    const fake::Binding& binding = fake::LastBinding();
    EXPECT_TRUE(binding.alive);
    EXPECT_EQ(binding.mw, mw);
    EXPECT_EQ(binding.category, category);
    EXPECT_EQ(binding.appName, "pbr-app");
    ASSERT_EQ(binding.configHandlers.size(), 1u);
    EXPECT_NE(dynamic_cast<ConfigHandler*>(binding.configHandlers[0]), nullptr);
    EXPECT_EQ(binding.actionHandlers, 0u);
    EXPECT_THAT(binding.dataHandlers, ElementsAre(&status));
    EXPECT_EQ(binding.phase, 2);
    EXPECT_EQ(binding.options, 0);

    for (auto [loopResult, expected] : {std::pair{0, 0}, {-1, 1}, {5, 1}}) {
      fake::Middleware().loop = [r = loopResult] { return r; };
      EXPECT_EQ(app.Run(0), expected) << loopResult;
    }
    fake::Middleware().loop = []() -> int { throw std::runtime_error("boom"); };
    EXPECT_THROW(app.Run(0), std::runtime_error);
  }
  // The binding goes while its handlers still live; the status handler stays usable.
  EXPECT_FALSE(fake::LastBinding().alive);
  EXPECT_EQ(fake::Middleware().journal.back(), "~AppInterface holding 2");
  EXPECT_EQ(status.GetHwStatus(1), 0u);

  fake::FailNextBinding();
  EXPECT_THROW(App(mw, category, &client, &status, &cache), std::runtime_error);
}

// The process entry, run in a child that echoes its journal.
class ProcessEntryTest : public DaemonTest {
 protected:
  static void Run(std::function<int()> loop, bool initFails = false) {
    fake::Middleware().echo = true;
    fake::Middleware().loop = std::move(loop);
    fake::Middleware().initFails = initFails;
    exit(RunProcess());
  }
};

constexpr const char* kTearDown = "\\[journal\\] finish\n\\[journal\\] ~AppInterface holding 2\n$";

TEST_F(ProcessEntryTest, ExitPathsReportAsTheFaultManagementExpects) {
  EXPECT_EXIT(Run([] { return 0; }, true), ::testing::ExitedWithCode(1),
              "^\\[journal\\] init pbr-app\n\\[journal\\] backtrace\n\\[journal\\] fault "
              "severity=1 func=main file=main.cpp line=19 message=\\[\\]\n$");
  EXPECT_EXIT(Run([] { return 0; }), ::testing::ExitedWithCode(0),
              std::string("^\\[journal\\] init pbr-app\n\\[journal\\] build client\n\\[journal\\] "
                          "register listener\n\\[journal\\] AppInterface\n\\[journal\\] loop\n") +
                  kTearDown);
  // A failed loop ends without a report.
  for (int result : {-1, 3}) {
    EXPECT_EXIT(Run([result] { return result; }), ::testing::ExitedWithCode(1),
                std::string("loop\n") + kTearDown);
  }
  EXPECT_EXIT(Run([]() -> int { throw std::logic_error("not shown"); }),
              ::testing::ExitedWithCode(1),
              std::string("loop\n\\[journal\\] fault severity=0 func=main file=main.cpp line=35 "
                          "message=\\[pbr-app error in vqmw loop\n\\]\n") +
                  kTearDown);
  EXPECT_EXIT(Run([]() -> int { throw 42; }), ::testing::ExitedWithCode(1),
              "loop\n\\[journal\\] backtrace\n\\[journal\\] fault severity=1 func=main "
              "file=main.cpp line=39 message=\\[pbr-app unknown error\n\\]\n$");
}

}  // namespace
}  // namespace pbr
