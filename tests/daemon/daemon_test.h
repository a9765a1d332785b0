// Common fixture of the daemon's tests: fresh fakes for every test.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/fake_confd.h"
#include "tests/support/fake_middleware.h"

// Resets in the constructor, before the derived fixture's members are built.
class DaemonTest : public ::testing::Test {
 protected:
  DaemonTest() {
    fake::ResetMiddleware();
    fake::ResetCdb();
  }
};

// Death tests fork: the child echoes its journal (faults, backtraces) to stderr, where the
// parent matches it.
#define EXPECT_FATAL(statement, regex)  \
  EXPECT_EXIT(                          \
      {                                 \
        fake::Middleware().echo = true; \
        statement;                      \
      },                                \
      ::testing::ExitedWithCode(1), regex)
