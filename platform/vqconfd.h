// Management framework contract: the handler base classes the daemon derives from, the
// subscription record and the binding object. The framework calls every handler from inside
// vqmw_loop_while_timeout, on that thread, one call at a time. For each configuration handler:
// ReadInitialConfig then ApplyInitialConfig at every attachment, before any commit; for each
// commit touching a subscription path: StartCommit, the point's callback once per changed node
// (ConfD's diff order), ApplyCommitConfig.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "platform/confd_lib.h"
#include "platform/vqmw.h"

namespace vqconfd {

enum ELEM_CONFD_PHASE_ET {
  ELEM_CONFD_PHASE_0 = 0,  // connected, schema loaded
  ELEM_CONFD_PHASE_1 = 1,  // configuration readable
  ELEM_CONFD_PHASE_2 = 2,  // running: configuration and operational data served
};

using IterateCallback =
    std::function<confd_iter_ret(confd_hkeypath*, confd_iter_op, confd_value*, confd_value*)>;

// One CDB subscription of a configuration handler.
struct SubscriptionPoint {
  int32_t priority;  // delivery order among subscribers of one commit: lower first
  uint32_t ns;       // namespace hash of the schema that holds `path`
  const char* path;  // must live for the whole run
  int32_t flags;     // reserved, 0
  IterateCallback callback;
};

class BaseHandler {
 public:
  BaseHandler() = default;
  virtual ~BaseHandler();
  virtual void ConfdConnected(ELEM_CONFD_PHASE_ET phase);
  virtual void ConfdDisconnected();
};

class ConfigHandler : public BaseHandler {
 public:
  virtual void ReadInitialConfig(int cdbSocket) = 0;
  virtual void ApplyInitialConfig() = 0;
  virtual void StartCommit() = 0;
  virtual void ApplyCommitConfig() = 0;
  virtual const std::vector<SubscriptionPoint>& GetSubscriptionPoints() const;

 protected:
  std::vector<SubscriptionPoint> subscriptionPoints_;
};

class DataHandler : public BaseHandler {
 public:
  class Callpoint;

  // The flags are the framework's registration options; see the element's documentation.
  DataHandler(bool f1, bool f2, bool f3, bool f4, bool f5, bool f6, bool f7);
  virtual void TransactionInit(confd_trans_ctx* tctx);
  virtual void TransactionFinish(confd_trans_ctx* tctx);
  virtual std::vector<Callpoint*>& GetCallpoints();

 protected:
  bool flags_[7];
  std::vector<Callpoint*> callpoints_;
};

// One data callpoint. Every default answers CONFD_ERR ("not served").
class DataHandler::Callpoint {
 public:
  virtual ~Callpoint();
  virtual int ExistsOptionalCallback(confd_trans_ctx* tctx, confd_hkeypath* kp);
  virtual int GetNextCallback(confd_trans_ctx* tctx, confd_hkeypath* kp, long next);
  virtual int GetElemCallback(confd_trans_ctx* tctx, confd_hkeypath* kp);
  virtual int SetElemCallback(confd_trans_ctx* tctx, confd_hkeypath* kp, confd_value* value);
  virtual int CreateCallback(confd_trans_ctx* tctx, confd_hkeypath* kp);
  virtual int RemoveCallback(confd_trans_ctx* tctx, confd_hkeypath* kp);
  virtual int NumInstancesCallback(confd_trans_ctx* tctx, confd_hkeypath* kp);
  virtual int GetObjectCallback(confd_trans_ctx* tctx, confd_hkeypath* kp);
  virtual int GetNextObjectCallback(confd_trans_ctx* tctx, confd_hkeypath* kp, long next);
  virtual int FindNextObjectCallback(confd_trans_ctx* tctx, confd_hkeypath* kp,
                                     confd_find_next_type type, confd_value* keys, int nkeys);
  virtual int WriteAllCallback(confd_trans_ctx* tctx, confd_hkeypath* kp);
  virtual const char* GetCallpointName() = 0;
};

class ActionHandler : public BaseHandler {};

// Binds the handlers to the management server. It copies the handler pointers it keeps and
// owns none of the handlers, which must outlive it.
class AppInterface {
 public:
  AppInterface(vqmw_t* mw, zlog_category_t* category, const char* appName,
               const std::vector<ConfigHandler*>& configHandlers,
               const std::vector<ActionHandler*>& actionHandlers,
               const std::vector<DataHandler*>& dataHandlers, ELEM_CONFD_PHASE_ET phase,
               int options);
  ~AppInterface();
  AppInterface(const AppInterface&) = delete;
  AppInterface& operator=(const AppInterface&) = delete;

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace vqconfd
