// NETCONF event notifications (RFC 5277): create-subscription on the NETCONF stream, a
// netconf-config-change (RFC 6470) for every commit, whoever made it, and netconf-session-start
// and netconf-session-end for every NETCONF session. Commits are announced on the server's loop
// and sessions on their own threads, which only queue them; each subscribed session's own thread
// builds and sends its notifications, so a slow subscriber holds up nobody but itself.
#pragma once

#include <libnetconf2/messages_server.h>
#include <libnetconf2/session_server.h>
#include <libyang/libyang.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <variant>

#include "element/mgmt/commit_notice.h"

namespace pbr::mgmt {

// A NETCONF session that started or ended.
struct SessionNotice {
  bool ended = false;
  uint32_t id = 0;
  std::string user;
  std::string host;  // empty: not an IP peer
  timespec time{};
  // Ended only: closed, killed, dropped, timeout or other; and who killed it.
  std::string reason;
  uint32_t killedBy = 0;
};

class NetconfNotifications : public CommitObserver {
 public:
  // Notices a subscriber may fall behind by; older ones are dropped (and logged) beyond it.
  static constexpr size_t kQueueLimit = 4096;

  bool Listening() const override { return subscribed_ > 0; }
  void Committed(CommitNotice notice) override;

  // Answers create-subscription of `session` (its own thread).
  nc_server_reply* Subscribe(ly_ctx* ctx, nc_session* session, const lyd_node* rpc);
  // Whether `id` has a subscription.
  bool Subscribed(uint32_t id);
  // Sends what is queued for the session (its own thread); how many went out.
  uint32_t SendQueued(ly_ctx* ctx, nc_session* session);
  // Forgets the session's subscription, when it ends.
  void Unsubscribe(uint32_t id);
  // Tells every subscriber of a session that started or ended (any thread).
  void SessionChanged(SessionNotice notice);

 private:
  using Notice =
      std::variant<std::shared_ptr<const CommitNotice>, std::shared_ptr<const SessionNotice>>;
  void Queue(const Notice& notice);

  struct Subscriber {
    std::string xpath;  // selects what is sent; empty: everything
    std::deque<Notice> queue;
    uint64_t dropped = 0;
  };
  std::mutex mutex_;
  std::map<uint32_t, Subscriber> subscribers_;
  std::atomic<int> subscribed_{0};
};

// The netconf-config-change notification of a commit, in `ctx` (which has
// ietf-netconf-notifications); null when it cannot be built.
lyd_node* ConfigChangeNotification(const ly_ctx* ctx, const CommitNotice& notice);
// The netconf-session-start or netconf-session-end notification, likewise.
lyd_node* SessionNotification(const ly_ctx* ctx, const SessionNotice& notice);

}  // namespace pbr::mgmt
