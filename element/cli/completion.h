// What may follow at a point of a shell line, for Tab and `?`: command words from one table
// (a new command gets completion and help by a row there), keypaths and their keys, and the
// values a leaf or an option takes, from the module and the running configuration.
#pragma once

#include <libyang/libyang.h>

#include <nlohmann/json_fwd.hpp>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace pbr::cli {

// What a word of a command is.
enum class WordKind {
  kNone,       // nothing: a keyword or a flag alone
  kPath,       // a keypath
  kLeafValue,  // the value of the leaf named by the word before
  kFile,       // a file name
  kRuleId,     // an id of a configured rule
  kStatus,     // a hardware status name
  kInterface,  // a configured ingress interface name
  kAddress,    // an IPv4 address
  kChoice,     // one of the words in `choices`, separated by |
};

struct SyntaxWord {
  std::string_view word;  // a keyword or option; for a positional word, its placeholder
  std::string_view help;
  WordKind value = WordKind::kNone;  // options: what follows them; positional: what it is
  std::string_view choices = {};
};

// One command, or one level of a command ("show" leads to "show running", "show pbr").
struct CommandSyntax {
  std::string_view words;  // "show pbr"
  std::string_view help;
  std::vector<SyntaxWord> options;     // may follow in any order, each once
  std::vector<SyntaxWord> positional;  // in order
  bool shellOnly = false;
};

const std::vector<CommandSyntax>& CommandTable();

struct Choice {
  std::string word;   // what completes the word being typed
  std::string help;   // for ?
  bool final = true;  // a whole word: a blank may follow (not so after "/router/" or "pbr{")
};

// Where completions that need data come from.
struct CompletionData {
  const ly_ctx* schema = nullptr;
  // The running configuration (RFC 7951 JSON, parsed); null when it cannot be had.
  std::function<const nlohmann::json*()> running;
};

// What may stand at the word being typed: `before` are the words before it, `partial` its
// beginning. For ?, placeholders (PATH, FILE) are listed with their help; for Tab only words.
// *file is set when the word is a file name (the shell's file completion takes over).
std::vector<Choice> NextWords(const std::vector<std::string>& before, std::string_view partial,
                              const CompletionData& data, bool forHelp, bool* file);

}  // namespace pbr::cli
