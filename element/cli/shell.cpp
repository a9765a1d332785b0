#include "element/cli/shell.h"

// readline's header needs stdio's FILE declared first.
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include <readline/history.h>
#include <readline/readline.h>

#include "element/cli/completion.h"
#include "element/cli/schema_help.h"

namespace pbr::cli {
namespace {

constexpr int kHistoryLength = 1000;
constexpr size_t kMostHelpLines = 40;  // ? lists no more choices than a screen holds

// The shell's state that readline's callbacks reach: they take no context argument.
struct ShellState {
  Session* session = nullptr;
  std::optional<nlohmann::json> running;  // fetched for completion, dropped after each command
  bool runningFetched = false;
  std::vector<Choice> matches;
};
ShellState* state = nullptr;

volatile sig_atomic_t interrupted = 0;
// The signal mask while readline waits for a key: SIGINT is blocked around readline and let in
// only inside that wait, so that a Ctrl-C is never lost between a check and the read.
sigset_t keyWaitMask;

void OnInterrupt(int) {
  interrupted = 1;
}

// readline's key reader. Ctrl-C drops the line being edited and starts a fresh prompt, as
// shells do, instead of ending the shell and its candidate.
int ReadKey(FILE* in) {
  for (;;) {
    if (interrupted) {
      interrupted = 0;
      rl_replace_line("", 0);
      std::fputs("^C\n", rl_outstream);
      rl_on_new_line();
      rl_redisplay();
    }
    pollfd p{fileno(in), POLLIN, 0};
    if (::ppoll(&p, 1, nullptr, &keyWaitMask) < 0) {
      if (errno == EINTR) continue;
      return EOF;
    }
    unsigned char c;
    const ssize_t n = ::read(p.fd, &c, 1);
    if (n == 1) return c;
    if (n < 0 && errno == EINTR) continue;
    return EOF;
  }
}

// readline with SIGINT held back but for the wait for a key.
char* ReadlineGuarded(const char* prompt) {
  sigset_t interrupt, previous;
  sigemptyset(&interrupt);
  sigaddset(&interrupt, SIGINT);
  sigprocmask(SIG_BLOCK, &interrupt, &previous);
  keyWaitMask = previous;
  sigdelset(&keyWaitMask, SIGINT);
  interrupted = 0;
  char* text = readline(prompt);
  sigprocmask(SIG_SETMASK, &previous, nullptr);
  return text;
}

const nlohmann::json* Running() {
  if (!state->runningFetched) {
    state->runningFetched = true;
    std::string text;
    if (state->session->RunningJson(&text) == kExitOk) {
      state->running = nlohmann::json::parse(text, nullptr, false);
      if (state->running->is_discarded()) state->running.reset();
    }
  }
  return state->running ? &*state->running : nullptr;
}

CompletionData Data() {
  return {state->session->Schema(), Running};
}

// The words before `end` in the line being edited, and the beginning of the word at `end`.
void WordsBefore(int end, std::vector<std::string>* words, std::string* partial) {
  const std::string line(rl_line_buffer, static_cast<size_t>(end));
  std::string ignored;
  const size_t blank = line.find_last_of(" \t");
  const size_t start = blank == std::string::npos ? 0 : blank + 1;
  *partial = line.substr(start);
  SplitWords(line.substr(0, start), words, &ignored);
}

char* NextMatch(const char*, int index) {
  static size_t next;
  if (index == 0) next = 0;
  if (next >= state->matches.size()) return nullptr;
  return strdup(state->matches[next++].word.c_str());
}

char** Complete(const char*, int start, int) {
  rl_attempted_completion_over = 1;
  std::vector<std::string> words;
  std::string partial;
  WordsBefore(start, &words, &partial);
  partial.assign(rl_line_buffer + start, static_cast<size_t>(rl_point - start));
  bool file = false;
  state->matches = NextWords(words, partial, Data(), false, &file);
  if (file) {
    rl_attempted_completion_over = 0;  // readline's file names
    return nullptr;
  }
  if (state->matches.empty()) return nullptr;
  // After "/router/" or "pbr{" the path goes on: no blank.
  rl_completion_suppress_append = std::any_of(state->matches.begin(), state->matches.end(),
                                              [](const Choice& c) { return !c.final; });
  return rl_completion_matches("", NextMatch);
}

// ?: lists what may follow, with the module's descriptions, and gives the line back as it was.
// Inside quotes it is just a character.
int ShowChoices(int count, int key) {
  const std::string line(rl_line_buffer, static_cast<size_t>(rl_point));
  if (std::count(line.begin(), line.end(), '"') % 2 == 1) return rl_insert(count, key);
  std::vector<std::string> words;
  std::string partial;
  WordsBefore(rl_point, &words, &partial);
  bool file = false;
  const std::vector<Choice> choices = NextWords(words, partial, Data(), true, &file);
  std::fputs("?\n", rl_outstream);
  // Keypaths are listed by their next step.
  const size_t shown = partial.starts_with('/') ? partial.rfind('/') + 1 : 0;
  std::vector<std::string> listed;
  size_t width = 0;
  for (const Choice& c : choices) {
    listed.push_back(c.word.substr(std::min(shown, c.word.size())));
    width = std::max(width, listed.back().size());
  }
  for (size_t i = 0; i < choices.size() && i < kMostHelpLines; ++i) {
    std::string text = "  " + listed[i];
    if (!choices[i].help.empty()) {
      text += std::string(width - listed[i].size() + 2, ' ') + choices[i].help;
    }
    std::fprintf(rl_outstream, "%s\n", text.c_str());
  }
  if (choices.size() > kMostHelpLines) {
    std::fprintf(rl_outstream, "  ... and %zu more\n", choices.size() - kMostHelpLines);
  }
  if (choices.empty()) std::fputs(file ? "  FILE\n" : "  (nothing more)\n", rl_outstream);
  rl_on_new_line();
  rl_redisplay();
  return 0;
}

std::string HistoryPath() {
  const char* home = std::getenv("HOME");
  return home && *home ? std::string(home) + "/.pbr_cli_history" : std::string();
}

// One line of input; false at the end of the input.
bool ReadLine(std::istream& in, bool terminal, std::string* line) {
  if (!terminal) return static_cast<bool>(std::getline(in, *line));
  char* text = ReadlineGuarded("pbr> ");
  if (!text) return false;
  *line = text;
  if (line->find_first_not_of(" \t") != std::string::npos) add_history(text);
  std::free(text);
  return true;
}

// Asks before uncommitted changes are dropped; true to leave.
bool ConfirmLeaving(const Session& session, bool terminal) {
  const size_t pending = session.uncommittedEdits();
  if (!terminal || (pending == 0 && !session.confirmationPending())) return true;
  const std::string question =
      pending == 0 ? "the confirmed commit of this session is undone when it ends; leave? [y/N] "
                   : std::to_string(pending) + " uncommitted change" + (pending == 1 ? "" : "s") +
                         "; leave and drop " + (pending == 1 ? "it" : "them") + "? [y/N] ";
  char* answer = ReadlineGuarded(question.c_str());
  const bool yes = answer && (std::strcmp(answer, "y") == 0 || std::strcmp(answer, "yes") == 0);
  if (!answer) std::fputs("\n", rl_outstream);
  std::free(answer);
  return yes;
}

}  // namespace

int RunShell(Session& session, std::istream& in, std::ostream& err, bool terminal) {
  const std::string history = terminal ? HistoryPath() : std::string();
  ShellState shellState;
  shellState.session = &session;
  state = &shellState;
  struct sigaction previous {};
  if (terminal) {
    rl_readline_name = "pbr-cli";
    rl_attempted_completion_function = Complete;
    rl_completer_word_break_characters = const_cast<char*>(" \t");
    rl_bind_key('?', ShowChoices);
    // Ctrl-C clears the line instead of ending the shell and its candidate.
    rl_catch_signals = 0;
    rl_getc_function = ReadKey;
    struct sigaction action {};
    action.sa_handler = OnInterrupt;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, &previous);
    stifle_history(kHistoryLength);
    if (!history.empty()) read_history(history.c_str());
  }
  int result = kExitOk;
  std::string line, error;
  std::vector<std::string> words;
  std::vector<bool> quoted;
  for (;;) {
    if (!ReadLine(in, terminal, &line)) {
      if (ConfirmLeaving(session, terminal)) break;
      continue;
    }
    if (!SplitWords(line, &words, &error, &quoted)) {
      err << "error: " << error << std::endl;
      result = kExitUsage;
      continue;
    }
    if (words.empty()) continue;
    const ParseResult parsed = Parse(words, Context::kShell, &quoted);
    if (!parsed.command) {
      err << "error: " << parsed.error << std::endl;
      result = kExitUsage;
      continue;
    }
    if (std::holds_alternative<Exit>(*parsed.command) && !ConfirmLeaving(session, terminal)) {
      continue;
    }
    // Changes the module refuses are refused here, before they reach the candidate.
    if (const auto* edit = std::get_if<EditCommand>(&*parsed.command); edit && session.Schema()) {
      std::string problem;
      for (const mgmt::EditOperation& op : edit->operations) {
        if (problem.empty()) problem = CheckEdit(session.Schema(), op);
      }
      if (!problem.empty()) {
        err << "error: " << problem << std::endl;
        result = kExitFailed;
        continue;
      }
    }
    if (const int status = session.Run(*parsed.command, Context::kShell)) result = status;
    shellState.running.reset();
    shellState.runningFetched = false;
    if (session.exitRequested()) break;
  }
  if (session.uncommittedEdits() > 0) {
    err << "warning: " << session.uncommittedEdits() << " uncommitted changes dropped" << std::endl;
  }
  if (terminal) {
    sigaction(SIGINT, &previous, nullptr);
    if (!history.empty()) write_history(history.c_str());
  }
  state = nullptr;
  return result;
}

}  // namespace pbr::cli
