// Interface-name encoding contract: logical interface identifiers.
#pragma once

#include <cstdint>

extern "C" {

// A logical interface identifier: a four-byte value, equal when its bytes are equal.
typedef struct limid {
  uint32_t value;
} limid_t;

// Fills *id for the interface `name`, whether or not an interface has that name now: the same
// name always gets the same identifier. Returns 0, or -1 when `id` or `name` is null.
int limid_from_intfname(limid_t* id, const char* name);

}  // extern "C"

inline bool operator==(const limid_t& a, const limid_t& b) {
  return a.value == b.value;
}
