// Replacing a file so that readers see either the old or the new content, never a mix.
#pragma once

#include <string>
#include <string_view>

namespace pbr {

// Writes `content` to "<path>.tmp", syncs it and renames it over `path`. False with `error` set
// (and no temporary file left) when any step fails. Blocking: for small local files.
bool WriteFileAtomically(const std::string& path, std::string_view content, std::string* error);

}  // namespace pbr
