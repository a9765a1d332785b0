// The choice of backend behind PbrClient::Build.
#include <gtest/gtest.h>

#include <memory>

#include "element/pbr/client_factory.h"
#include "platform/pbr_client.h"
#include "tests/element/middleware/element_env.h"

namespace {

TEST(ClientFactory, MemoryIsTheDefaultAndUnknownBackendsNameTheValidOnes) {
  pbrtest::ElementEnv env;
  vqmw_t* mw = vqmw_init("pbr-app");
  std::unique_ptr<pbr::PbrClient> by_default(pbr::PbrClient::Build(mw, nullptr));
  EXPECT_NE(by_default, nullptr);
  std::string error;
  EXPECT_EQ(pbr::MakeClient(mw, nullptr, "fpga", &error), nullptr);
  EXPECT_EQ(error,
            "PBR_ELEMENT_BACKEND='fpga' names no backend; valid: memory, kernel, classifier");
  EXPECT_EQ(pbr::MakeClient(nullptr, nullptr, "memory", &error), nullptr);
  vqmw_finish(&mw);
}

TEST(ClientFactoryDeathTest, BuildEndsTheProcessWithAFaultWhenNoClientCanBeMade) {
  pbrtest::ElementEnv env;
  env.Set("PBR_ELEMENT_BACKEND", "fpga");
  vqmw_t* mw = vqmw_init("pbr-app");
  EXPECT_EXIT(pbr::PbrClient::Build(mw, nullptr), ::testing::ExitedWithCode(1),
              "PBR_ELEMENT_BACKEND='fpga' names no backend; valid: memory, kernel, classifier");
  EXPECT_NE(env.Faults().find("\"severity\":1"), std::string::npos);
  EXPECT_NE(env.Faults().find("names no backend"), std::string::npos);
  vqmw_finish(&mw);
}

}  // namespace
