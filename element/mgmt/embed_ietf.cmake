# Writes the YANG modules given in IN (a comma-separated list of files named module@revision.yang) as a
# null-terminated table of {name, text} into OUT.
string(REPLACE "," ";" IN "${IN}")
set(body "// Generated from element/yang/ietf.\nnamespace pbr::mgmt {\nstruct EmbeddedModule {\n  const char* name;\n  const char* text;\n};\nextern const EmbeddedModule kIetfModules[] = {\n")
foreach(file ${IN})
  get_filename_component(base ${file} NAME_WE)
  string(REGEX REPLACE "@.*" "" name ${base})
  file(READ ${file} text)
  string(APPEND body "  {\"${name}\", R\"yang(${text})yang\"},\n")
endforeach()
string(APPEND body "  {nullptr, nullptr}};\n}  // namespace pbr::mgmt\n")
file(WRITE ${OUT} "${body}")
