// Common fixture of the daemon's tests: fresh fakes for every test.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/support/fake_middleware.h"

// Resets in the constructor, before the derived fixture's members are built.
class DaemonTest : public ::testing::Test {
 protected:
  DaemonTest() { fake::ResetMiddleware(); }
};

// `text` as a regular expression that matches exactly it.
inline std::string Literal(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos) out += '\\';
    out += c;
  }
  return out;
}

// Death tests fork: the child echoes its journal (faults, backtraces) to stderr, where the
// parent matches it.
#define EXPECT_FATAL(statement, regex)  \
  EXPECT_EXIT(                          \
      {                                 \
        fake::Middleware().echo = true; \
        statement;                      \
      },                                \
      ::testing::ExitedWithCode(1), regex)
