// The CDB sockets the framework hands to ReadInitialConfig: each is the descriptor of an
// attached connection, and its reads are served from the snapshot of that attachment.
#pragma once

#include "element/framework/cdb_snapshot.h"

namespace vqconfd::detail {

// Reads on `sock` are served from `snapshot` until the socket is withdrawn; the caller keeps
// the snapshot alive until then.
void OpenCdbSocket(int sock, const CdbSnapshot* snapshot);
void CloseCdbSocket(int sock);

}  // namespace vqconfd::detail
