#include "element/cli/completion.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <set>

#include "element/cli/command.h"
#include "element/cli/schema_help.h"

namespace pbr::cli {
namespace {

using nlohmann::json;

std::string_view LocalName(std::string_view key) {
  const size_t colon = key.find(':');
  return colon == std::string_view::npos ? key : key.substr(colon + 1);
}

// The member of `object` named `name`, with or without its module prefix.
const json* Member(const json* object, std::string_view name) {
  if (!object || !object->is_object()) return nullptr;
  for (auto it = object->begin(); it != object->end(); ++it) {
    if (LocalName(it.key()) == name) return &it.value();
  }
  return nullptr;
}

std::string ScalarText(const json& value) {
  return value.is_string() ? value.get<std::string>() : value.dump();
}

std::vector<std::string> KeyNames(const lysc_node* list) {
  std::vector<std::string> names;
  for (const lysc_node* k = lysc_node_child(list); k && lysc_is_key(k); k = k->next) {
    names.emplace_back(k->name);
  }
  return names;
}

std::string EntryKeys(const json& entry, const std::vector<std::string>& keys) {
  std::string text;
  for (const std::string& k : keys) {
    const json* value = Member(&entry, k);
    text += (text.empty() ? "" : " ") + QuoteKey(value ? ScalarText(*value) : std::string());
  }
  return text;
}

// The data at the steps of a keypath in the running configuration, or null.
const json* DataAt(const CompletionData& data, const std::vector<KeypathStep>& steps) {
  const json* node = data.running ? data.running() : nullptr;
  const lysc_node* schema = nullptr;
  for (const KeypathStep& step : steps) {
    schema = ChildNode(data.schema, schema, step.name);
    node = Member(node, step.name);
    if (!schema || !node) return nullptr;
    if (schema->nodetype != LYS_LIST) continue;
    if (!node->is_array()) return nullptr;
    const std::vector<std::string> keys = KeyNames(schema);
    std::string wanted;
    for (const std::string& k : step.keys) wanted += (wanted.empty() ? "" : " ") + QuoteKey(k);
    const auto it = std::find_if(node->begin(), node->end(),
                                 [&](const json& e) { return EntryKeys(e, keys) == wanted; });
    if (it == node->end()) return nullptr;
    node = &*it;
  }
  return node;
}

std::string NodeHelp(const lysc_node* node) {
  std::string help = TypeSummary(node);
  if (node->flags & LYS_MAND_TRUE) help += ", mandatory";
  if (node->nodetype == LYS_LIST) help = "list, by " + KeyNames(node)[0];
  if (node->nodetype == LYS_LEAFLIST) help = "entries of " + help;
  if (node->dsc) {
    std::string dsc = node->dsc;
    std::replace(dsc.begin(), dsc.end(), '\n', ' ');
    help += (help.empty() ? "" : "; ") + dsc;
  }
  return help;
}

// Keypaths that continue `partial`: the children of the node it ends in, or the keys of the
// list entry (or leaf-list entry) it is opening.
std::vector<Choice> PathChoices(std::string_view partial, const CompletionData& data) {
  std::vector<Choice> out;
  if (partial.empty()) partial = "/";
  if (partial[0] != '/') return out;
  // The last step starts after the last / outside braces.
  size_t last = 0;
  bool inBraces = false, quoted = false;
  for (size_t i = 0; i < partial.size(); ++i) {
    if (partial[i] == '"') quoted = !quoted;
    if (quoted) continue;
    if (partial[i] == '{') inBraces = true;
    if (partial[i] == '}') inBraces = false;
    if (partial[i] == '/' && !inBraces) last = i;
  }
  const std::string base(partial.substr(0, last));
  const std::string_view tail = partial.substr(last + 1);
  std::vector<KeypathStep> steps;
  if (!base.empty() && !SplitKeypath(base, &steps)) return out;
  const lysc_node* parent = nullptr;
  for (const KeypathStep& step : steps) {
    parent = ChildNode(data.schema, parent, step.name);
    if (!parent) return out;
  }
  if (const size_t brace = tail.find('{'); brace != std::string_view::npos) {
    const std::string name(tail.substr(0, brace));
    const lysc_node* node = ChildNode(data.schema, parent, name);
    if (!node) return out;
    const json* at = DataAt(data, steps);
    const json* entries = at ? Member(at, name) : nullptr;
    if (!entries || !entries->is_array()) return out;
    const bool list = node->nodetype == LYS_LIST;
    const std::vector<std::string> keys = list ? KeyNames(node) : std::vector<std::string>();
    for (const json& e : *entries) {
      const std::string key = list ? EntryKeys(e, keys) : QuoteKey(ScalarText(e));
      out.push_back({base + "/" + name + "{" + key + (list ? "}/" : "}"), {}, !list});
    }
    return out;
  }
  const lys_module* module = parent ? nullptr : ly_ctx_get_module_implemented(data.schema, "pbr");
  for (const lysc_node* child = nullptr;
       (child = lys_getnext(child, parent, module ? module->compiled : nullptr, 0));) {
    if (!(child->flags & LYS_CONFIG_W) || lysc_is_key(child)) continue;
    const bool leaf = child->nodetype == LYS_LEAF;
    const char* suffix = leaf ? "" : (child->nodetype & (LYS_LIST | LYS_LEAFLIST)) ? "{" : "/";
    out.push_back({base + "/" + child->name + suffix, NodeHelp(child), leaf});
  }
  return out;
}

std::vector<Choice> EnumChoices(const lysc_node* node) {
  std::vector<Choice> out;
  if (!node || !(node->nodetype & (LYS_LEAF | LYS_LEAFLIST))) return out;
  const lysc_type* type = reinterpret_cast<const lysc_node_leaf*>(node)->type;
  if (type->basetype == LY_TYPE_ENUM) {
    const auto* en = reinterpret_cast<const lysc_type_enum*>(type);
    LY_ARRAY_COUNT_TYPE i;
    LY_ARRAY_FOR(en->enums, i) {
      out.push_back({en->enums[i].name, en->enums[i].dsc ? en->enums[i].dsc : ""});
    }
  } else {
    for (const std::string& name : EnumNames(node)) out.push_back({name, {}});
  }
  return out;
}

// Every value of the leaf or leaf-list at `steps` (list steps without keys) in the running
// configuration, each once.
void CollectValues(const json& node, const std::vector<std::string>& names, size_t at,
                   std::set<std::string>* values) {
  if (node.is_array()) {
    for (const json& e : node) CollectValues(e, names, at, values);
    return;
  }
  if (at == names.size()) {
    values->insert(ScalarText(node));
    return;
  }
  if (const json* child = Member(&node, names[at])) CollectValues(*child, names, at + 1, values);
}

std::vector<Choice> RunningValues(const CompletionData& data, std::vector<std::string> names) {
  std::vector<Choice> out;
  const json* running = data.running ? data.running() : nullptr;
  if (!running) return out;
  std::set<std::string> values;
  CollectValues(*running, names, 0, &values);
  for (const std::string& v : values) out.push_back({QuoteWord(v), {}});
  return out;
}

std::vector<Choice> Values(const SyntaxWord& word, const std::string& previous,
                           const CompletionData& data, bool* file) {
  switch (word.value) {
    case WordKind::kPath:
      return {};  // filled by the caller, which knows the partial path
    case WordKind::kLeafValue:
      return EnumChoices(NodeAt(data.schema, previous));
    case WordKind::kFile:
      *file = true;
      return {};
    case WordKind::kRuleId: {
      std::vector<Choice> ids = RunningValues(data, {"router", "pbr", "id"});
      std::sort(ids.begin(), ids.end(), [](const Choice& a, const Choice& b) {
        return a.word.size() != b.word.size() ? a.word.size() < b.word.size() : a.word < b.word;
      });
      return ids;
    }
    case WordKind::kStatus:
      return EnumChoices(NodeAt(data.schema, "/router/pbr-status/rule/hw-status"));
    case WordKind::kInterface:
      return RunningValues(data, {"router", "pbr", "rule", "match", "interface"});
    case WordKind::kChoice: {
      std::vector<Choice> out;
      std::string_view rest = word.choices;
      while (!rest.empty()) {
        const size_t bar = rest.find('|');
        out.push_back({std::string(rest.substr(0, bar)), {}});
        rest = bar == std::string_view::npos ? std::string_view() : rest.substr(bar + 1);
      }
      return out;
    }
    default:
      return {};
  }
}

const std::vector<CommandSyntax> kTable = {
    {"show", "show the configuration, the rules or the candidate", {}, {}},
    {"show running",
     "the running configuration",
     {{"--json", "as RFC 7951 JSON"},
      {"--format", "tree, json, xml, or set commands that load back", WordKind::kChoice,
       "tree|json|xml|set"}},
     {}},
    {"show pbr",
     "every rule with its priority, interfaces, hardware status and description",
     {{"status", "only rules with this hardware status", WordKind::kStatus},
      {"interface", "only rules matching this ingress interface", WordKind::kInterface},
      {"next-hop", "only rules forwarding to this address", WordKind::kAddress},
      {"--sort", "id, or priority for evaluation order", WordKind::kChoice, "id|priority"},
      {"--json", "as RFC 7951 JSON, one rule a line"}},
     {{"ID", "only this rule", WordKind::kRuleId}}},
    {"show candidate",
     "the candidate's changes against running, as set/delete lines",
     {{"--json", "as JSON"}},
     {},
     true},
    {"show commits", "the commit history", {{"--json", "as JSON"}}, {}},
    {"show commit",
     "the changes of one commit",
     {{"--json", "as JSON"}},
     {{"ID", "a commit id, as show commits lists them"}}},
    {"set",
     "set a leaf, or create a list or leaf-list entry",
     {},
     {{"PATH", "keypath, such as /router/pbr{7}/rule/priority", WordKind::kPath},
      {"VALUE", "the leaf's value", WordKind::kLeafValue}}},
    {"delete",
     "delete a node with everything below it",
     {},
     {{"PATH", "keypath, such as /router/pbr{7}", WordKind::kPath}}},
    {"load", "load a document into the running configuration", {}, {}},
    {"load merge",
     "merge a JSON or XML document",
     {{"--format", "json or xml", WordKind::kChoice, "json|xml"},
      {"--dry-run", "show what would change; commit nothing"}},
     {{"FILE", "the document", WordKind::kFile}}},
    {"load replace",
     "replace the configuration with a JSON or XML document",
     {{"--format", "json or xml", WordKind::kChoice, "json|xml"},
      {"--dry-run", "show what would change; commit nothing"}},
     {{"FILE", "the document", WordKind::kFile}}},
    {"commit",
     "commit the candidate",
     {{"confirmed", "undone after SECONDS (600) unless confirmed"},
      {"comment", "a comment kept in the history", WordKind::kNone}},
     {},
     true},
    {"confirm", "keep this session's confirmed commit", {}, {}, true},
    {"abort", "undo this session's confirmed commit", {}, {}, true},
    {"validate", "check the whole candidate; nothing is committed", {}, {}, true},
    {"update", "rebase the candidate on the current running configuration", {}, {}, true},
    {"discard", "drop the candidate", {}, {}, true},
    {"lock",
     "refuse others' commits until unlock or the end of the session",
     {},
     {{"TARGET", "running (the default) or candidate", WordKind::kChoice, "running|candidate"}},
     true},
    {"unlock",
     "release a lock this session holds",
     {},
     {{"TARGET", "running (the default) or candidate", WordKind::kChoice, "running|candidate"}},
     true},
    {"rollback",
     "commit the configuration as it was right after commit ID",
     {{"--dry-run", "show the changes; commit nothing"}},
     {{"ID", "a commit id, as show commits lists them"}}},
    {"debug",
     "show the trace levels of every process, or change them at once",
     {},
     {{"CATEGORY", "a log category, or '*' for every one"},
      {"LEVEL", "a number, or off"}}},
    {"help", "the commands", {}, {}},
    {"exit", "leave the shell", {}, {}, true},
    {"quit", "leave the shell", {}, {}, true},
};

std::vector<std::string> Words(std::string_view text) {
  std::vector<std::string> words;
  std::string ignored;
  SplitWords(text, &words, &ignored);
  return words;
}

}  // namespace

const std::vector<CommandSyntax>& CommandTable() {
  return kTable;
}

std::vector<Choice> NextWords(const std::vector<std::string>& before, std::string_view partial,
                              const CompletionData& data, bool forHelp, bool* file) {
  *file = false;
  std::vector<std::string> words = before;
  // Edits chained with -- : only the last one counts.
  if (!words.empty() && (words[0] == "set" || words[0] == "delete")) {
    const auto sep = std::find(words.rbegin(), words.rend(), "--");
    if (sep != words.rend()) words.erase(words.begin(), sep.base());
  }
  // The deepest row whose words begin the line.
  const CommandSyntax* row = nullptr;
  size_t rowWords = 0;
  for (const CommandSyntax& c : kTable) {
    const std::vector<std::string> cw = Words(c.words);
    if (cw.size() > words.size() || cw.size() <= rowWords) continue;
    if (std::equal(cw.begin(), cw.end(), words.begin())) {
      row = &c;
      rowWords = cw.size();
    }
  }
  std::vector<Choice> out;
  const std::string prefix = row ? std::string(row->words) + " " : std::string();
  if (!row && !words.empty()) return out;
  const std::vector<std::string> rest(words.begin() + static_cast<long>(rowWords), words.end());
  if (rest.empty()) {
    // The next level of a command ("show" -> running, pbr, candidate).
    for (const CommandSyntax& c : kTable) {
      if (!std::string_view(c.words).starts_with(prefix) && row) continue;
      const std::vector<std::string> cw = Words(c.words);
      if (cw.size() == rowWords + 1) out.push_back({cw.back(), std::string(c.help)});
    }
  }
  if (row) {
    std::set<std::string_view> used;
    const SyntaxWord* pending = nullptr;
    size_t position = 0;
    for (const std::string& w : rest) {
      if (pending) {
        pending = nullptr;
        continue;
      }
      const auto opt = std::find_if(row->options.begin(), row->options.end(),
                                    [&](const SyntaxWord& o) { return o.word == w; });
      if (opt == row->options.end()) {
        ++position;
        continue;
      }
      used.insert(opt->word);
      if (opt->value != WordKind::kNone) pending = &*opt;
    }
    const std::string previous = rest.empty() ? std::string() : rest.back();
    if (pending) {
      out = Values(*pending, previous, data, file);
      if (forHelp && out.empty())
        out.push_back({std::string(pending->word) + " ...", std::string(pending->help)});
    } else {
      for (const SyntaxWord& o : row->options) {
        if (!used.count(o.word)) out.push_back({std::string(o.word), std::string(o.help)});
      }
      if (position < row->positional.size()) {
        const SyntaxWord& p = row->positional[position];
        std::vector<Choice> values = p.value == WordKind::kPath ? PathChoices(partial, data)
                                                                : Values(p, previous, data, file);
        if (forHelp) {
          std::string help(p.help);
          if (p.value == WordKind::kLeafValue) {
            if (const lysc_node* leaf = NodeAt(data.schema, previous)) help = TypeSummary(leaf);
          }
          out.push_back({std::string(p.word), help});
        }
        out.insert(out.end(), values.begin(), values.end());
      }
    }
  }
  std::erase_if(out, [&](const Choice& c) { return !c.word.starts_with(partial); });
  return out;
}

}  // namespace pbr::cli
