#include "element/cli/command.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>

namespace pbr::cli {
namespace {

constexpr std::string_view kUsage =
    R"(Usage: pbr-cli [--timeout SECONDS] [COMMAND]
       pbr-cli --version

Commands (each one commit; without a command pbr-cli reads commands interactively):
  show running [--json | --format tree|json|xml|set]
                                        the running configuration: a tree, JSON, XML, or
                                        set commands that the shell loads back
  show pbr [ID] [status S] [interface NAME] [next-hop ADDRESS] [--sort id|priority] [--json]
                                        every rule (or rule ID) with its priority, ingress
                                        interfaces, hardware status and description; the
                                        filters combine; --sort priority is evaluation order
  set PATH [VALUE] [-- set|delete ...]  set a leaf, or create a list or leaf-list entry
  delete PATH [-- set|delete ...]       delete a node with everything below it
  load merge|replace FILE [--format json|xml] [--dry-run]
                                        merge a document into the running configuration
                                        or replace it (format by the file's extension);
                                        prints the rules added, changed and deleted
  show commits [--json]                 the commit history
  show commit ID [--json]               the changes of commit ID
  rollback ID [--dry-run]               commit the configuration as it was after commit ID
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
  show running [--json | --format tree|json|xml|set]
                               the running configuration
  show pbr [ID] [status S] [interface NAME] [next-hop ADDRESS] [--sort id|priority] [--json]
                               every rule (or rule ID), filtered, in id or evaluation order
  show candidate [--json]      the candidate's changes against running, as set/delete lines
  show commits [--json]        the commit history; show commit ID: its changes
  set PATH [VALUE]             change the candidate: set a leaf, or create a list or
                               leaf-list entry
  delete PATH                  change the candidate: delete a node (or undo its set)
  validate                     check the whole candidate; nothing is committed
  commit [comment TEXT]        commit the candidate; refused when another commit has since
                               changed a rule it changes (then update or discard)
  commit confirmed [SECONDS] [comment TEXT]
                               commit, undone after SECONDS (600) unless confirmed
  confirm | abort              keep or undo this session's confirmed commit
  update                       rebase the candidate on the current running configuration
  discard                      drop the candidate
  lock | unlock [running|candidate]
                               refuse others' commits until unlock or the end of the session
  rollback ID [--dry-run]      commit the configuration as it was right after commit ID
  load merge|replace FILE [--format json|xml] [--dry-run]
                               load a document and commit it at once
  debug [CATEGORY LEVEL]       show or change the trace levels of every process
  help                         this text
  exit, quit                   leave (asks first when changes are not committed or a
                               confirmed commit is not confirmed)

Paths are keypaths without prefixes: /router/pbr{7}/rule/priority. Values with blanks go in
double quotes. Several changes can also be given on one line, separated by --.
Tab completes commands, paths, keys and values; ? lists what may follow; Ctrl-C clears the line.
)";

ParseResult Fail(std::string error) {
  return {std::nullopt, std::move(error)};
}

template <class T>
bool ParseId(const std::string& word, T* id) {
  const char* end = word.data() + word.size();
  auto [ptr, ec] = std::from_chars(word.data(), end, *id);
  return ec == std::errc() && ptr == end && !word.empty();
}

// The hardware status names a rule view can be filtered by.
constexpr std::string_view kStatusNames[] = {"programmed", "failed", "not-programmed"};

bool IsIpv4Address(const std::string& text) {
  in_addr address{};
  return ::inet_pton(AF_INET, text.c_str(), &address) == 1;
}

// show pbr [ID] [status S] [interface NAME] [next-hop ADDRESS] [--sort id|priority] [--json]
ParseResult ParseShowPbr(std::span<const std::string> args) {
  ShowPbr show;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& word = args[i];
    if (word == "--json") {
      show.json = true;
      continue;
    }
    const bool takesValue =
        word == "status" || word == "interface" || word == "next-hop" || word == "--sort";
    if (takesValue && i + 1 == args.size()) return Fail(word + " needs a value");
    if (word == "status") {
      const std::string& status = args[++i];
      if (std::find(std::begin(kStatusNames), std::end(kStatusNames), status) ==
          std::end(kStatusNames)) {
        return Fail("status is programmed, failed or not-programmed, not " + status);
      }
      show.query.status = status;
    } else if (word == "interface") {
      show.query.interface = args[++i];
    } else if (word == "next-hop") {
      if (!IsIpv4Address(args[i + 1])) return Fail(args[i + 1] + " is not an IPv4 address");
      show.query.nextHop = args[++i];
    } else if (word == "--sort") {
      const std::string& order = args[++i];
      if (order != "id" && order != "priority") return Fail("--sort id or --sort priority");
      show.query.byPriority = order == "priority";
    } else if (word.starts_with("--")) {
      return Fail("unknown option " + word + " for show pbr");
    } else {
      uint32_t id = 0;
      if (show.id) return Fail("show pbr takes at most one rule id");
      if (!ParseId(word, &id)) return Fail("not a rule id: " + word);
      show.id = id;
    }
  }
  return {show, {}};
}

ParseResult ParseShowRunning(std::span<const std::string> args) {
  ShowRunning show;
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--json") {
      show.format = ShowRunning::Format::kJson;
    } else if (args[i] == "--format" && i + 1 < args.size()) {
      const std::string& format = args[++i];
      if (format == "tree") {
        show.format = ShowRunning::Format::kTree;
      } else if (format == "json") {
        show.format = ShowRunning::Format::kJson;
      } else if (format == "xml") {
        show.format = ShowRunning::Format::kXml;
      } else if (format == "set") {
        show.format = ShowRunning::Format::kSet;
      } else {
        return Fail("unknown format " + format + "; tree, json, xml or set");
      }
    } else {
      return Fail("show running takes --json or --format tree|json|xml|set");
    }
  }
  return {show, {}};
}

ParseResult ParseShow(std::span<const std::string> args, Context context) {
  const std::string_view choices = context == Context::kShell
                                       ? "running, pbr, candidate, commits or commit ID"
                                       : "running, pbr, commits or commit ID";
  if (args.empty()) return Fail("show what? " + std::string(choices));
  const std::string& what = args[0];
  if (what == "running") return ParseShowRunning(args.subspan(1));
  if (what == "pbr") return ParseShowPbr(args.subspan(1));
  if (what == "candidate" && context == Context::kShell) {
    if (args.size() > 2 || (args.size() == 2 && args[1] != "--json")) {
      return Fail("show candidate takes no argument but --json");
    }
    return {ShowCandidate{args.size() == 2}, {}};
  }
  if (what == "commits" || what == "commit") {
    bool json = false;
    std::vector<std::string> rest;
    for (const std::string& word : args.subspan(1)) {
      if (word == "--json") {
        json = true;
      } else {
        rest.push_back(word);
      }
    }
    if (what == "commits") {
      if (!rest.empty()) return Fail("show commits takes no argument but --json");
      return {ShowCommits{std::nullopt, json}, {}};
    }
    uint64_t id = 0;
    if (rest.size() != 1 || !ParseId(rest[0], &id)) return Fail("usage: show commit ID [--json]");
    return {ShowCommits{id, json}, {}};
  }
  return Fail("cannot show " + what + "; " + std::string(choices));
}

// set PATH [VALUE] and delete PATH, chained with -- (unquoted).
ParseResult ParseEdit(std::span<const std::string> words, const std::vector<bool>* quoted) {
  const auto separator = [&](size_t at) {
    return words[at] == "--" && !(quoted && at < quoted->size() && (*quoted)[at]);
  };
  EditCommand edit;
  size_t i = 0;
  while (true) {
    const std::string& verb = words[i];
    size_t end = i + 1;
    while (end < words.size() && !separator(end)) ++end;
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
    if (args[i] == "--dry-run") {
      load.dryRun = true;
    } else if (args[i] == "--format") {
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
  if (rest.size() != 2) {
    return Fail("usage: load merge|replace FILE [--format json|xml] [--dry-run]");
  }
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

ParseResult ParseRollback(std::span<const std::string> args) {
  RollbackCommand rollback;
  bool haveId = false;
  for (const std::string& word : args) {
    if (word == "--dry-run") {
      rollback.dryRun = true;
    } else if (!haveId && ParseId(word, &rollback.id)) {
      haveId = true;
    } else {
      return Fail("usage: rollback ID [--dry-run]");
    }
  }
  if (!haveId) return Fail("usage: rollback ID [--dry-run]");
  return {rollback, {}};
}

// commit [confirmed [SECONDS]] [comment TEXT]
ParseResult ParseCommit(std::span<const std::string> args) {
  Commit commit;
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "comment" && i + 1 < args.size()) {
      commit.comment = args[++i];
    } else if (args[i] == "confirmed" && !commit.confirmSeconds) {
      commit.confirmSeconds = 600;
      uint32_t seconds = 0;
      if (i + 1 < args.size() && ParseId(args[i + 1], &seconds)) {
        if (seconds == 0) return Fail("a confirmed commit needs at least 1 second");
        commit.confirmSeconds = seconds;
        ++i;
      }
    } else {
      return Fail("usage: commit [confirmed [SECONDS]] [comment TEXT]");
    }
  }
  return {commit, {}};
}

ParseResult ParseLock(const std::string& verb, std::span<const std::string> args) {
  LockCommand lock;
  lock.unlock = verb == "unlock";
  if (args.size() > 1) return Fail("usage: " + verb + " [running|candidate]");
  if (!args.empty()) {
    if (args[0] == "candidate") {
      lock.target = mgmt::LockRequest::CANDIDATE;
    } else if (args[0] != "running") {
      return Fail(verb + " running or candidate, not " + args[0]);
    }
  }
  return {lock, {}};
}

}  // namespace

ParseResult Parse(std::span<const std::string> words, Context context,
                  const std::vector<bool>* quoted) {
  if (words.empty()) return Fail("no command");
  const std::string& verb = words[0];
  const auto args = words.subspan(1);
  const bool shell = context == Context::kShell;
  if (verb == "show") return ParseShow(args, context);
  if (verb == "set" || verb == "delete") return ParseEdit(words, quoted);
  if (verb == "load") return ParseLoad(args);
  if (verb == "rollback") return ParseRollback(args);
  if (verb == "debug") return ParseDebug(args);
  if (verb == "help" || (!shell && (verb == "--help" || verb == "-h"))) return {Help{}, {}};
  if (shell && verb == "commit") return ParseCommit(args);
  if (shell && (verb == "lock" || verb == "unlock")) return ParseLock(verb, args);
  if (shell && args.empty()) {
    if (verb == "discard") return {Discard{}, {}};
    if (verb == "validate") return {Validate{}, {}};
    if (verb == "update") return {Update{}, {}};
    if (verb == "confirm") return {Confirm{}, {}};
    if (verb == "abort") return {Abort{}, {}};
    if (verb == "exit" || verb == "quit") return {Exit{}, {}};
  }
  if (shell && (verb == "discard" || verb == "validate" || verb == "update" || verb == "confirm" ||
                verb == "abort" || verb == "exit" || verb == "quit")) {
    return Fail(verb + " takes no argument");
  }
  return Fail("unknown command " + verb + "; try help");
}

bool SplitWords(std::string_view line, std::vector<std::string>* words, std::string* error,
                std::vector<bool>* quoted) {
  words->clear();
  if (quoted) quoted->clear();
  size_t i = 0;
  const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
  while (true) {
    while (i < line.size() && blank(line[i])) ++i;
    if (i == line.size()) break;
    if (words->empty() && line[i] == '#') break;
    std::string word;
    bool literal = false;
    while (i < line.size() && !blank(line[i])) {
      const char c = line[i++];
      if (c == '"') {
        literal = true;
        for (;; ++i) {
          if (i == line.size()) {
            *error = "unterminated \"";
            return false;
          }
          if (line[i] == '"') break;
          if (line[i] == '\\' && i + 1 < line.size()) {
            const char escaped = line[++i];
            word += escaped == 'n' ? '\n' : escaped == 'r' ? '\r' : escaped == 't' ? '\t' : escaped;
            continue;
          }
          word += line[i];
        }
        ++i;
      } else if (c == '\'') {
        literal = true;
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
        bool inQuotes = false;
        for (;; ++i) {
          if (i == line.size()) {
            *error = "unterminated {";
            return false;
          }
          word += line[i];
          if (inQuotes && line[i] == '\\' && i + 1 < line.size()) {
            word += line[++i];  // \" stays in the key for the server to read
            continue;
          }
          if (line[i] == '"') inQuotes = !inQuotes;
          if (line[i] == '}' && !inQuotes) break;
        }
        ++i;
      } else if (c == '\\' && i < line.size()) {
        literal = true;
        word += line[i++];
      } else {
        word += c;
      }
    }
    words->push_back(std::move(word));
    if (quoted) quoted->push_back(literal);
  }
  return true;
}

std::string QuoteWord(std::string_view value) {
  bool plain = !value.empty() && value[0] != '#' && value != "--";
  for (char c : value) {
    if (c == ' ' || c == '\t' || c == '"' || c == '\'' || c == '\\' || c == '{' || c == '}' ||
        static_cast<unsigned char>(c) < 0x20) {
      plain = false;
    }
  }
  if (plain) return std::string(value);
  // Line feeds, carriage returns and tabs go as escapes: the first two would end the line.
  std::string out = "\"";
  for (char c : value) {
    if (c == '\n' || c == '\r' || c == '\t') {
      out += c == '\n' ? "\\n" : c == '\r' ? "\\r" : "\\t";
      continue;
    }
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + "\"";
}

std::string QuoteKey(std::string_view key) {
  if (!key.empty() && key.find_first_of(" \t{}\"\\") == std::string_view::npos) {
    return std::string(key);
  }
  std::string out = "\"";
  for (const char c : key) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + "\"";
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
