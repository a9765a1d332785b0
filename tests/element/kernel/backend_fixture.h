// A fixture for backend tests in the routed namespace test network: the network, a private
// element environment, a middleware loop, the backend under test and the statuses it reports.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/pbr_client.h"
#include "platform/vqmw.h"
#include "tests/element/kernel/testbed.h"
#include "tests/element/middleware/element_env.h"

namespace pbrtest {

class BackendTest : public ::testing::Test, public pbr::PbrStatusItf {
 protected:
  static constexpr uint32_t kNoReport = 99;

  explicit BackendTest(const std::string& trace) : env_(trace) {}

  void SetUp() override {
    bed_ = std::make_unique<TestBed>();
    if (!bed_->ok()) GTEST_SKIP() << bed_->error();
    mw_ = vqmw_init(("backend-test-" + std::to_string(getpid())).c_str());
    ASSERT_NE(mw_, nullptr);
  }

  void TearDown() override {
    client_.reset();
    if (HasFailure()) std::cerr << "backend log:\n" << env_.Log();
    if (mw_) vqmw_finish(&mw_);
    bed_.reset();
  }

  void StatusUpdateCb(const uint16_t& id, uint32_t status) override { statuses_[id] = status; }

  // The last status rule `id` reported, kNoReport before any.
  uint32_t Status(uint16_t id) const {
    auto it = statuses_.find(id);
    return it == statuses_.end() ? kNoReport : it->second;
  }

  // Makes `client` the backend under test, replacing (as a restart would) the previous one.
  template <typename Client>
  Client& Use(std::unique_ptr<Client> client) {
    client_.reset();
    Client& c = *client;
    settled_ = [&c] { return c.Settled(); };
    client_ = std::move(client);
    client_->RegisterStatusListener(this);
    return c;
  }

  // Runs the loop until `done` holds, checking every `tick`, for at most `limit`.
  bool RunUntil(const std::function<bool()>& done,
                std::chrono::milliseconds limit = std::chrono::seconds(10),
                std::chrono::milliseconds tick = std::chrono::milliseconds(2)) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    bool met = false;
    std::unique_ptr<vqmw::Source> timer;
    std::function<void()> check = [&] {
      met = done();
      if (met || std::chrono::steady_clock::now() > deadline)
        vqmw::Exit(mw_, 0);
      else
        timer = vqmw::StartTimer(mw_, tick, check);
    };
    timer = vqmw::StartTimer(mw_, std::chrono::microseconds(0), check);
    vqmw_loop_while_timeout(mw_, nullptr, static_cast<int>(limit.count()) + 1000);
    return met;
  }
  bool Settle() { return RunUntil(settled_); }
  bool AwaitStatus(uint16_t id, uint32_t status) {
    return RunUntil([&] { return Status(id) == status; });
  }

  ElementEnv env_;
  std::unique_ptr<TestBed> bed_;
  vqmw_t* mw_ = nullptr;
  std::unique_ptr<pbr::PbrClient> client_;
  std::function<bool()> settled_;
  std::map<uint16_t, uint32_t> statuses_;
};

}  // namespace pbrtest
