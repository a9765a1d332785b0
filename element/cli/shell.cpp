#include "element/cli/shell.h"

// readline's header needs stdio's FILE declared first.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <readline/history.h>
#include <readline/readline.h>

namespace pbr::cli {
namespace {

constexpr int kHistoryLength = 1000;

// Words completed at the start of a line, and after "show" and "load".
const std::vector<std::string> kCommands = {"show",    "set",      "delete",   "load",    "commit",
                                            "discard", "validate", "update",   "confirm", "abort",
                                            "lock",    "unlock",   "rollback", "help",    "exit"};
const std::vector<std::string> kShowWhat = {"running", "pbr", "candidate", "commits", "commit"};
const std::vector<std::string> kLoadModes = {"merge", "replace"};

const std::vector<std::string>* completionWords = nullptr;

char* NextCompletion(const char* text, int state) {
  static size_t index;
  if (state == 0) index = 0;
  const size_t len = std::strlen(text);
  while (completionWords && index < completionWords->size()) {
    const std::string& word = (*completionWords)[index++];
    if (word.compare(0, len, text) == 0) return strdup(word.c_str());
  }
  return nullptr;
}

char** Complete(const char* text, int start, int) {
  rl_attempted_completion_over = 1;  // no file names but for load's file
  const std::string before(rl_line_buffer, static_cast<size_t>(start));
  std::vector<std::string> words;
  std::string ignored;
  SplitWords(before, &words, &ignored);
  completionWords = nullptr;
  if (words.empty()) {
    completionWords = &kCommands;
  } else if (words.size() == 1 && words[0] == "show") {
    completionWords = &kShowWhat;
  } else if (words.size() == 1 && words[0] == "load") {
    completionWords = &kLoadModes;
  } else if (words.size() == 2 && words[0] == "load") {
    rl_attempted_completion_over = 0;
    return nullptr;
  }
  return rl_completion_matches(text, NextCompletion);
}

std::string HistoryPath() {
  const char* home = std::getenv("HOME");
  return home && *home ? std::string(home) + "/.pbr_cli_history" : std::string();
}

// One line of input; false at the end of the input.
bool ReadLine(std::istream& in, bool terminal, std::string* line) {
  if (!terminal) return static_cast<bool>(std::getline(in, *line));
  char* text = readline("pbr> ");
  if (!text) return false;
  *line = text;
  if (line->find_first_not_of(" \t") != std::string::npos) add_history(text);
  std::free(text);
  return true;
}

}  // namespace

int RunShell(Session& session, std::istream& in, std::ostream& err, bool terminal) {
  const std::string history = terminal ? HistoryPath() : std::string();
  if (terminal) {
    rl_readline_name = "pbr-cli";
    rl_attempted_completion_function = Complete;
    stifle_history(kHistoryLength);
    if (!history.empty()) read_history(history.c_str());
  }
  int result = kExitOk;
  std::string line, error;
  std::vector<std::string> words;
  while (!session.exitRequested() && ReadLine(in, terminal, &line)) {
    if (!SplitWords(line, &words, &error)) {
      err << "error: " << error << std::endl;
      result = kExitUsage;
      continue;
    }
    if (words.empty()) continue;
    const ParseResult parsed = Parse(words, Context::kShell);
    if (!parsed.command) {
      err << "error: " << parsed.error << std::endl;
      result = kExitUsage;
      continue;
    }
    if (const int status = session.Run(*parsed.command, Context::kShell)) result = status;
  }
  if (session.uncommittedEdits() > 0) {
    err << "warning: " << session.uncommittedEdits() << " uncommitted changes dropped" << std::endl;
  }
  if (terminal && !history.empty()) write_history(history.c_str());
  return result;
}

}  // namespace pbr::cli
