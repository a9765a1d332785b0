#include "element/mgmt/commit_notice.h"

#include <cstdlib>

#include "element/mgmt/datastore.h"

namespace pbr::mgmt {

std::vector<CommitNotice::Edit> NoticeEdits(const Datastore& store, const Candidate& candidate) {
  std::vector<CommitNotice::Edit> edits;
  store.ForEachChange(candidate, [&](const lyd_node* old, const lyd_node* entry) {
    char* path = lyd_path(entry ? entry : old, LYD_PATH_STD, nullptr, 0);
    if (!path) return;
    edits.push_back({path, !old ? "create" : !entry ? "delete" : "replace"});
    std::free(path);
  });
  return edits;
}

}  // namespace pbr::mgmt
