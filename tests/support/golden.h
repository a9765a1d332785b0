// Golden files: texts users read, kept beside the tests and compared byte for byte. Run a test
// with PBR_UPDATE_GOLDEN=1 to write the texts it produces instead, then review the diff.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace pbrtest {

inline std::string GoldenPath(const std::string& name) {
  return std::string(PBR_GOLDEN_DIR) + "/" + name;
}

inline std::string ReadGolden(const std::string& name) {
  std::ifstream in(GoldenPath(name), std::ios::binary);
  EXPECT_TRUE(in) << "missing golden file " << GoldenPath(name);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

inline void ExpectGolden(const std::string& name, const std::string& actual) {
  const char* update = std::getenv("PBR_UPDATE_GOLDEN");
  if (update && *update) {
    std::ofstream(GoldenPath(name), std::ios::binary) << actual;
    return;
  }
  EXPECT_EQ(actual, ReadGolden(name)) << "differs from " << GoldenPath(name);
}

}  // namespace pbrtest
