#include "element/mgmt/netconf_notifications.h"

#include <libnetconf2/netconf.h>

#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "element/mgmt/netconf_edit.h"
#include "element/middleware/log.h"

namespace pbr::mgmt {

namespace {

nc_server_reply* Refuse(const ly_ctx* ctx, NC_ERR tag, const std::string& message) {
  lyd_node* err = nc_err(ctx, tag, NC_ERR_TYPE_APP);
  nc_err_set_msg(err, message.c_str(), "en");
  return nc_server_reply_err(err);
}

// The XPath a create-subscription <filter> stands for: its select attribute, or its subtree's.
bool FilterXPath(ly_ctx* ctx, const lyd_node* filter, std::string* xpath, std::string* error) {
  for (const lyd_meta* m = filter->meta; m; m = m->next) {
    if (std::strcmp(m->name, "select") == 0) {
      *xpath = lyd_get_meta_value(m);
      return true;
    }
  }
  if (!SubtreeToXPath(ctx, filter, xpath, error, /*notification=*/true)) return false;
  // An empty subtree filter selects nothing; an XPath that matches nothing says as much.
  if (xpath->empty()) *xpath = "/ietf-netconf-notifications:netconf-config-change[false()]";
  return true;
}

}  // namespace

lyd_node* ConfigChangeNotification(const ly_ctx* ctx, const CommitNotice& notice) {
  const lys_module* mod = ly_ctx_get_module_implemented(ctx, "ietf-netconf-notifications");
  lyd_node* notif = nullptr;
  lyd_node* by = nullptr;
  if (!mod || lyd_new_inner(nullptr, mod, "netconf-config-change", 0, &notif) != LY_SUCCESS ||
      lyd_new_inner(notif, mod, "changed-by", 0, &by) != LY_SUCCESS) {
    lyd_free_all(notif);
    return nullptr;
  }
  bool ok = true;
  if (notice.byServer) {
    ok = lyd_new_term(by, mod, "server", nullptr, 0, nullptr) == LY_SUCCESS;
  } else {
    ok = lyd_new_term(by, mod, "username", notice.user.c_str(), 0, nullptr) == LY_SUCCESS &&
         lyd_new_term(by, mod, "session-id", std::to_string(notice.netconfSession).c_str(), 0,
                      nullptr) == LY_SUCCESS;
  }
  ok = ok && lyd_new_term(notif, mod, "datastore", "running", 0, nullptr) == LY_SUCCESS;
  for (const CommitNotice::Edit& edit : notice.edits) {
    lyd_node* entry = nullptr;
    if (!ok || lyd_new_list(notif, mod, "edit", 0, &entry) != LY_SUCCESS) {
      ok = false;
      break;
    }
    // A target this module cannot resolve is left out rather than losing the notification.
    lyd_new_term(entry, mod, "target", edit.target.c_str(), 0, nullptr);
    ok = lyd_new_term(entry, mod, "operation", edit.operation, 0, nullptr) == LY_SUCCESS;
  }
  if (!ok) {
    lyd_free_all(notif);
    return nullptr;
  }
  return notif;
}

lyd_node* SessionNotification(const ly_ctx* ctx, const SessionNotice& notice) {
  const lys_module* mod = ly_ctx_get_module_implemented(ctx, "ietf-netconf-notifications");
  lyd_node* notif = nullptr;
  if (!mod ||
      lyd_new_inner(nullptr, mod, notice.ended ? "netconf-session-end" : "netconf-session-start", 0,
                    &notif) != LY_SUCCESS) {
    return nullptr;
  }
  bool ok = lyd_new_term(notif, mod, "username", notice.user.c_str(), 0, nullptr) == LY_SUCCESS &&
            lyd_new_term(notif, mod, "session-id", std::to_string(notice.id).c_str(), 0, nullptr) ==
                LY_SUCCESS;
  // A peer the library names by something other than an address has no source-host.
  if (ok && !notice.host.empty())
    lyd_new_term(notif, mod, "source-host", notice.host.c_str(), 0, nullptr);
  if (ok && notice.ended) {
    if (notice.killedBy != 0) {
      ok = lyd_new_term(notif, mod, "killed-by", std::to_string(notice.killedBy).c_str(), 0,
                        nullptr) == LY_SUCCESS;
    }
    ok = ok && lyd_new_term(notif, mod, "termination-reason", notice.reason.c_str(), 0, nullptr) ==
                   LY_SUCCESS;
  }
  if (!ok) {
    lyd_free_all(notif);
    return nullptr;
  }
  return notif;
}

void NetconfNotifications::Queue(const Notice& notice) {
  std::lock_guard<std::mutex> guard(mutex_);
  for (auto& [id, subscriber] : subscribers_) {
    if (subscriber.queue.size() >= kQueueLimit) {
      subscriber.queue.pop_front();
      ++subscriber.dropped;
    }
    subscriber.queue.push_back(notice);
  }
}

void NetconfNotifications::Committed(CommitNotice notice) {
  Queue(std::make_shared<const CommitNotice>(std::move(notice)));
}

void NetconfNotifications::SessionChanged(SessionNotice notice) {
  if (subscribed_ == 0) return;
  Queue(std::make_shared<const SessionNotice>(std::move(notice)));
}

nc_server_reply* NetconfNotifications::Subscribe(ly_ctx* ctx, nc_session* session,
                                                 const lyd_node* rpc) {
  std::string stream = "NETCONF";
  std::string xpath;
  for (const lyd_node* c = lyd_child(rpc); c; c = c->next) {
    const std::string name = LYD_NAME(c);
    if (name == "stream") {
      stream = lyd_get_value(c);
    } else if (name == "startTime" || name == "stopTime") {
      return Refuse(ctx, NC_ERR_OP_NOT_SUPPORTED,
                    "replay is not supported: the NETCONF stream keeps no past notifications "
                    "(" +
                        name + ")");
    } else if (name == "filter") {
      std::string why;
      if (!FilterXPath(ctx, c, &xpath, &why)) return Refuse(ctx, NC_ERR_INVALID_VALUE, why);
    }
  }
  if (stream != "NETCONF") {
    return Refuse(ctx, NC_ERR_INVALID_VALUE, "no stream " + stream + "; the one stream is NETCONF");
  }
  const uint32_t id = nc_session_get_id(session);
  {
    std::lock_guard<std::mutex> guard(mutex_);
    if (!subscribers_.emplace(id, Subscriber{xpath, {}, 0}).second) {
      return Refuse(ctx, NC_ERR_IN_USE, "this session has a subscription already");
    }
  }
  ++subscribed_;
  nc_session_inc_notif_status(session);
  vqmw::Logger().info("netconf: session {} subscribed to the NETCONF stream{}", id,
                      xpath.empty() ? "" : " with filter " + xpath);
  return nc_server_reply_ok();
}

bool NetconfNotifications::Subscribed(uint32_t id) {
  std::lock_guard<std::mutex> guard(mutex_);
  return subscribers_.count(id) != 0;
}

uint32_t NetconfNotifications::SendQueued(ly_ctx* ctx, nc_session* session) {
  const uint32_t id = nc_session_get_id(session);
  std::deque<Notice> batch;
  std::string xpath;
  uint64_t dropped = 0;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    auto it = subscribers_.find(id);
    if (it == subscribers_.end() || it->second.queue.empty()) return 0;
    batch.swap(it->second.queue);
    xpath = it->second.xpath;
    dropped = std::exchange(it->second.dropped, 0);
  }
  if (dropped) {
    vqmw::Logger().warn("netconf: session {} fell behind: {} notifications dropped", id, dropped);
  }
  uint32_t sent = 0;
  for (const Notice& notice : batch) {
    timespec when{};
    lyd_node* tree = std::visit(
        [&](const auto& n) {
          when = n->time;
          if constexpr (std::is_same_v<std::decay_t<decltype(*n)>, CommitNotice>) {
            return ConfigChangeNotification(ctx, *n);
          } else {
            return SessionNotification(ctx, *n);
          }
        },
        notice);
    if (!tree) continue;
    if (!xpath.empty()) {
      ly_set* set = nullptr;
      const bool selected =
          lyd_find_xpath(tree, xpath.c_str(), &set) == LY_SUCCESS && set->count > 0;
      ly_set_free(set, nullptr);
      if (!selected) {
        lyd_free_all(tree);
        continue;
      }
    }
    char* time = nullptr;
    ly_time_ts2str(&when, &time);
    nc_server_notif* notif = nc_server_notif_new(tree, time, NC_PARAMTYPE_FREE);
    const NC_MSG_TYPE r = nc_server_notif_send(session, notif, 5000);
    nc_server_notif_free(notif);
    if (r != NC_MSG_NOTIF) {
      vqmw::Logger().warn("netconf: session {}: cannot send a notification", id);
      break;
    }
    ++sent;
  }
  return sent;
}

void NetconfNotifications::Unsubscribe(uint32_t id) {
  std::lock_guard<std::mutex> guard(mutex_);
  if (subscribers_.erase(id)) --subscribed_;
}

}  // namespace pbr::mgmt
