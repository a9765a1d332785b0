#include "tests/support/commit_driver.h"

#include <cstring>

namespace fake {
namespace {

bool SameValue(const confd_value_t& a, const confd_value_t& b) {
  if (a.type != b.type) return false;
  switch (a.type) {
    case C_XMLTAG:
      return a.val.xmltag.tag == b.val.xmltag.tag;
    case C_UINT32:
      return a.val.u32 == b.val.u32;
    case C_BUF:
      return strcmp(reinterpret_cast<const char*>(a.val.buf.ptr),
                    reinterpret_cast<const char*>(b.val.buf.ptr)) == 0;
    default:
      return memcmp(&a.val, &b.val, sizeof(a.val)) == 0;
  }
}

// True when `kp` lies below `ancestor`: longer, with the same root-most elements.
bool IsBelow(const confd_hkeypath_t& kp, const confd_hkeypath_t& ancestor) {
  if (kp.len <= ancestor.len) return false;
  for (int i = 0; i < ancestor.len; ++i) {
    if (!SameValue(kp.v[kp.len - 1 - i][0], ancestor.v[ancestor.len - 1 - i][0])) return false;
  }
  return true;
}

}  // namespace

std::vector<confd_iter_ret> PlayCommit(vqconfd::ConfigHandler& handler,
                                       const std::vector<Change>& changes) {
  std::vector<confd_iter_ret> results;
  const vqconfd::IterateCallback& callback = handler.GetSubscriptionPoints().at(0).callback;
  handler.StartCommit();
  std::vector<const confd_hkeypath_t*> skipped;
  for (const Change& change : changes) {
    bool skip = false;
    for (const confd_hkeypath_t* s : skipped) skip = skip || IsBelow(change.kp, *s);
    if (skip) continue;
    confd_hkeypath_t kp = change.kp;
    confd_value_t value = change.value;
    confd_iter_ret r =
        callback(&kp, change.op, nullptr, change.op == MOP_DELETED ? nullptr : &value);
    results.push_back(r);
    if (r == ITER_CONTINUE) skipped.push_back(&change.kp);
  }
  handler.ApplyCommitConfig();
  return results;
}

}  // namespace fake
