// ConfD client library contract: the value and keypath types, the CDB reads, keypath printing
// and the data-provider reply that the daemon uses, with ConfD's numeric codes. The codes are
// enumerators, not macros, so that assertion texts keep their names.
#pragma once

#include <netinet/in.h>

#include <cstdint>

extern "C" {

enum confd_vtype {
  C_NOEXISTS = 1,
  C_XMLTAG = 2,
  C_SYMBOL = 3,
  C_STR = 4,
  C_BUF = 5,
  C_INT8 = 6,
  C_INT16 = 7,
  C_INT32 = 8,
  C_INT64 = 9,
  C_UINT8 = 10,
  C_UINT16 = 11,
  C_UINT32 = 12,
  C_UINT64 = 13,
  C_DOUBLE = 14,
  C_IPV4 = 15,
  C_IPV6 = 16,
  C_BOOL = 17,
  C_ENUM_VALUE = 28,
  C_XMLBEGIN = 32,
  C_XMLEND = 33,
  C_IPV4_AND_PLEN = 48,
};

// Operation codes of a diff iteration.
enum confd_iter_op {
  MOP_CREATED = 1,
  MOP_DELETED = 2,
  MOP_MODIFIED = 3,
  MOP_VALUE_SET = 4,
  MOP_MOVED_AFTER = 5,
  MOP_ATTR_SET = 6,
};

// What a diff-iteration callback answers: stop, descend into the node's children, or skip them.
enum confd_iter_ret {
  ITER_STOP = 1,
  ITER_RECURSE = 2,
  ITER_CONTINUE = 3,
};

enum { CONFD_OK = 0, CONFD_ERR = -1 };

struct xml_tag {
  uint32_t tag;
  uint32_t ns;
};

typedef struct confd_buf {
  unsigned int size;
  unsigned char* ptr;  // NUL-terminated by the library; size excludes the NUL
} confd_buf_t;

struct confd_ipv4_prefix {
  struct in_addr ip;
  uint8_t len;
};

typedef struct confd_value {
  enum confd_vtype type;
  union {
    struct xml_tag xmltag;
    char* s;  // C_STR: not owned by the value
    confd_buf_t buf;
    uint32_t u32;
    int32_t enumvalue;
    struct in_addr ip;
    struct confd_ipv4_prefix ipv4prefix;
  } val;
} confd_value_t;

enum { MAXDEPTH = 20, MAXKEYLEN = 9 };

// A keypath: v[0] is the deepest element, v[len - 1] the root-most. v[i][0] is an XML tag or,
// for a list entry, its first key.
typedef struct confd_hkeypath {
  int len;
  confd_value_t v[MAXDEPTH][MAXKEYLEN];
} confd_hkeypath_t;

typedef struct confd_tag_value {
  struct xml_tag tag;
  confd_value_t v;
} confd_tag_value_t;

enum confd_find_next_type { CONFD_FIND_NEXT = 0, CONFD_FIND_SAME_OR_NEXT = 1 };

struct confd_trans_ctx;

// Value accessors.
#define CONFD_GET_UINT32(v) ((v)->val.u32)
#define CONFD_GET_BUFPTR(v) ((v)->val.buf.ptr)
#define CONFD_GET_BUFSIZE(v) ((v)->val.buf.size)
#define CONFD_GET_IPV4(v) ((v)->val.ip)
#define CONFD_GET_IPV4PREFIX(v) ((v)->val.ipv4prefix)
#define CONFD_GET_XMLTAG(v) ((v)->val.xmltag.tag)
#define CONFD_GET_XMLTAG_NS(v) ((v)->val.xmltag.ns)
#define CONFD_GET_ENUM_VALUE(v) ((v)->val.enumvalue)

#define CONFD_SET_NOEXISTS(v) ((v)->type = C_NOEXISTS)
#define CONFD_SET_UINT32(v, x) ((v)->type = C_UINT32, (v)->val.u32 = (x))
#define CONFD_SET_STR(v, x) ((v)->type = C_STR, (v)->val.s = (x))
#define CONFD_SET_ENUM_VALUE(v, x) ((v)->type = C_ENUM_VALUE, (v)->val.enumvalue = (x))
#define CONFD_SET_IPV4(v, x) ((v)->type = C_IPV4, (v)->val.ip = (x))
#define CONFD_SET_XMLTAG(v, t, n) \
  ((v)->type = C_XMLTAG, (v)->val.xmltag.tag = (t), (v)->val.xmltag.ns = (n))

#define CONFD_SET_TAG_NOEXISTS(tv, t) \
  ((tv)->tag.tag = (t), (tv)->tag.ns = 0, CONFD_SET_NOEXISTS(&(tv)->v))
#define CONFD_SET_TAG_UINT32(tv, t, x) \
  ((tv)->tag.tag = (t), (tv)->tag.ns = 0, CONFD_SET_UINT32(&(tv)->v, (x)))
#define CONFD_SET_TAG_STR(tv, t, x) \
  ((tv)->tag.tag = (t), (tv)->tag.ns = 0, CONFD_SET_STR(&(tv)->v, (x)))
#define CONFD_SET_TAG_ENUM_VALUE(tv, t, x) \
  ((tv)->tag.tag = (t), (tv)->tag.ns = 0, CONFD_SET_ENUM_VALUE(&(tv)->v, (x)))
#define CONFD_SET_TAG_XMLBEGIN(tv, t, n)                               \
  ((tv)->tag.tag = (t), (tv)->tag.ns = (n), (tv)->v.type = C_XMLBEGIN, \
   (tv)->v.val.xmltag.tag = (t), (tv)->v.val.xmltag.ns = (n))
#define CONFD_SET_TAG_XMLEND(tv, t, n)                                                             \
  ((tv)->tag.tag = (t), (tv)->tag.ns = (n), (tv)->v.type = C_XMLEND, (tv)->v.val.xmltag.tag = (t), \
   (tv)->v.val.xmltag.ns = (n))

// CDB reads on a socket that the framework opened. Each takes a path as a printf-style format.
// Results are CONFD_OK or CONFD_ERR (confd_lasterr() tells why); cdb_exists answers 1 or 0 and
// cdb_num_instances a count, or CONFD_ERR.
int cdb_num_instances(int sock, const char* fmt, ...);
int cdb_exists(int sock, const char* fmt, ...);
int cdb_get_u_int32(int sock, uint32_t* rval, const char* fmt, ...);
// The string and its NUL into the n bytes at rval. A value of n bytes or more is not cut: the
// read fails with "value does not fit in <n> bytes", rval is left untouched, and the element logs
// the path and the value's length. The management server keeps length-limited strings within
// their limit in bytes, so a buffer of the limit plus one always fits.
int cdb_get_str(int sock, char* rval, int n, const char* fmt, ...);
int cdb_get_ipv4(int sock, struct in_addr* rval, const char* fmt, ...);
int cdb_get_ipv4_and_plen(int sock, struct confd_ipv4_prefix* rval, const char* fmt, ...);
// A leaf-list, whole: *values is allocated with malloc and holds *n values; the caller releases
// each with confd_free_value and the array with free.
int cdb_get_list(int sock, confd_value_t** values, int* n, const char* fmt, ...);

// Releases what a value owns (the buffer of a C_BUF), not the value itself.
void confd_free_value(confd_value_t* v);

// Text of the last error of this thread's library calls.
const char* confd_lasterr(void);

// Prints a keypath as ConfD does, for example /router/pbr{7}/rule/priority. Returns the length
// of the full text (it may have been cut to fit).
int confd_pp_kpath(char* buf, int bufsiz, const confd_hkeypath_t* hkeypath);

// Answers a get-object request with n tagged values.
int confd_data_reply_tag_value_array(struct confd_trans_ctx* tctx, confd_tag_value_t* tv, int n);

}  // extern "C"
