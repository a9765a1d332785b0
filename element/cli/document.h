// Configuration documents that operators load from files.
#pragma once

#include <string>

#include "element/mgmt/mgmt.pb.h"

namespace pbr::cli {

// Reads the document at `path`. JSON is checked for well-formedness here, where the position of
// a fault can be named: the server's parser takes some truncated documents for complete ones.
// False with *error, "PATH: REASON" or "PATH:LINE:COLUMN: REASON".
bool ReadDocument(const std::string& path, mgmt::Load::Format format, std::string* text,
                  std::string* error);

}  // namespace pbr::cli
