#include "tests/support/fake_framework.h"

#include <stdexcept>

#include "tests/support/fake_middleware.h"

namespace fake {
namespace {

Binding last;
bool failNext = false;

}  // namespace

Binding& LastBinding() {
  return last;
}
void FailNextBinding() {
  failNext = true;
}

}  // namespace fake

namespace vqconfd {

BaseHandler::~BaseHandler() {
  fake::Journal("~BaseHandler");
}
void BaseHandler::ConfdConnected(ELEM_CONFD_PHASE_ET) {}
void BaseHandler::ConfdDisconnected() {}

const std::vector<SubscriptionPoint>& ConfigHandler::GetSubscriptionPoints() const {
  return subscriptionPoints_;
}

DataHandler::DataHandler(bool f1, bool f2, bool f3, bool f4, bool f5, bool f6, bool f7)
    : flags_{f1, f2, f3, f4, f5, f6, f7} {}
void DataHandler::TransactionInit(confd_trans_ctx*) {}
void DataHandler::TransactionFinish(confd_trans_ctx*) {}
std::vector<DataHandler::Callpoint*>& DataHandler::GetCallpoints() {
  return callpoints_;
}

DataHandler::Callpoint::~Callpoint() {
  fake::Journal("~Callpoint");
}
int DataHandler::Callpoint::ExistsOptionalCallback(confd_trans_ctx*, confd_hkeypath*) {
  return CONFD_ERR;
}
int DataHandler::Callpoint::GetNextCallback(confd_trans_ctx*, confd_hkeypath*, long) {
  return CONFD_ERR;
}
int DataHandler::Callpoint::GetElemCallback(confd_trans_ctx*, confd_hkeypath*) {
  return CONFD_ERR;
}
int DataHandler::Callpoint::SetElemCallback(confd_trans_ctx*, confd_hkeypath*, confd_value*) {
  return CONFD_ERR;
}
int DataHandler::Callpoint::CreateCallback(confd_trans_ctx*, confd_hkeypath*) {
  return CONFD_ERR;
}
int DataHandler::Callpoint::RemoveCallback(confd_trans_ctx*, confd_hkeypath*) {
  return CONFD_ERR;
}
int DataHandler::Callpoint::NumInstancesCallback(confd_trans_ctx*, confd_hkeypath*) {
  return CONFD_ERR;
}
int DataHandler::Callpoint::GetObjectCallback(confd_trans_ctx*, confd_hkeypath*) {
  return CONFD_ERR;
}
int DataHandler::Callpoint::GetNextObjectCallback(confd_trans_ctx*, confd_hkeypath*, long) {
  return CONFD_ERR;
}
int DataHandler::Callpoint::FindNextObjectCallback(confd_trans_ctx*, confd_hkeypath*,
                                                   confd_find_next_type, confd_value*, int) {
  return CONFD_ERR;
}
int DataHandler::Callpoint::WriteAllCallback(confd_trans_ctx*, confd_hkeypath*) {
  return CONFD_ERR;
}

struct AppInterface::Impl {};

AppInterface::AppInterface(vqmw_t* mw, zlog_category_t* category, const char* appName,
                           const std::vector<ConfigHandler*>& configHandlers,
                           const std::vector<ActionHandler*>& actionHandlers,
                           const std::vector<DataHandler*>& dataHandlers, ELEM_CONFD_PHASE_ET phase,
                           int options) {
  if (fake::failNext) {
    fake::failNext = false;
    throw std::runtime_error("binding failed");
  }
  fake::last =
      fake::Binding{mw,    category, appName, configHandlers, actionHandlers.size(), dataHandlers,
                    phase, options,  true};
  fake::Journal("AppInterface");
}

AppInterface::~AppInterface() {
  fake::last.alive = false;
  fake::Journal("~AppInterface");
}

}  // namespace vqconfd
