// The PBR manager's rule model: deep copies and comparisons of rules and their matches.
#include <typeinfo>

#include "element/pbr/match.pb.h"
#include "platform/pbr_model.h"

namespace pbr {
namespace {

std::unique_ptr<Match> CloneMatch(MatchType type, const Match& match) {
  switch (type) {
    case MATCH_INGRESS_PORTS:
      return std::make_unique<MatchIngressPorts>(static_cast<const MatchIngressPorts&>(match));
    case MATCH_SRC_IPV4:
      return std::make_unique<MatchSrcIPv4>(static_cast<const MatchSrcIPv4&>(match));
    case MATCH_DST_IPV4:
      return std::make_unique<MatchDstIPv4>(static_cast<const MatchDstIPv4&>(match));
  }
  return nullptr;
}

std::unique_ptr<Action> CloneAction(ActionType type, const Action& action) {
  switch (type) {
    case ACTION_L3_NEXT_HOP:
      return std::make_unique<ActionL3NextHop>(static_cast<const ActionL3NextHop&>(action));
  }
  return nullptr;
}

void ToPB(MatchType type, const MatchIPv4& match, MatchPB* pb) {
  pb->Clear();
  pb->set_type(type);
  pb->set_ipv4(match.getIPv4().s_addr);
  pb->set_ipv4_mask(match.getIPv4Mask().s_addr);
}

}  // namespace

bool MatchIPv4::operator==(const Match& other) const {
  if (typeid(*this) != typeid(other)) return false;
  const auto& o = static_cast<const MatchIPv4&>(other);
  return ip_.s_addr == o.ip_.s_addr && mask_.s_addr == o.mask_.s_addr;
}

bool MatchPorts::operator==(const Match& other) const {
  if (typeid(*this) != typeid(other)) return false;
  return ports_ == static_cast<const MatchPorts&>(other).ports_;
}

void MatchSrcIPv4::ConvertToMatchPB(MatchPB* pb) const {
  ToPB(kType, *this, pb);
}
void MatchDstIPv4::ConvertToMatchPB(MatchPB* pb) const {
  ToPB(kType, *this, pb);
}

void MatchSrcIPv4::ConvertFromMatchPB(const MatchPB* pb) {
  ip_.s_addr = pb->ipv4();
  mask_.s_addr = pb->ipv4_mask();
}
void MatchDstIPv4::ConvertFromMatchPB(const MatchPB* pb) {
  ip_.s_addr = pb->ipv4();
  mask_.s_addr = pb->ipv4_mask();
}

void MatchIngressPorts::ConvertToMatchPB(MatchPB* pb) const {
  pb->Clear();
  pb->set_type(kType);
  for (const limid_t& port : ports_) pb->add_ports(port.value);
}

void MatchIngressPorts::ConvertFromMatchPB(const MatchPB* pb) {
  ports_.clear();
  for (uint32_t port : pb->ports()) ports_.push_back(limid_t{port});
}

Entry::Entry(const Entry& other) : id_(other.id_), priority_(other.priority_) {
  for (const auto& [type, match] : other.matches_) matches_.emplace(type, CloneMatch(type, *match));
  for (const auto& [type, action] : other.actions_)
    actions_.emplace(type, CloneAction(type, *action));
}

Entry& Entry::operator=(const Entry& other) {
  if (this != &other) *this = Entry(other);
  return *this;
}

Error Entry::deleteMatch(MatchType type) {
  return matches_.erase(type) ? PBR_OK : PBR_ERR_NOT_FOUND;
}

Error Entry::deleteAction(ActionType type) {
  return actions_.erase(type) ? PBR_OK : PBR_ERR_NOT_FOUND;
}

bool Entry::operator==(const Entry& other) const {
  if (id_ != other.id_ || priority_ != other.priority_) return false;
  if (matches_.size() != other.matches_.size() || actions_.size() != other.actions_.size())
    return false;
  for (const auto& [type, match] : matches_) {
    auto it = other.matches_.find(type);
    if (it == other.matches_.end() || !(*match == *it->second)) return false;
  }
  for (const auto& [type, action] : actions_) {
    auto it = other.actions_.find(type);
    if (it == other.actions_.end()) return false;
    if (type == ACTION_L3_NEXT_HOP &&
        static_cast<const ActionL3NextHop&>(*action).getL3NextHop().s_addr !=
            static_cast<const ActionL3NextHop&>(*it->second).getL3NextHop().s_addr)
      return false;
  }
  return true;
}

}  // namespace pbr
