// Process registration: one live process per application name.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "platform/vqmw.h"
#include "tests/element/middleware/element_env.h"

namespace {

// Runs vqmw_init(name) in a child process; true when the child could register.
bool ChildCanRegister(const char* name) {
  pid_t child = fork();
  if (child == 0) {
    vqmw_t* mw = vqmw_init(name);
    _exit(mw != nullptr ? 0 : 1);
  }
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST(Registration, SecondRegistrationUnderTheSameNameFailsWhileTheFirstLives) {
  pbrtest::ElementEnv env;
  vqmw_t* first = vqmw_init("pbr-app");
  ASSERT_NE(first, nullptr);

  EXPECT_EQ(vqmw_init("pbr-app"), nullptr);
  EXPECT_FALSE(ChildCanRegister("pbr-app"));
  EXPECT_NE(env.Log().find("pbr-app.lock is held by pid " + std::to_string(getpid())),
            std::string::npos)
      << env.Log();
  EXPECT_EQ(pbrtest::ElementEnv::Read(env.RuntimeDir() + "/pbr-app.lock"),
            std::to_string(getpid()) + "\n");

  // Other names are independent.
  vqmw_t* other = vqmw_init("pbr-other");
  EXPECT_NE(other, nullptr);
  vqmw_finish(&other);

  vqmw_finish(&first);
  EXPECT_EQ(first, nullptr);
  EXPECT_TRUE(ChildCanRegister("pbr-app"));
  vqmw_t* again = vqmw_init("pbr-app");
  EXPECT_NE(again, nullptr);
  vqmw_finish(&again);
}

TEST(Registration, NamesThatCannotBeLockFilesAndAnUnusableRuntimeDirAreRefused) {
  pbrtest::ElementEnv env;
  EXPECT_EQ(vqmw_init(nullptr), nullptr);
  EXPECT_EQ(vqmw_init(""), nullptr);
  EXPECT_EQ(vqmw_init("../escape"), nullptr);
  EXPECT_NE(env.Log().find("invalid application name '../escape'"), std::string::npos);
  vqmw_finish(nullptr);  // harmless
  env.Set("PBR_ELEMENT_RUNTIME_DIR", "/proc/pbr-element-cannot-exist");
  EXPECT_EQ(vqmw_init("pbr-app"), nullptr);
  EXPECT_NE(env.Log().find("cannot open the lock"), std::string::npos);
}

}  // namespace
