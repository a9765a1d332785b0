#include "element/mgmt/json_text.h"

#include <cstdlib>

namespace pbr::mgmt {

std::string PrintJson(const lyd_node* tree, bool compact) {
  const char* empty = compact ? "{}" : "{}\n";
  if (!tree) return empty;
  char* text = nullptr;
  lyd_print_mem(&text, tree, LYD_JSON, LYD_PRINT_WITHSIBLINGS | (compact ? LYD_PRINT_SHRINK : 0u));
  std::string out = text ? text : empty;
  std::free(text);
  return out;
}

std::string PrintXml(const lyd_node* tree) {
  if (!tree) return {};
  char* text = nullptr;
  lyd_print_mem(&text, tree, LYD_XML, LYD_PRINT_WITHSIBLINGS | LYD_PRINT_SHRINK);
  std::string out = text ? text : "";
  std::free(text);
  return out;
}

}  // namespace pbr::mgmt
