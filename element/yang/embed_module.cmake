# Writes the text of the YANG module IN as a C++ string constant into OUT.
file(READ ${IN} text)
file(WRITE ${OUT} "// Generated from pbr.yang.\n#include <string_view>\n\nnamespace pbr::yang {\n"
                  "extern const std::string_view kModuleText = R\"yang(${text})yang\";\n}\n")
