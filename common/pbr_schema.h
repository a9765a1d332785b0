// The /router/pbr schema as the daemon sees it: XML tag constants, the namespace hash, CDB
// path literals and the keypath positions of the rule id. Keypath element v[0] is the deepest.
#pragma once

#include <cstdint>

namespace pbr {

#define PBR_TAG(constant, node, value) inline constexpr uint32_t constant = value;
#include "common/pbr_tags.def"
#undef PBR_TAG

// Namespace hash of the PBR module.
inline constexpr uint32_t pbr__ns = 0x7b4a9bffu;

// The subscription path, also the path whose instances the initial load counts.
inline constexpr const char* kPbrPath = "/router/pbr";

// The initial load addresses list entries by position: kPbrInstancePrefix, the position in
// decimal (from 0), kPbrInstanceSuffix, then one of the leaf suffixes.
inline constexpr const char* kPbrInstancePrefix = "/router/pbr[";
inline constexpr const char* kPbrInstanceSuffix = "]";
inline constexpr const char* kIdSuffix = "/id";
inline constexpr const char* kPrioritySuffix = "/rule/priority";
inline constexpr const char* kDescriptionSuffix = "/rule/description";
inline constexpr const char* kSourceSuffix = "/rule/match/source/ipv4-address";
inline constexpr const char* kDestinationSuffix = "/rule/match/destination/ipv4-address";
inline constexpr const char* kNoMaskIpSuffix = "/no-mask/ip";
inline constexpr const char* kMaskIpSuffix = "/mask/ip";
inline constexpr const char* kInterfaceSuffix = "/rule/match/interface";
inline constexpr const char* kNextHopIpSuffix = "/rule/action/next-hop/ip";

// Descriptions are read into a buffer of 32 characters and the terminating NUL.
inline constexpr int kDescriptionBufferSize = 33;

// Keypath positions of the rule's key, by the kind of node changed.
inline constexpr int kKeyPosEntry = 0;      // /router/pbr{id}
inline constexpr int kKeyPosRuleLeaf = 2;   // .../rule/priority, .../rule/description
inline constexpr int kKeyPosInterface = 4;  // .../rule/match/interface{name}
inline constexpr int kKeyPosNextHop = 4;    // .../rule/action/next-hop/ip
inline constexpr int kKeyPosMatchIp = 6;    // .../rule/match/source/ipv4-address/mask/ip
// Parent tags that tell the three `ip` leaves apart.
inline constexpr int kPosIpParent = 1;        // next-hop, mask or no-mask
inline constexpr int kPosMatchDirection = 3;  // source or destination

// The operational view served by the "show_pbr" callpoint.
inline constexpr const char* kShowPbrCallpoint = "show_pbr";
inline constexpr const char* kL3RoutingText = "l3-routing";

}  // namespace pbr
