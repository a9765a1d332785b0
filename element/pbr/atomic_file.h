// Replacing a file so that readers see either the old or the new content, never a mix.
#pragma once

#include <string>
#include <string_view>

namespace pbr {

// Writes `content` to "<path>.tmp" and renames it over `path`. Not synced: the files shown this
// way describe programmed state that does not outlive the process, so only readers need
// protecting from a half-written file, not a crash. False with `error` set
// (and no temporary file left) when any step fails. Blocking: for small local files.
bool WriteFileAtomically(const std::string& path, std::string_view content, std::string* error);

}  // namespace pbr
