// The handler base classes' defaults: nothing to do on connection changes, no subscriptions,
// no callpoints, and CONFD_ERR ("not served") for every data operation not overridden.
#include "platform/vqconfd.h"

namespace vqconfd {

BaseHandler::~BaseHandler() = default;
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

DataHandler::Callpoint::~Callpoint() = default;
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

}  // namespace vqconfd
