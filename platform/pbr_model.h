// PBR manager rule model: a rule (pbr::Entry) with at most one match of each MatchType and one
// action of each ActionType, each owned by the entry. Callers build matches and actions on their
// own stack and pass them by reference; the entry stores copies and never keeps the caller's.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <list>
#include <map>
#include <memory>

#include "platform/limid.h"

namespace pbr {

class MatchPB;  // the library's transport form of a match

enum MatchType : int {
  MATCH_INGRESS_PORTS = 0,
  MATCH_SRC_IPV4 = 1,
  MATCH_DST_IPV4 = 2,
};

enum ActionType : int {
  ACTION_L3_NEXT_HOP = 0,
};

enum Error : int {
  PBR_OK = 0,
  PBR_ERR_INVALID = -1,
  PBR_ERR_TYPE = -2,
  PBR_ERR_NOT_FOUND = -3,  // the entry holds no match (action) of the requested kind
};

class Match {
 public:
  virtual ~Match() {}
  virtual void ConvertToMatchPB(MatchPB* pb) const = 0;
  virtual void ConvertFromMatchPB(const MatchPB* pb) = 0;
  virtual bool operator==(const Match& other) const = 0;
};

class MatchIPv4 : public Match {
 public:
  MatchIPv4(in_addr ip, in_addr mask) : ip_(ip), mask_(mask) {}
  const in_addr& getIPv4() const { return ip_; }
  const in_addr& getIPv4Mask() const { return mask_; }
  bool operator==(const Match& other) const override;

 protected:
  in_addr ip_;
  in_addr mask_;
};

class MatchSrcIPv4 : public MatchIPv4 {
 public:
  static constexpr MatchType kType = MATCH_SRC_IPV4;
  MatchSrcIPv4(in_addr ip, in_addr mask) : MatchIPv4(ip, mask) {}
  void ConvertToMatchPB(MatchPB* pb) const override;
  void ConvertFromMatchPB(const MatchPB* pb) override;
};

class MatchDstIPv4 : public MatchIPv4 {
 public:
  static constexpr MatchType kType = MATCH_DST_IPV4;
  MatchDstIPv4(in_addr ip, in_addr mask) : MatchIPv4(ip, mask) {}
  void ConvertToMatchPB(MatchPB* pb) const override;
  void ConvertFromMatchPB(const MatchPB* pb) override;
};

class MatchPorts : public Match {
 public:
  explicit MatchPorts(const std::list<limid_t>& ports) : ports_(ports) {}
  ~MatchPorts() override {}
  std::list<limid_t> getPorts() const { return ports_; }
  void setPorts(const std::list<limid_t>& ports) { ports_ = ports; }
  bool operator==(const Match& other) const override;

 protected:
  std::list<limid_t> ports_;  // in insertion order
};

class MatchIngressPorts : public MatchPorts {
 public:
  static constexpr MatchType kType = MATCH_INGRESS_PORTS;
  explicit MatchIngressPorts(const std::list<limid_t>& ports) : MatchPorts(ports) {}
  void ConvertToMatchPB(MatchPB* pb) const override;
  void ConvertFromMatchPB(const MatchPB* pb) override;
};

class Action {
 public:
  virtual ~Action() {}
};

class ActionL3NextHop : public Action {
 public:
  static constexpr ActionType kType = ACTION_L3_NEXT_HOP;
  explicit ActionL3NextHop(in_addr nextHop) : nextHop_(nextHop) {}
  const in_addr& getL3NextHop() const { return nextHop_; }

 private:
  in_addr nextHop_;
};

class Entry {
 public:
  Entry() = default;
  Entry(const Entry& other);  // deep copy
  Entry& operator=(const Entry& other);
  Entry(Entry&&) = default;
  Entry& operator=(Entry&&) = default;
  ~Entry() = default;  // actions are destroyed before matches (reverse declaration order)

  void setId(uint16_t id) { id_ = id; }
  void setPriority(const uint32_t& priority) { priority_ = priority; }
  uint16_t getId() const { return id_; }
  uint32_t getPriority() const { return priority_; }

  // Stores a copy of `match`, replacing any match of the same type.
  template <typename T>
  Error setMatch(const T& match) {
    matches_[T::kType] = std::make_unique<T>(match);
    return PBR_OK;
  }
  // Copies the stored match of T's type into `out`; PBR_ERR_NOT_FOUND, `out` untouched, if none.
  template <typename T>
  Error getMatch(T& out) const {
    auto it = matches_.find(T::kType);
    if (it == matches_.end()) return PBR_ERR_NOT_FOUND;
    out = static_cast<const T&>(*it->second);
    return PBR_OK;
  }
  Error deleteMatch(MatchType type);

  template <typename T>
  Error setAction(const T& action) {
    actions_[T::kType] = std::make_unique<T>(action);
    return PBR_OK;
  }
  template <typename T>
  Error getAction(T& out) const {
    auto it = actions_.find(T::kType);
    if (it == actions_.end()) return PBR_ERR_NOT_FOUND;
    out = static_cast<const T&>(*it->second);
    return PBR_OK;
  }
  Error deleteAction(ActionType type);

  const std::map<MatchType, std::unique_ptr<Match>>& matches() const { return matches_; }
  const std::map<ActionType, std::unique_ptr<Action>>& actions() const { return actions_; }

  // Same id, priority, matches and actions.
  bool operator==(const Entry& other) const;

 private:
  uint16_t id_ = 0;
  uint32_t priority_ = 0;
  std::map<MatchType, std::unique_ptr<Match>> matches_;
  std::map<ActionType, std::unique_ptr<Action>> actions_;
};

}  // namespace pbr
