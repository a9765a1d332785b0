// The datapath: a tc ingress program that classifies IPv4 packets by the PBR rules and sets the
// packet mark of the best matching rule; FIB rules turn that mark into the rule's table.
#include <linux/bpf.h>
#include <linux/if_ether.h>
#include <linux/ip.h>
#include <linux/pkt_cls.h>
#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>

#include "element/classifier/classifier_maps.h"

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, PBR_CLS_MAX_KEYS);
  __uint(map_flags, BPF_F_NO_PREALLOC);
  __type(key, struct pbr_cls_key);
  __type(value, struct pbr_cls_value);
} pbr_cls_keys SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_ARRAY);
  __uint(max_entries, 2 * (PBR_CLS_MAX_SHAPES + 1));
  __type(key, __u32);
  __type(value, struct pbr_cls_shape);
} pbr_cls_shapes SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_ARRAY);
  __uint(max_entries, 1);
  __type(key, __u32);
  __type(value, __u32);
} pbr_cls_active SEC(".maps");

// ifindex -> name id of the interfaces that some rule names.
struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, PBR_CLS_MAX_IFACES);
  __uint(map_flags, BPF_F_NO_PREALLOC);
  __type(key, __u32);
  __type(value, __u32);
} pbr_cls_ifaces SEC(".maps");

struct search {
  __u32 base;
  __u32 ifid;
  __u32 src;
  __u32 dst;
  __u64 best;
  __u32 mark;
};

static long visit_shape(__u32 index, void* data) {
  struct search* s = data;
  __u32 slot = s->base + index;
  struct pbr_cls_shape* shape = bpf_map_lookup_elem(&pbr_cls_shapes, &slot);
  if (!shape || shape->min_rank >= s->best) return 1;  // nothing further can win
  if (shape->has_iif && !s->ifid) return 0;
  struct pbr_cls_key key = {
      .has_iif = shape->has_iif,
      .src_len = shape->src_len,
      .dst_len = shape->dst_len,
      .ifid = shape->has_iif ? s->ifid : 0,
      .src = s->src & shape->src_mask,
      .dst = s->dst & shape->dst_mask,
  };
  struct pbr_cls_value* value = bpf_map_lookup_elem(&pbr_cls_keys, &key);
  if (value && value->rank < s->best) {
    s->best = value->rank;
    s->mark = value->mark;
  }
  return 0;
}

SEC("tc")
int pbr_classify(struct __sk_buff* skb) {
  if (skb->protocol != bpf_htons(ETH_P_IP)) return TC_ACT_OK;
  struct iphdr ip;
  if (bpf_skb_load_bytes_relative(skb, 0, &ip, sizeof ip, BPF_HDR_START_NET)) return TC_ACT_OK;
  __u32 zero = 0;
  __u32* active = bpf_map_lookup_elem(&pbr_cls_active, &zero);
  if (!active) return TC_ACT_OK;
  __u32 ifindex = skb->ifindex;
  __u32* ifid = bpf_map_lookup_elem(&pbr_cls_ifaces, &ifindex);
  struct search s = {
      .base = *active ? PBR_CLS_MAX_SHAPES + 1 : 0,
      .ifid = ifid ? *ifid : 0,
      .src = ip.saddr,
      .dst = ip.daddr,
      .best = ~0ULL,
  };
  bpf_loop(PBR_CLS_MAX_SHAPES + 1, visit_shape, &s, 0);
  if (s.best != ~0ULL) skb->mark = s.mark;
  return TC_ACT_OK;
}

char LICENSE[] SEC("license") = "GPL";
