// Documents read for load: what is refused before anything is sent.
#include "element/cli/document.h"

#include <gtest/gtest.h>

#include <fstream>

#include "tests/element/middleware/element_env.h"

namespace pbr::cli {
namespace {

class Document : public ::testing::Test {
 protected:
  std::string Write(const std::string& name, const std::string& text) {
    const std::string path = (env_.root() / name).string();
    std::ofstream(path, std::ios::binary) << text;
    return path;
  }
  pbrtest::ElementEnv env_;
};

TEST_F(Document, WellFormedJsonAndAnyXmlAreReadWhole) {
  std::string text, error;
  const std::string json = R"({"pbr:router": {"pbr": [{"id": 1, "rule": {"priority": 1}}]}})";
  ASSERT_TRUE(ReadDocument(Write("a.json", json), mgmt::Load::JSON, &text, &error)) << error;
  EXPECT_EQ(text, json);
  // XML is the server's to judge.
  text.clear();
  ASSERT_TRUE(ReadDocument(Write("a.xml", "<router"), mgmt::Load::XML, &text, &error)) << error;
  EXPECT_EQ(text, "<router");
  // A byte order mark, as some editors write, is no part of the content.
  for (const auto format : {mgmt::Load::JSON, mgmt::Load::XML}) {
    text.clear();
    ASSERT_TRUE(ReadDocument(Write("bom", "\xef\xbb\xbf" + json), format, &text, &error)) << error;
    EXPECT_EQ(text, json);
  }
}

TEST_F(Document, MalformedJsonAndUnreadableFilesAreRefusedWithWhereAndWhy) {
  std::string text, error;
  const std::string truncated = Write("t.json", "{\"pbr:router\": ");
  EXPECT_FALSE(ReadDocument(truncated, mgmt::Load::JSON, &text, &error));
  EXPECT_TRUE(error.starts_with(truncated + ":1:16: malformed JSON: ")) << error;
  const std::string trailing = Write("c.json", "{\"pbr:router\": {}\n,}");
  EXPECT_FALSE(ReadDocument(trailing, mgmt::Load::JSON, &text, &error));
  EXPECT_TRUE(error.starts_with(trailing + ":2:2: malformed JSON: ")) << error;

  const std::string missing = (env_.root() / "missing.json").string();
  EXPECT_FALSE(ReadDocument(missing, mgmt::Load::JSON, &text, &error));
  EXPECT_EQ(error, missing + ": cannot read: No such file or directory");
  EXPECT_FALSE(ReadDocument(env_.root().string(), mgmt::Load::XML, &text, &error));
  EXPECT_EQ(error, env_.root().string() + ": cannot read: Is a directory");
}

}  // namespace
}  // namespace pbr::cli
