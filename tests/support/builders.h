// Small builders for ConfD values and /router/pbr keypaths, written root first as one reads them.
#pragma once

#include <netinet/in.h>

#include <initializer_list>
#include <string>

#include "platform/confd_lib.h"

namespace build {

confd_value_t Tag(uint32_t tag);
confd_value_t U32(uint32_t value);
confd_value_t Buf(const std::string& text);  // the text lives until the test process ends
confd_value_t Ipv4(const char* address);
confd_value_t Ipv4AndPlen(const char* address, uint8_t prefixLen);

in_addr Addr(const char* address);
std::string Text(const in_addr& address);

// Keypath({Tag(pbr_router), Tag(pbr_pbr), U32(7)}) is /router/pbr{7}: v[0] is the last element.
confd_hkeypath_t Keypath(std::initializer_list<confd_value_t> rootFirst);

confd_hkeypath_t RuleKp(uint32_t id);                        // /router/pbr{id}
confd_hkeypath_t IdKp(uint32_t id);                          // /router/pbr{id}/id
confd_hkeypath_t RuleLeafKp(uint32_t id, uint32_t leafTag);  // /router/pbr{id}/rule/<leaf>
confd_hkeypath_t InterfaceKp(uint32_t id, const std::string& name);
confd_hkeypath_t NextHopKp(uint32_t id);  // /router/pbr{id}/rule/action/next-hop/ip
// /router/pbr{id}/rule/match/<direction>/ipv4-address/<form>/ip, form pbr_mask or pbr_no_mask.
confd_hkeypath_t MatchIpKp(uint32_t id, uint32_t direction, uint32_t form);

}  // namespace build
