// ConfD values and /router/pbr keypaths for the daemon's tests, written root first as one reads
// them.
#pragma once

#include <initializer_list>
#include <string>

#include "platform/confd_lib.h"

namespace build {

confd_value_t Tag(uint32_t tag);
confd_value_t U32(uint32_t value);
confd_value_t Buf(const std::string& text);  // the text lives until the test process ends
confd_value_t Ipv4(const char* address);
confd_value_t Ipv4AndPlen(const char* address, uint8_t prefixLen);

// Keypath({Tag(pbr_router), Tag(pbr_pbr), U32(7)}) is /router/pbr{7}: v[0] is the last element.
confd_hkeypath_t Keypath(std::initializer_list<confd_value_t> rootFirst);
// Kp("/router/pbr{7}/rule/match/interface{eth1}"): nodes by their schema names, numeric keys as
// C_UINT32 and other keys as C_BUF.
confd_hkeypath_t Kp(const std::string& path);

}  // namespace build
