// Replacing a file so that readers see either the old or the new content, never a mix.
#pragma once

#include <functional>
#include <string>

namespace pbr {

// Writes the content that `fill` produces to "<path>.tmp" and renames it over `path`. `fill`
// appends the next part of the content to the buffer it is given and returns whether more
// follows; each part is written out before the next is asked for, so that a large file never
// sits in memory whole. False with `error` set (and no temporary file left) when any step
// fails. Not synced: the files shown this way describe programmed state that does not outlive
// the process, so only readers need protecting from a half-written file, not a crash.
// Blocking: for local files.
bool WriteFileAtomically(const std::string& path, const std::function<bool(std::string*)>& fill,
                         std::string* error);

}  // namespace pbr
