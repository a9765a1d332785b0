#include "element/framework/element_callpoints.h"

#include <charconv>

#include "element/pbr/rule_reasons.h"
#include "element/yang/tags.h"
#include "platform/confd_lib.h"

namespace vqconfd::detail {
namespace {

constexpr const char* kReasonCallpoint = "pbr_hw_reason";

}  // namespace

std::vector<std::string> ElementCallpoints() {
  if (!pbr::RuleReasons::Instance().Active()) return {};
  return {kReasonCallpoint};
}

bool AnswerElementCallpoint(const pbr::mgmt::GetObjects& request, pbr::mgmt::DataReply* reply) {
  if (request.callpoint() != kReasonCallpoint || !pbr::RuleReasons::Instance().Active())
    return false;
  static const uint32_t tag = pbr::yang::TagOfName("hw-reason").value_or(0);
  for (const pbr::mgmt::Value& key : request.key()) {
    pbr::mgmt::ObjectReply* object = reply->add_object();
    object->set_replied(true);
    const std::string& text = key.text();
    uint32_t id = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), id);
    if (ec != std::errc() || end != text.data() + text.size() || id > 0xffff) continue;
    std::string_view reason = pbr::RuleReasons::Instance().Reason(static_cast<uint16_t>(id));
    if (reason.empty()) continue;
    pbr::mgmt::TagValue* value = object->add_value();
    value->set_tag(tag);
    value->mutable_value()->set_type(C_BUF);
    value->mutable_value()->set_text(std::string(reason));
  }
  return true;
}

}  // namespace vqconfd::detail
