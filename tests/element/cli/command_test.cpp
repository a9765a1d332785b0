// The command language: what operators type, in the one-shot form and in the shell.
#include "element/cli/command.h"

#include <gtest/gtest.h>

#include "element/cli/invocation.h"

namespace pbr::cli {
namespace {

using Words = std::vector<std::string>;

ParseResult ParseOneShot(const Words& words) {
  return Parse(words, Context::kOneShot);
}

template <class T>
T As(const ParseResult& r) {
  EXPECT_TRUE(r.command.has_value()) << r.error;
  EXPECT_TRUE(r.command && std::holds_alternative<T>(*r.command));
  return r.command && std::holds_alternative<T>(*r.command) ? std::get<T>(*r.command) : T{};
}

TEST(Command, ShowAndEditWithTheirOptions) {
  using Format = ShowRunning::Format;
  EXPECT_EQ(As<ShowRunning>(ParseOneShot({"show", "running"})).format, Format::kTree);
  EXPECT_EQ(As<ShowRunning>(ParseOneShot({"show", "running", "--json"})).format, Format::kJson);
  EXPECT_EQ(As<ShowRunning>(ParseOneShot({"show", "running", "--format", "set"})).format,
            Format::kSet);
  const ShowPbr filtered =
      As<ShowPbr>(ParseOneShot({"show", "pbr", "status", "failed", "next-hop", "192.0.2.9",
                                "interface", "eth2", "--sort", "priority"}));
  EXPECT_EQ(filtered.query.status, "failed");
  EXPECT_EQ(filtered.query.nextHop, "192.0.2.9");
  EXPECT_EQ(filtered.query.interface, "eth2");
  EXPECT_TRUE(filtered.query.byPriority);
  const ShowPbr all = As<ShowPbr>(ParseOneShot({"show", "pbr"}));
  EXPECT_FALSE(all.id.has_value());
  EXPECT_FALSE(all.json);
  const ShowPbr one = As<ShowPbr>(ParseOneShot({"show", "pbr", "--json", "4294967295"}));
  EXPECT_EQ(one.id, 4294967295u);
  EXPECT_TRUE(one.json);

  // Sets and deletes chained into one commit.
  const EditCommand edit = As<EditCommand>(ParseOneShot(
      {"set", "/router/pbr{7}/rule/priority", "10", "--", "set",
       "/router/pbr{7}/rule/match/interface{eth1}", "--", "delete", "/router/pbr{8}"}));
  ASSERT_EQ(edit.operations.size(), 3u);
  EXPECT_EQ(edit.operations[0].kind(), mgmt::EditOperation::SET);
  EXPECT_EQ(edit.operations[0].path(), "/router/pbr{7}/rule/priority");
  EXPECT_EQ(edit.operations[0].value(), "10");
  EXPECT_EQ(edit.operations[1].value(), "");  // creates the leaf-list entry
  EXPECT_EQ(edit.operations[2].kind(), mgmt::EditOperation::DELETE);
  EXPECT_EQ(edit.operations[2].path(), "/router/pbr{8}");
}

TEST(Command, RefusesMalformedCommandsWithAReason) {
  for (const Words& words : std::vector<Words>{{"show"},
                                               {"show", "pbr", "x7"},
                                               {"show", "pbr", "-1"},
                                               {"show", "pbr", "4294967296"},
                                               {"show", "pbr", "1", "2"},
                                               {"show", "running", "extra"},
                                               {"show", "running", "--xml"},
                                               {"show", "running", "--format", "yaml"},
                                               {"show", "pbr", "status", "broken"},
                                               {"show", "pbr", "next-hop", "300.1.1.1"},
                                               {"show", "pbr", "interface"},
                                               {"show", "pbr", "--sort", "age"},
                                               {"show", "candidate"},
                                               {"show", "everything"},
                                               {"set"},
                                               {"set", "/a", "b", "c"},
                                               {"delete"},
                                               {"delete", "/a", "b"},
                                               {"set", "router/pbr{7}/rule/priority", "1"},
                                               {"set", "/a", "1", "--"},
                                               {"set", "/a", "1", "--", "show", "running"},
                                               {"set", "/a", "1", "--", "--", "delete", "/b"},
                                               {"load", "merge", "rules.txt"},
                                               {"load", "merge", "rules.txt", "--format", "yaml"},
                                               {"load", "update", "rules.json"},
                                               {"load", "merge"},
                                               {"load", "merge", "rules.json", "--format"},
                                               {"bogus"}}) {
    const ParseResult r = ParseOneShot(words);
    EXPECT_FALSE(r.command.has_value()) << ::testing::PrintToString(words);
    EXPECT_FALSE(r.error.empty());
  }
  // Hints name what can be shown here: the candidate only in the shell.
  EXPECT_EQ(ParseOneShot({"show"}).error, "show what? running, pbr, commits or commit ID");
  EXPECT_EQ(Parse(Words{"show"}, Context::kShell).error,
            "show what? running, pbr, candidate, commits or commit ID");
}

TEST(CommandLoad, FormatFromTheExtensionOrTheOption) {
  const LoadCommand json = As<LoadCommand>(ParseOneShot({"load", "merge", "rules.json"}));
  EXPECT_EQ(json.mode, mgmt::Load::MERGE);
  EXPECT_EQ(json.format, mgmt::Load::JSON);
  EXPECT_EQ(json.file, "rules.json");

  const LoadCommand xml = As<LoadCommand>(ParseOneShot({"load", "replace", "/tmp/rules.xml"}));
  EXPECT_EQ(xml.mode, mgmt::Load::REPLACE);
  EXPECT_EQ(xml.format, mgmt::Load::XML);

  const LoadCommand given =
      As<LoadCommand>(ParseOneShot({"load", "merge", "--format", "xml", "rules.json"}));
  EXPECT_EQ(given.format, mgmt::Load::XML);
}

TEST(CommandContext, ShellCommandsExistOnlyInTheShell) {
  for (const char* verb : {"commit", "discard", "exit", "quit"}) {
    EXPECT_FALSE(ParseOneShot({verb}).command.has_value()) << verb;
    EXPECT_TRUE(Parse(Words{verb}, Context::kShell).command.has_value()) << verb;
    EXPECT_FALSE(Parse(Words{verb, "now"}, Context::kShell).command.has_value()) << verb;
  }
  As<ShowCandidate>(Parse(Words{"show", "candidate"}, Context::kShell));
  As<Help>(ParseOneShot({"--help"}));
  As<Help>(Parse(Words{"help"}, Context::kShell));
  EXPECT_FALSE(Parse(Words{"--help"}, Context::kShell).command.has_value());
}

TEST(CommandContext, CommitTakesAConfirmationWindowAndAComment) {
  const auto commit = [](Words words) { return As<Commit>(Parse(words, Context::kShell)); };
  EXPECT_EQ(commit({"commit", "confirmed"}).confirmSeconds, 600u);
  const Commit both = commit({"commit", "confirmed", "30", "comment", "two words"});
  EXPECT_EQ(both.confirmSeconds, 30u);
  EXPECT_EQ(both.comment, "two words");
  EXPECT_FALSE(commit({"commit", "comment", "x"}).confirmSeconds.has_value());
  for (const Words& bad : std::vector<Words>{{"commit", "confirmed", "0"},
                                             {"commit", "comment"},
                                             {"rollback"},
                                             {"rollback", "x"},
                                             {"lock", "everything"}}) {
    EXPECT_FALSE(Parse(bad, Context::kShell).command.has_value()) << bad.back();
  }
  EXPECT_TRUE(As<RollbackCommand>(ParseOneShot({"rollback", "4", "--dry-run"})).dryRun);
}

Words Split(std::string_view line) {
  Words words;
  std::string error;
  EXPECT_TRUE(SplitWords(line, &words, &error)) << error;
  return words;
}

TEST(ShellWords, QuotesGroupAndKeyBlocksStayWhole) {
  EXPECT_EQ(Split("  set /router/pbr{7}/rule/priority\t10 "),
            (Words{"set", "/router/pbr{7}/rule/priority", "10"}));
  EXPECT_EQ(Split(R"(set /d "two words" )"), (Words{"set", "/d", "two words"}));
  EXPECT_EQ(Split(R"(set /d "say \"hi\" \\o/")"), (Words{"set", "/d", R"(say "hi" \o/)"}));
  EXPECT_EQ(Split(R"(set /d 'a "b" \c')"), (Words{"set", "/d", R"(a "b" \c)"}));
  EXPECT_EQ(Split(R"(set /d "")"), (Words{"set", "/d", ""}));
  EXPECT_EQ(Split(R"(delete /router/pbr{7}/rule/match/interface{"eth 1"})"),
            (Words{"delete", R"(/router/pbr{7}/rule/match/interface{"eth 1"})"}));
  EXPECT_EQ(Split("   # a comment"), Words{});
  EXPECT_EQ(Split("set /d #5"), (Words{"set", "/d", "#5"}));

  Words words;
  std::string error;
  for (const char* bad : {R"(set /d "open)", "set /d 'open", "delete /router/pbr{7"}) {
    EXPECT_FALSE(SplitWords(bad, &words, &error)) << bad;
    EXPECT_FALSE(error.empty());
  }
}

TEST(ShellWords, ACandidateChangeReadsBackAsTheSameChange) {
  for (const std::string value : {"10", "two words", R"(with "quotes" and \ )", "", "#hash",
                                  "{braces}", "it's", "--", "two\nlines\r", "tab\t", R"(\n)"}) {
    mgmt::EditOperation op;
    op.set_path("/router/pbr{7}/rule/description");
    op.set_value(value);
    // As one line, and followed by another change.
    const std::string line = FormatOperation(op) + " -- delete /router/pbr{8}";
    ASSERT_EQ(line.find('\n'), std::string::npos) << line;
    Words words;
    std::vector<bool> quoted;
    std::string error;
    ASSERT_TRUE(SplitWords(line, &words, &error, &quoted)) << error;
    const EditCommand back = As<EditCommand>(Parse(words, Context::kShell, &quoted));
    ASSERT_EQ(back.operations.size(), 2u) << line;
    EXPECT_EQ(back.operations[0].value(), value) << FormatOperation(op);
  }
  mgmt::EditOperation del;
  del.set_kind(mgmt::EditOperation::DELETE);
  del.set_path("/router/pbr{7}");
  EXPECT_EQ(FormatOperation(del), "delete /router/pbr{7}");
}

TEST(Invocation, TimeoutBeforeTheCommand) {
  const Invocation shell = ParseInvocation({});
  EXPECT_FALSE(shell.command.has_value());
  EXPECT_TRUE(shell.error.empty());
  EXPECT_EQ(shell.timeout, std::chrono::seconds(30));

  const Invocation timed = ParseInvocation({"--timeout", "1.5", "show", "running"});
  EXPECT_TRUE(timed.error.empty()) << timed.error;
  EXPECT_EQ(timed.timeout, std::chrono::milliseconds(1500));
  ASSERT_TRUE(timed.command.has_value());
  EXPECT_TRUE(std::holds_alternative<ShowRunning>(*timed.command));
  EXPECT_EQ(ParseInvocation({"--timeout=2"}).timeout, std::chrono::seconds(2));

  for (const Words& bad : std::vector<Words>{{"--timeout"},
                                             {"--timeout", "0"},
                                             {"--timeout", "-3", "show", "pbr"},
                                             {"--timeout", "soon"},
                                             {"--timeoutx"},
                                             {"show", "nothing"}}) {
    EXPECT_FALSE(ParseInvocation(bad).error.empty()) << ::testing::PrintToString(bad);
  }
}

}  // namespace
}  // namespace pbr::cli
