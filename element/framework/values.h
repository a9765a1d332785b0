// ConfD values and keypaths from and to the management protocol's forms, and the library's
// last-error text. Used on the middleware loop's thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "element/mgmt/mgmt.pb.h"
#include "platform/confd_lib.h"

namespace vqconfd::detail {

// Fills `out` from a wire value. A C_BUF value points into `in`'s text (which must outlive
// it) unless `copy` is set, in which case its buffer is allocated with malloc and released by
// confd_free_value. False when the text does not parse as the type.
bool FromWire(const pbr::mgmt::Value& in, confd_value_t* out, bool copy = false);
// The same from a value's type and text; a C_BUF value points into `text` unless copied.
bool FromWire(uint32_t type, std::string_view text, confd_value_t* out, bool copy = false);

// The wire form of a value: its type and its text.
void ToWire(const confd_value_t& in, pbr::mgmt::Value* out);

// Builds a keypath from elements given root-most first. Key values point into `elements`.
// False when it is too deep or a key does not parse.
bool BuildKeypath(const std::vector<const pbr::mgmt::KeypathElement*>& elements,
                  confd_hkeypath_t* out);

// Sets the text confd_lasterr() returns.
void SetLastError(std::string text);

}  // namespace vqconfd::detail
