/* The classifier's maps as the datapath program and the backend both see them (C and C++).
 *
 * Rules are grouped by shape: whether they name an ingress interface, and their source and
 * destination prefix lengths. Within a shape a packet has exactly one candidate key (its fields
 * masked to the shape), so one hash lookup per shape finds the best rule of that shape. The
 * program visits the shapes in ascending order of their best rank and stops at the first shape
 * whose best rank cannot beat what it has found: the per-packet cost depends on the number of
 * shapes, not on the number of rules.
 */
#pragma once

#include <linux/types.h>

/* Upper bounds: 2 x 33 x 33 shapes exist; keys are one per rule and ingress interface. */
#define PBR_CLS_MAX_SHAPES 2200
#define PBR_CLS_MAX_KEYS 262144
#define PBR_CLS_MAX_IFACES 65536

/* Everything in network byte order except the ranks and marks. */
struct pbr_cls_key {
  __u8 has_iif;
  __u8 src_len;
  __u8 dst_len;
  __u8 pad;
  __u32 ifid; /* the ingress interface's name id, 0 without one */
  __u32 src;  /* masked to src_len */
  __u32 dst;  /* masked to dst_len */
};

/* A rule without next hop looks up main, and when main has no route for the packet the FIB
 * rules go on to the later rules; those that look up main fail alike, so the next candidate is
 * the best rule with a next hop. Each key keeps both. */
#define PBR_CLS_MAIN_MARK 254

struct pbr_cls_value {
  __u64 rank;     /* (priority << 16) | rule id: lower wins, as the FIB rules order them */
  __u64 hop_rank; /* the best rank among the key's rules with a next hop; ~0 without any */
  __u32 mark;     /* the packet mark that selects the rule's table */
  __u32 hop_mark; /* the mark of the rule of hop_rank */
};

struct pbr_cls_shape {
  __u64 min_rank;     /* the best rank of any key of this shape; ~0 ends the list */
  __u64 min_hop_rank; /* the best hop_rank of any key of this shape; ~0 without any */
  __u32 src_mask;
  __u32 dst_mask;
  __u8 has_iif;
  __u8 src_len;
  __u8 dst_len;
  __u8 pad[5];
};

/* The shape list is double-buffered: the backend fills the inactive half, then flips
 * pbr_cls_active[0] to it, so a packet never sees a half-written list. */
