# Writes the bytes of the object file IN as a C++ array into OUT.
file(READ ${IN} hex HEX)
string(LENGTH "${hex}" length)
math(EXPR size "${length} / 2")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
file(WRITE ${OUT} "// Generated from classifier.bpf.c.\n#include <cstddef>\n\nnamespace pbr::element {\n"
                  "extern const unsigned char kClassifierObject[] = {${bytes}};\n"
                  "extern const size_t kClassifierObjectSize = ${size};\n}\n")
