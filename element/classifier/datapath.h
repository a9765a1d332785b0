// The classifier's datapath in the kernel: the tc ingress program and its maps (libbpf).
//
// Load() makes a fresh program with empty maps; nothing forwards differently until Attach()
// puts it on an interface's ingress, replacing the program a previous run left there in one
// step (same tc handle and priority), so a restart has no gap. The kernel frees a replaced
// program and its maps once nothing refers to them. Every call is one short system call;
// the owner calls them from the loop's thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "element/classifier/classifier_maps.h"

struct bpf_object;

namespace pbr::element {

// The tc filter this backend owns on every interface's ingress.
inline constexpr uint32_t kTcHandle = 0x77;
inline constexpr uint32_t kTcPriority = 1;

class Datapath {
 public:
  Datapath() = default;
  ~Datapath();
  Datapath(const Datapath&) = delete;
  Datapath& operator=(const Datapath&) = delete;

  // 0, or a negative errno with the reason in `error`.
  int Load(std::string* error);
  // Puts the program on `ifindex`'s ingress in place of any program there under our handle.
  int Attach(int ifindex);

  int SetKey(const pbr_cls_key& key, const pbr_cls_value& value);
  int DeleteKey(const pbr_cls_key& key);
  int SetInterface(uint32_t ifindex, uint32_t ifid);
  int DeleteInterface(uint32_t ifindex);
  // Replaces the shape list (sorted by min_rank, at most PBR_CLS_MAX_SHAPES) in one flip.
  int PublishShapes(const std::vector<pbr_cls_shape>& shapes);

 private:
  bpf_object* object_ = nullptr;
  int prog_fd_ = -1;
  int keys_fd_ = -1;
  int shapes_fd_ = -1;
  int active_fd_ = -1;
  int ifaces_fd_ = -1;
  uint32_t active_ = 0;
};

}  // namespace pbr::element
