#include "CommandLine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "Commands.h"
#include "Completion.h"
#include "Failure.h"
#include "HelpText.h"

namespace Tansy::Cli {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

ParsedCommandLine Parse(std::vector<const char*> words) {
  words.insert(words.begin(), "tansy");
  return ParseCommandLine(static_cast<int>(words.size()), words.data());
}

TEST(CommandLineTest, ReadsACommandWithArgumentsAndOptions) {
  const ParsedCommandLine line =
      Parse({"--pool", "photos", "--json", "put", "a.jpg", "--pieces", "3", "b.jpg", "--server", "http://h:1"});
  ASSERT_NE(line.command, nullptr);
  EXPECT_EQ(line.command->FullName(), "put");
  EXPECT_THAT(line.arguments.at("FILE"), ElementsAre("a.jpg", "b.jpg"));
  EXPECT_EQ(line.options.at("--pieces"), "3");
  EXPECT_EQ(line.options.count("--name"), 0u);
  EXPECT_EQ(line.globals.pool, "photos");
  EXPECT_EQ(line.globals.server, "http://h:1") << "also behind the command";
  EXPECT_TRUE(line.globals.json);
  EXPECT_FALSE(line.globals.quiet);
}

TEST(CommandLineTest, ReadsOptionalArguments) {
  EXPECT_THAT(Parse({"pic", "get", "/pic?1"}).arguments.at("FILE"), ElementsAre());
  EXPECT_THAT(Parse({"pic", "get", "/pic?1", "file"}).arguments.at("FILE"), ElementsAre("file"));
  EXPECT_THAT(Parse({"pic", "get", "/pic?1", "-"}).arguments.at("FILE"), ElementsAre("-"));
  EXPECT_THAT(Parse({"get", "/b/k", "/b/l", "folder"}).arguments.at("URL"), ElementsAre("/b/k", "/b/l", "folder"));
  EXPECT_THAT(Parse({"get", "/b/k", "--range", "1-2"}).arguments.at("URL"), ElementsAre("/b/k"));
}

TEST(CommandLineTest, TakesNamesWithLeadingDashes) {
  EXPECT_THAT(Parse({"put", "--", "-rf", "--json"}).arguments.at("FILE"), ElementsAre("-rf", "--json"));
  EXPECT_THAT(Parse({"put", "-"}).arguments.at("FILE"), ElementsAre("-"));
  EXPECT_THAT(Parse({"get", "/b/k", "--", "-odd"}).arguments.at("URL"), ElementsAre("/b/k", "-odd"));
  EXPECT_THAT(Parse({"put", "a", "b", "--name", "k", "--", "-c", "--"}).arguments.at("FILE"),
              ElementsAre("a", "b", "-c", "--"));
  EXPECT_THAT(Parse({"pic", "get", "/pic?1", "--", "-odd"}).arguments.at("FILE"), ElementsAre("-odd"));
}

TEST(CommandLineTest, ReadsCommandsOfAGroup) {
  const ParsedCommandLine line = Parse({"pic", "put", "a.jpg", "--quiet"});
  EXPECT_EQ(line.command->FullName(), "pic put");
  EXPECT_TRUE(line.globals.quiet);
}

TEST(CommandLineTest, ReadsOptionsThatMayBeGivenAgain) {
  const ParsedCommandLine line = Parse({"key", "add", "guest", "--bucket", "a", "--bucket", "b", "--expires", "1d"});
  EXPECT_EQ(line.options.at("--bucket"), "a\nb");
  EXPECT_THAT(line.arguments.at("NAME"), ElementsAre("guest"));
  EXPECT_EQ(Parse({"key", "add", "guest"}).options.count("--bucket"), 0U);
  EXPECT_EQ(Parse({"key", "add", "guest", "--expires", "1d", "--expires", "2d"}).options.at("--expires"), "2d");
}

TEST(CommandLineTest, RefusesWrongUse) {
  const std::vector<std::vector<const char*>> wrong = {{},
                                                       {"nothing"},
                                                       {"put"},
                                                       {"get"},
                                                       {"pic", "get", "a", "b", "c"},
                                                       {"mb", "a", "b"},
                                                       {"buckets", "a"},
                                                       {"put", "a", "--nonsense"},
                                                       {"put", "a", "--name"},
                                                       {"completion", "tcsh"},
                                                       {"pic"},
                                                       {"pic", "nothing"},
                                                       {"--server"}};
  for (const auto& words : wrong) {
    try {
      Parse(words);
      ADD_FAILURE() << testing::PrintToString(words);
    } catch (const CFailure& failure) {
      EXPECT_EQ(failure.GetExitCode(), kExitUsage);
      EXPECT_EQ(std::string(failure.what()).find('\n'), std::string::npos);
    }
  }
}

// What a person is told about a wrong line: "what; advice".
std::string WrongUseOf(const std::vector<const char*>& words) {
  try {
    Parse(words);
  } catch (const CFailure& failure) {
    return std::string(failure.what()) + "; " + failure.GetAdvice();
  }
  return "";
}

TEST(CommandLineTest, NamesTheWordThatIsWrong) {
  EXPECT_EQ(WrongUseOf({}), "no command is given; 'tansy --help' lists the commands");
  EXPECT_EQ(WrongUseOf({"dir"}), "there is no command \"dir\"; 'tansy --help' lists the commands");
  EXPECT_EQ(WrongUseOf({"dir", "--long"}), "there is no command \"dir\"; 'tansy --help' lists the commands");
  EXPECT_EQ(WrongUseOf({"pic", "ls"}), "there is no command \"ls\"; 'tansy pic --help' lists the commands");
  EXPECT_EQ(WrongUseOf({"pic"}), "no command is given; 'tansy pic --help' lists the commands");
  EXPECT_EQ(WrongUseOf({"--nonsense"}), "there is no option --nonsense; 'tansy --help' lists the commands");
  EXPECT_EQ(
      WrongUseOf({"put", "--nonsense"}),
      "there is no option --nonsense; 'tansy put --help' says how it is used; names with a leading dash follow --")
      << "not that a file is missing";
  EXPECT_EQ(WrongUseOf({"put", "-odd.jpg"}),
            "there is no option -odd.jpg; 'tansy put --help' says how it is used; names with a leading dash follow --");
  EXPECT_EQ(WrongUseOf({"put"}), "FILE is required; 'tansy put --help' says how it is used");
  EXPECT_EQ(WrongUseOf({"buckets", "photos"}),
            "one argument too many: \"photos\"; 'tansy buckets --help' says how it is used");
  EXPECT_EQ(WrongUseOf({"buckets", "--", "-photos"}),
            "one argument too many: \"-photos\"; 'tansy buckets --help' says how it is used");
}

TEST(CommandLineTest, SaysWhatWasProbablyMeant) {
  EXPECT_EQ(WrongUseOf({"putt"}), "there is no command \"putt\"; did you mean put? 'tansy --help' lists the commands");
  EXPECT_EQ(WrongUseOf({"sing", "/b/k"}),
            "there is no command \"sing\"; did you mean sign? 'tansy --help' lists the commands");
  EXPECT_EQ(WrongUseOf({"pic", "polls"}),
            "there is no command \"polls\"; did you mean pools? 'tansy pic --help' lists the commands");
  EXPECT_THAT(WrongUseOf({"put", "a", "--nmae", "k"}), HasSubstr("there is no option --nmae; did you mean --name? "));
  EXPECT_THAT(WrongUseOf({"put", "a", "--nmae=k"}), HasSubstr("did you mean --name? "));
  EXPECT_THAT(WrongUseOf({"buckets", "--jsno"}), HasSubstr("did you mean --json? ")) << "options of the program too";
  EXPECT_THAT(WrongUseOf({"buckets", "--name"}), testing::Not(HasSubstr("did you mean")))
      << "another command's option is none of this one's";
}

TEST(CommandLineTest, TakesTheWordHelpForTheOption) {
  EXPECT_EQ(Parse({"help"}).print_only, ProgramHelp());
  EXPECT_EQ(Parse({"help", "put"}).print_only, Parse({"put", "--help"}).print_only);
  EXPECT_EQ(Parse({"help", "pic"}).print_only, Parse({"pic", "--help"}).print_only);
}

TEST(CommandLineTest, PrintsHelpAndVersion) {
  EXPECT_EQ(Parse({"--help"}).print_only, ProgramHelp());
  EXPECT_EQ(Parse({"-h"}).print_only, ProgramHelp());
  EXPECT_THAT(Parse({"--version"}).print_only, HasSubstr("tansy "));
  EXPECT_EQ(Parse({"pic", "--help"}).print_only, GroupHelp("pic"));
  for (const CommandSpec& command : AllCommands()) {
    std::vector<const char*> words;
    if (command.group[0] != '\0') {
      words.push_back(command.group);
    }
    words.push_back(command.name);
    words.push_back("--help");
    EXPECT_EQ(Parse(words).print_only, CommandHelp(command));
  }
}

TEST(CommandTableTest, ExplainsEveryCommandWithAnExample) {
  std::set<std::string> names;
  for (const CommandSpec& command : AllCommands()) {
    EXPECT_TRUE(names.insert(command.FullName()).second) << command.FullName();
    EXPECT_FALSE(std::string(command.summary).empty());
    EXPECT_FALSE(std::string(command.summary).ends_with("."));
    EXPECT_TRUE(std::string(command.description).ends_with("."));
    ASSERT_FALSE(command.examples.empty()) << command.FullName();
    for (const ExampleSpec& example : command.examples) {
      EXPECT_THAT(example.command, HasSubstr("tansy "));
      EXPECT_THAT(CommandHelp(command), HasSubstr(example.command));
    }
    EXPECT_NE(command.run, nullptr);
    EXPECT_THAT(ProgramHelp(), HasSubstr("\n  " + command.FullName() + " "));
  }
}

TEST(CommandTableTest, KeepsHelpWithinAnOrdinaryTerminal) {
  std::vector<std::string> texts = {ProgramHelp(), GroupHelp("pic")};
  for (const CommandSpec& command : AllCommands()) {
    texts.push_back(CommandHelp(command));
  }
  for (const std::string& text : texts) {
    for (std::size_t at = 0; at < text.size();) {
      const std::size_t end = std::min(text.find('\n', at), text.size());
      EXPECT_LE(end - at, 79u) << text.substr(at, end - at);
      at = end + 1;
    }
  }
}

TEST(CommandTableTest, TellsEverythingInTheManualPageAndTheCompletions) {
  const std::string page = ManualPage();
  EXPECT_TRUE(page.starts_with(".TH TANSY 1"));
  for (const CommandSpec& command : AllCommands()) {
    EXPECT_THAT(page, HasSubstr("\n.SS tansy " + command.FullName()));
    EXPECT_THAT(BashCompletion(), HasSubstr("\"" + command.FullName() + "\") words="));
    EXPECT_THAT(ZshCompletion(), HasSubstr("\"" + command.FullName() + "\") words="));
    EXPECT_THAT(FishCompletion(), HasSubstr(" -a " + std::string(command.name) + " -d "));
    for (const OptionSpec& option : command.options) {
      EXPECT_THAT(BashCompletion(), HasSubstr(option.name));
      EXPECT_THAT(FishCompletion(), HasSubstr("-l " + std::string(option.name).substr(2)));
    }
  }
  EXPECT_TRUE(ZshCompletion().starts_with("#compdef tansy\n"));
}

TEST(CommandTableTest, GivesRoffNoRequestsByAccident) {
  const std::string page = ManualPage();
  for (std::size_t at = page.find("\n."); at != std::string::npos; at = page.find("\n.", at + 1)) {
    const std::string request = page.substr(at + 2, page.find_first_of(" \n", at + 2) - at - 2);
    EXPECT_TRUE(std::set<std::string>({"SH", "SS", "TP", "B", "PP", "nf", "fi", "RS", "RE"}).count(request) == 1)
        << request;
  }
}

}  // namespace
}  // namespace Tansy::Cli
