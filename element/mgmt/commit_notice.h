// What the server tells of each commit to those who report it elsewhere (NETCONF's
// netconf-config-change), handed over on the server's loop.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace pbr::mgmt {

class Datastore;
class Candidate;

struct CommitNotice {
  struct Edit {
    std::string target;     // the list entry, as an instance-identifier (module-name prefixes)
    const char* operation;  // "create", "replace" or "delete"
  };
  timespec time{};
  bool byServer = false;        // the server's own commit: undoing an unconfirmed commit
  std::string user;             // otherwise: who committed,
  uint32_t netconfSession = 0;  // over which NETCONF session (0: not over NETCONF)
  std::vector<Edit> edits;      // one per changed list entry
};

// One edit per list entry the candidate changes, before it is applied.
std::vector<CommitNotice::Edit> NoticeEdits(const Datastore& store, const Candidate& candidate);

class CommitObserver {
 public:
  virtual ~CommitObserver() = default;
  // Whether anyone listens now: the edits are worked out only then.
  virtual bool Listening() const = 0;
  // Called on the server's loop after each commit; must not block.
  virtual void Committed(CommitNotice notice) = 0;
};

}  // namespace pbr::mgmt
