// The operator's command language of pbr-cli: the words of a command line (from argv, or split
// from a line of the interactive shell) turned into one command. Parsing touches nothing; the
// session carries the command out.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "element/cli/rule_view.h"
#include "element/mgmt/mgmt.pb.h"

namespace pbr::cli {

struct ShowRunning {
  enum class Format { kTree, kJson, kXml, kSet };
  Format format = Format::kTree;
};

struct ShowPbr {
  std::optional<uint32_t> id;  // empty: every rule
  RuleQuery query;
  bool json = false;
};

struct ShowCandidate {
  bool json = false;
};

// The commit history, or with an id the changes of that commit.
struct ShowCommits {
  std::optional<uint64_t> id;
  bool json = false;
};

struct RollbackCommand {
  uint64_t id = 0;
  bool dryRun = false;
};

// One or more set/delete operations, committed as one (one-shot form) or added to the
// candidate (shell).
struct EditCommand {
  std::vector<mgmt::EditOperation> operations;
};

struct LoadCommand {
  mgmt::Load::Mode mode = mgmt::Load::MERGE;
  mgmt::Load::Format format = mgmt::Load::JSON;
  std::string file;
  bool dryRun = false;
};

// Trace levels of the element's processes: shown, or changed ("CATEGORY=LEVEL,...").
struct DebugCommand {
  std::optional<std::string> levels;
};

struct Commit {
  std::string comment;
  std::optional<uint32_t> confirmSeconds;  // commit confirmed
};
struct Discard {};
struct Validate {};
struct Update {};
struct Confirm {};
struct Abort {};
struct LockCommand {
  mgmt::LockRequest::Target target = mgmt::LockRequest::RUNNING;
  bool unlock = false;
};
struct Help {};
struct Exit {};

using Command = std::variant<ShowRunning, ShowPbr, ShowCandidate, ShowCommits, EditCommand,
                             LoadCommand, RollbackCommand, Commit, Discard, Validate, Update,
                             Confirm, Abort, LockCommand, Help, Exit, DebugCommand>;

// Where a command is given: the one-shot form commits each edit at once; the shell collects
// edits in a candidate and knows commit, discard, show candidate and exit.
enum class Context { kOneShot, kShell };

struct ParseResult {
  std::optional<Command> command;  // empty with `error` set when the words are not a command
  std::string error;
};

// `quoted` (from SplitWords) marks the words written in quotes: a quoted -- is a value, not the
// separator of changes.
ParseResult Parse(std::span<const std::string> words, Context context,
                  const std::vector<bool>* quoted = nullptr);

// Splits a shell line into words: blanks separate words; "..." groups with \" and \\ escapes
// and \n, \r, \t for line feed, carriage return and tab; '...' groups literally; a {...} key block
// of a path is kept whole, quotes included, for the server's path syntax. A line whose first
// word starts with # is a comment (no words). False with *error on an unterminated quote or
// brace. `quoted`, when given, tells for each word whether any of it was quoted or escaped.
bool SplitWords(std::string_view line, std::vector<std::string>* words, std::string* error,
                std::vector<bool>* quoted = nullptr);

// A value as the shell reads it back: bare when it is a plain word, else double-quoted.
std::string QuoteWord(std::string_view value);

// A key as the path syntax takes it inside braces: double-quoted when it holds a blank, a brace,
// a quote or a backslash, the last two escaped with a backslash.
std::string QuoteKey(std::string_view key);

// The edit operation as a shell command ("set PATH VALUE", "delete PATH").
std::string FormatOperation(const mgmt::EditOperation& operation);

// Help texts: the one-shot usage and the shell's commands.
std::string_view UsageText();
std::string_view ShellHelpText();

}  // namespace pbr::cli
