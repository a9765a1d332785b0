// Interface-name encoding contract: logical interface identifiers.
#pragma once

#include <cstdint>

extern "C" {

// A logical interface identifier: a four-byte value, equal when its bytes are equal.
typedef struct limid {
  uint32_t value;
} limid_t;

// Fills *id for the interface `name`. Returns 0 when the interface exists, non-zero when the
// identifier was made for a name that does not (yet) exist; *id is usable in both cases.
int limid_from_intfname(limid_t* id, const char* name);

}  // extern "C"

inline bool operator==(const limid_t& a, const limid_t& b) {
  return a.value == b.value;
}
