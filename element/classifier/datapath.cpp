#include "element/classifier/datapath.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace pbr::element {

// The compiled program (classifier.bpf.c), embedded at build time.
extern const unsigned char kClassifierObject[];
extern const size_t kClassifierObjectSize;

namespace {

// libbpf's own messages: warnings go to stderr, chatter is dropped, and so is the kernel's
// complaint that an interface already has its clsact queue (expected: we add it idempotently).
int PrintLibbpf(libbpf_print_level level, const char* format, va_list args) {
  if (level != LIBBPF_WARN) return 0;
  char text[512];
  std::vsnprintf(text, sizeof text, format, args);
  if (std::strstr(text, "Exclusivity flag on")) return 0;
  return std::fputs(text, stderr);
}

int Fail(int error, std::string* out, const std::string& what) {
  *out = what + ": " + std::strerror(error < 0 ? -error : error);
  return error < 0 ? error : -error;
}

}  // namespace

Datapath::~Datapath() {
  if (object_) bpf_object__close(object_);
}

int Datapath::Load(std::string* error) {
  libbpf_set_print(PrintLibbpf);
  LIBBPF_OPTS(bpf_object_open_opts, opts, .object_name = "pbr_classifier");
  object_ = bpf_object__open_mem(kClassifierObject, kClassifierObjectSize, &opts);
  if (!object_) {
    int e = -errno;
    object_ = nullptr;
    return Fail(e, error, "cannot open the classifier program");
  }
  if (int e = bpf_object__load(object_))
    return Fail(e, error, "the kernel refused the classifier program");
  auto map_fd = [&](const char* name) {
    bpf_map* map = bpf_object__find_map_by_name(object_, name);
    return map ? bpf_map__fd(map) : -1;
  };
  bpf_program* prog = bpf_object__find_program_by_name(object_, "pbr_classify");
  prog_fd_ = prog ? bpf_program__fd(prog) : -1;
  keys_fd_ = map_fd("pbr_cls_keys");
  shapes_fd_ = map_fd("pbr_cls_shapes");
  active_fd_ = map_fd("pbr_cls_active");
  ifaces_fd_ = map_fd("pbr_cls_ifaces");
  if (prog_fd_ < 0 || keys_fd_ < 0 || shapes_fd_ < 0 || active_fd_ < 0 || ifaces_fd_ < 0)
    return Fail(ENOENT, error, "the classifier program lacks its maps");
  // An empty list in both halves.
  return PublishShapes({}) == 0 ? 0 : Fail(errno, error, "cannot initialise the shape list");
}

int Datapath::Attach(int ifindex) {
  LIBBPF_OPTS(bpf_tc_hook, hook, .ifindex = ifindex, .attach_point = BPF_TC_INGRESS);
  int e = bpf_tc_hook_create(&hook);
  if (e && e != -EEXIST) return e;
  LIBBPF_OPTS(bpf_tc_opts, opts, .prog_fd = prog_fd_, .flags = BPF_TC_F_REPLACE,
              .handle = kTcHandle, .priority = kTcPriority);
  return bpf_tc_attach(&hook, &opts);
}

int Datapath::SetKey(const pbr_cls_key& key, const pbr_cls_value& value) {
  return bpf_map_update_elem(keys_fd_, &key, &value, BPF_ANY) ? -errno : 0;
}

int Datapath::DeleteKey(const pbr_cls_key& key) {
  return bpf_map_delete_elem(keys_fd_, &key) && errno != ENOENT ? -errno : 0;
}

int Datapath::SetInterface(uint32_t ifindex, uint32_t ifid) {
  return bpf_map_update_elem(ifaces_fd_, &ifindex, &ifid, BPF_ANY) ? -errno : 0;
}

int Datapath::DeleteInterface(uint32_t ifindex) {
  return bpf_map_delete_elem(ifaces_fd_, &ifindex) && errno != ENOENT ? -errno : 0;
}

int Datapath::PublishShapes(const std::vector<pbr_cls_shape>& shapes) {
  if (shapes.size() > PBR_CLS_MAX_SHAPES) return -E2BIG;
  uint32_t next = active_ ^ 1;
  uint32_t base = next ? PBR_CLS_MAX_SHAPES + 1 : 0;
  for (uint32_t i = 0; i < shapes.size(); ++i) {
    uint32_t slot = base + i;
    if (bpf_map_update_elem(shapes_fd_, &slot, &shapes[i], BPF_ANY)) return -errno;
  }
  pbr_cls_shape end{};
  end.min_rank = ~0ULL;
  uint32_t slot = base + static_cast<uint32_t>(shapes.size());
  if (bpf_map_update_elem(shapes_fd_, &slot, &end, BPF_ANY)) return -errno;
  uint32_t zero = 0;
  if (bpf_map_update_elem(active_fd_, &zero, &next, BPF_ANY)) return -errno;
  active_ = next;
  return 0;
}

}  // namespace pbr::element
