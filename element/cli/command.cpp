#include "element/cli/command.h"

#include <charconv>

namespace pbr::cli {
namespace {

constexpr std::string_view kUsage =
    R"(Usage: pbr-cli [--timeout SECONDS] [COMMAND]

Commands (each one commit; without a command pbr-cli reads commands interactively):
  show running [--json]                 the running configuration, as a tree or as JSON
  show pbr [ID] [--json]                the operational view of every rule or of rule ID
  set PATH [VALUE] [-- set|delete ...]  set a leaf, or create a list or leaf-list entry
  delete PATH [-- set|delete ...]       delete a node with everything below it
  load merge|replace FILE [--format json|xml]
                                        merge a document into the running configuration
                                        or replace it (format by the file's extension)
  debug [CATEGORY LEVEL | CATEGORY=LEVEL,...]
                                        show the trace levels of every process, or change
                                        them at once (LEVEL a number or off; '*' is every
                                        category)
  help                                  this text

Paths are keypaths without prefixes; keys go in braces:
  /router/pbr{7}/rule/priority   /router/pbr{7}/rule/match/interface{eth1}

Exit status: 0 done; 1 refused by the server (the path and the reason are printed);
2 not a valid command; 3 the management server cannot be reached or did not answer.
)";

constexpr std::string_view kShellHelp =
    R"(Commands:
  show running [--json]        the running configuration
  show pbr [ID] [--json]       the operational view of every rule or of rule ID
  show candidate               the changes that commit will send
  set PATH [VALUE]             add a change to the candidate: set a leaf, or create a list
                               or leaf-list entry
  delete PATH                  add a change to the candidate: delete a node
  commit                       send the candidate as one commit
  discard                      drop the candidate
  load merge|replace FILE [--format json|xml]
                               load a document and commit it at once
  debug [CATEGORY LEVEL]       show or change the trace levels of every process
  help                         this text
  exit                         leave (an uncommitted candidate is dropped)

Paths are keypaths without prefixes: /router/pbr{7}/rule/priority. Values with blanks go in
double quotes. Several changes can also be given on one line, separated by --.
)";

ParseResult Fail(std::string error) {
  return {std::nullopt, std::move(error)};
}

bool ParseId(const std::string& word, uint32_t* id) {
  const char* end = word.data() + word.size();
  auto [ptr, ec] = std::from_chars(word.data(), end, *id);
  return ec == std::errc() && ptr == end && !word.empty();
}

ParseResult ParseShow(std::span<const std::string> args, Context context) {
  if (args.empty()) return Fail("show what? running, pbr or candidate");
  const std::string& what = args[0];
  bool json = false;
  std::vector<std::string> rest;
  for (const std::string& word : args.subspan(1)) {
    if (word == "--json") {
      json = true;
    } else if (word.starts_with("--")) {
      return Fail("unknown option " + word + " for show " + what);
    } else {
      rest.push_back(word);
    }
  }
  if (what == "running") {
    if (!rest.empty()) return Fail("show running takes no argument but --json");
    return {ShowRunning{json}, {}};
  }
  if (what == "pbr") {
    if (rest.size() > 1) return Fail("show pbr takes at most one rule id");
    ShowPbr show{std::nullopt, json};
    if (!rest.empty()) {
      uint32_t id = 0;
      if (!ParseId(rest[0], &id)) return Fail("not a rule id: " + rest[0]);
      show.id = id;
    }
    return {show, {}};
  }
  if (what == "candidate" && context == Context::kShell) {
    if (!rest.empty() || json) return Fail("show candidate takes no argument");
    return {ShowCandidate{}, {}};
  }
  return Fail("cannot show " + what +
              (context == Context::kShell ? "; running, pbr or candidate" : "; running or pbr"));
}

// set PATH [VALUE] and delete PATH, chained with --.
ParseResult ParseEdit(std::span<const std::string> words) {
  EditCommand edit;
  size_t i = 0;
  while (true) {
    const std::string& verb = words[i];
    size_t end = i + 1;
    while (end < words.size() && words[end] != "--") ++end;
    const auto args = words.subspan(i + 1, end - i - 1);
    mgmt::EditOperation op;
    if (verb == "set") {
      if (args.empty() || args.size() > 2) return Fail("usage: set PATH [VALUE]");
      op.set_kind(mgmt::EditOperation::SET);
      op.set_path(args[0]);
      if (args.size() == 2) op.set_value(args[1]);
    } else if (verb == "delete") {
      if (args.size() != 1) return Fail("usage: delete PATH");
      op.set_kind(mgmt::EditOperation::DELETE);
      op.set_path(args[0]);
    } else {
      return Fail("after --, set or delete is expected, not " + verb);
    }
    if (!op.path().starts_with('/')) return Fail("a path starts with /: " + op.path());
    edit.operations.push_back(std::move(op));
    if (end == words.size()) break;
    i = end + 1;
    if (i == words.size()) return Fail("set or delete is expected after --");
  }
  return {std::move(edit), {}};
}

// debug; debug CATEGORY LEVEL; debug CATEGORY=LEVEL,... as PBR_ELEMENT_TRACE is written.
ParseResult ParseDebug(std::span<const std::string> args) {
  if (args.empty()) return {DebugCommand{}, {}};
  if (args.size() == 1 && args[0].find('=') != std::string::npos) {
    return {DebugCommand{args[0]}, {}};
  }
  if (args.size() == 2) return {DebugCommand{args[0] + "=" + args[1]}, {}};
  return Fail("usage: debug [CATEGORY LEVEL | CATEGORY=LEVEL,...]");
}

ParseResult ParseLoad(std::span<const std::string> args) {
  LoadCommand load;
  std::optional<mgmt::Load::Format> format;
  std::vector<std::string> rest;
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--format") {
      if (i + 1 == args.size()) return Fail("--format needs json or xml");
      const std::string& f = args[++i];
      if (f == "json") {
        format = mgmt::Load::JSON;
      } else if (f == "xml") {
        format = mgmt::Load::XML;
      } else {
        return Fail("unknown format " + f + "; json or xml");
      }
    } else {
      rest.push_back(args[i]);
    }
  }
  if (rest.size() != 2) return Fail("usage: load merge|replace FILE [--format json|xml]");
  if (rest[0] == "merge") {
    load.mode = mgmt::Load::MERGE;
  } else if (rest[0] == "replace") {
    load.mode = mgmt::Load::REPLACE;
  } else {
    return Fail("load merge or load replace, not " + rest[0]);
  }
  load.file = rest[1];
  if (!format) {
    if (load.file.ends_with(".json")) {
      format = mgmt::Load::JSON;
    } else if (load.file.ends_with(".xml")) {
      format = mgmt::Load::XML;
    } else {
      return Fail("cannot tell the format of " + load.file +
                  "; name it .json or .xml, or give "
                  "--format json|xml");
    }
  }
  load.format = *format;
  return {std::move(load), {}};
}

}  // namespace

ParseResult Parse(std::span<const std::string> words, Context context) {
  if (words.empty()) return Fail("no command");
  const std::string& verb = words[0];
  const auto args = words.subspan(1);
  const bool shell = context == Context::kShell;
  if (verb == "show") return ParseShow(args, context);
  if (verb == "set" || verb == "delete") return ParseEdit(words);
  if (verb == "load") return ParseLoad(args);
  if (verb == "debug") return ParseDebug(args);
  if (verb == "help" || (!shell && (verb == "--help" || verb == "-h"))) return {Help{}, {}};
  if (shell && args.empty()) {
    if (verb == "commit") return {Commit{}, {}};
    if (verb == "discard") return {Discard{}, {}};
    if (verb == "exit" || verb == "quit") return {Exit{}, {}};
  }
  if (shell && (verb == "commit" || verb == "discard" || verb == "exit" || verb == "quit")) {
    return Fail(verb + " takes no argument");
  }
  return Fail("unknown command " + verb + "; try help");
}

bool SplitWords(std::string_view line, std::vector<std::string>* words, std::string* error) {
  words->clear();
  size_t i = 0;
  const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
  while (true) {
    while (i < line.size() && blank(line[i])) ++i;
    if (i == line.size()) break;
    if (words->empty() && line[i] == '#') break;
    std::string word;
    while (i < line.size() && !blank(line[i])) {
      const char c = line[i++];
      if (c == '"') {
        for (;; ++i) {
          if (i == line.size()) {
            *error = "unterminated \"";
            return false;
          }
          if (line[i] == '"') break;
          if (line[i] == '\\' && i + 1 < line.size()) ++i;
          word += line[i];
        }
        ++i;
      } else if (c == '\'') {
        const size_t close = line.find('\'', i);
        if (close == std::string_view::npos) {
          *error = "unterminated '";
          return false;
        }
        word.append(line.substr(i, close - i));
        i = close + 1;
      } else if (c == '{') {
        // Keys keep their quotes and blanks: the server's path syntax reads them.
        word += c;
        bool quoted = false;
        for (;; ++i) {
          if (i == line.size()) {
            *error = "unterminated {";
            return false;
          }
          word += line[i];
          if (line[i] == '"') quoted = !quoted;
          if (line[i] == '}' && !quoted) break;
        }
        ++i;
      } else if (c == '\\' && i < line.size()) {
        word += line[i++];
      } else {
        word += c;
      }
    }
    words->push_back(std::move(word));
  }
  return true;
}

std::string QuoteWord(std::string_view value) {
  bool plain = !value.empty() && value[0] != '#';
  for (char c : value) {
    if (c == ' ' || c == '\t' || c == '"' || c == '\'' || c == '\\' || c == '{' || c == '}' ||
        static_cast<unsigned char>(c) < 0x20) {
      plain = false;
    }
  }
  if (plain) return std::string(value);
  std::string out = "\"";
  for (char c : value) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + "\"";
}

std::string QuoteKey(std::string_view key) {
  if (!key.empty() && key.find_first_of(" \t{}") == std::string_view::npos) {
    return std::string(key);
  }
  return "\"" + std::string(key) + "\"";
}

std::string FormatOperation(const mgmt::EditOperation& operation) {
  if (operation.kind() == mgmt::EditOperation::DELETE) return "delete " + operation.path();
  std::string out = "set " + operation.path();
  if (!operation.value().empty()) out += " " + QuoteWord(operation.value());
  return out;
}

std::string_view UsageText() {
  return kUsage;
}

std::string_view ShellHelpText() {
  return kShellHelp;
}

}  // namespace pbr::cli
