// The datapath: a tc ingress program that classifies IPv4 packets by the PBR rules and sets the
// packet mark of the best matching rule; FIB rules turn that mark into the rule's table.
#include <linux/bpf.h>
#include <linux/if_ether.h>
#include <linux/ip.h>
#include <linux/pkt_cls.h>

#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>

#include "element/classifier/classifier_maps.h"

#define AF_INET 2  // the socket headers are not for the BPF target

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
  __u64 best_hop;
  __u32 mark;
  __u32 hop_mark;
  __u32 start;      // the first shape this pass visits
  __u32 hops_only;  // the pass looks for the best rule with a next hop
};

// One shape of a pass. The first pass stops at the first shape that cannot beat `best` and
// leaves its index in `start`; the best rule with a next hop among the shapes visited so far is
// collected on the way, so a second pass for it goes on from there.
static long visit_shape(__u32 index, void* data) {
  struct search* s = data;
  __u32 slot = s->base + s->start + index;
  struct pbr_cls_shape* shape = bpf_map_lookup_elem(&pbr_cls_shapes, &slot);
  __u64 bound = s->hops_only ? s->best_hop : s->best;
  if (!shape || shape->min_rank >= bound) {  // nothing further can win
    s->start += index;
    return 1;
  }
  if (shape->has_iif && !s->ifid) return 0;
  if (s->hops_only && shape->min_hop_rank >= bound) return 0;
  struct pbr_cls_key key = {
      .has_iif = shape->has_iif,
      .src_len = shape->src_len,
      .dst_len = shape->dst_len,
      .ifid = shape->has_iif ? s->ifid : 0,
      .src = s->src & shape->src_mask,
      .dst = s->dst & shape->dst_mask,
  };
  struct pbr_cls_value* value = bpf_map_lookup_elem(&pbr_cls_keys, &key);
  if (!value) return 0;
  if (value->rank < s->best) {
    s->best = value->rank;
    s->mark = value->mark;
  }
  if (value->hop_rank < s->best_hop) {
    s->best_hop = value->hop_rank;
    s->hop_mark = value->hop_mark;
  }
  return 0;
}

// Whether main has no route for the packet, so that a FIB rule looking it up would let the
// packet go on to the later rules. The table lookup's "not found" and a throw route both come
// back as NOT_FWDED; blackhole, unreachable and prohibit routes end the FIB rules' walk as a
// found route does, and so does anything else the helper says (forwarding off on the ingress
// interface: then the kernel refuses the packet whichever rule routes it). A local, broadcast or
// anycast route in main also comes back as NOT_FWDED (the kernel keeps those in table local).
static int main_has_no_route(struct __sk_buff* skb, const struct iphdr* ip) {
  struct bpf_fib_lookup fib = {
      .family = AF_INET,
      .tos = ip->tos,
      .l4_protocol = ip->protocol,
      .ipv4_src = ip->saddr,
      .ipv4_dst = ip->daddr,
      .ifindex = skb->ifindex,
      .tbid = PBR_CLS_MAIN_MARK,
  };
  return bpf_fib_lookup(skb, &fib, sizeof fib,
                        BPF_FIB_LOOKUP_DIRECT | BPF_FIB_LOOKUP_TBID | BPF_FIB_LOOKUP_SKIP_NEIGH) ==
         BPF_FIB_LKUP_RET_NOT_FWDED;
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
      .best_hop = ~0ULL,
  };
  bpf_loop(PBR_CLS_MAX_SHAPES + 1, visit_shape, &s, 0);
  if (s.best == ~0ULL) return TC_ACT_OK;
  if (s.mark == PBR_CLS_MAIN_MARK && main_has_no_route(skb, &ip)) {
    // Every rule that looks up main fails alike: the best rule with a next hop decides.
    s.hops_only = 1;
    if (s.start <= PBR_CLS_MAX_SHAPES)
      bpf_loop(PBR_CLS_MAX_SHAPES + 1 - s.start, visit_shape, &s, 0);
    if (s.best_hop != ~0ULL) s.mark = s.hop_mark;
  }
  skb->mark = s.mark;
  return TC_ACT_OK;
}

char LICENSE[] SEC("license") = "GPL";
