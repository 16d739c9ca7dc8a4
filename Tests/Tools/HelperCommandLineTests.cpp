// The command-line frame shared by the helper programs, and the messages each program keeps.
#include <gtest/gtest.h>

#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "CardPrepCommand.h"
#include "HelperCommandLine/HelperCommandLine.h"
#include "UnmountDiskCommand.h"

namespace {

struct ToyOptions {
    std::string name;
};

std::optional<ToyOptions> parseToy(const std::vector<std::string>& arguments, std::string* error,
                                   bool* helpWanted) {
    *helpWanted = false;
    ToyOptions options;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        if (helpercli::isHelpOption(arguments[i])) {
            *helpWanted = true;
            return std::nullopt;
        }
        if (helpercli::isOption(arguments[i], "--name")) {
            if (!helpercli::takeOptionValue(arguments, &i, "--name", &options.name, error)) {
                return std::nullopt;
            }
            continue;
        }
        *error = "unexpected argument \"" + arguments[i] + "\"";
        return std::nullopt;
    }
    return options;
}

struct ToyRun {
    int status;
    std::string out;
    std::string err;
    std::optional<std::string> ranWith;
};

ToyRun runToy(const std::vector<std::string>& arguments) {
    std::ostringstream out;
    std::ostringstream err;
    ToyRun result{};
    result.status = helpercli::runCommandLine<ToyOptions>(
        "toy", "usage: toy [--name NAME]\n", arguments, &parseToy, out, err,
        [&](ToyOptions options) {
            result.ranWith = options.name;
            return options.name == "broken" ? helpercli::failWithLine(err, "toy", "cannot\nrun")
                                            : 0;
        });
    result.out = out.str();
    result.err = err.str();
    return result;
}

TEST(HelperCommandLine, HelpUsageErrorsAndRunsEndAsTheProgramsDocumentThem) {
    for (const char* help : {"--help", "-h"}) {
        ToyRun run = runToy({"--name", "x", help});
        EXPECT_EQ(run.status, 0) << help;
        EXPECT_EQ(run.out, "usage: toy [--name NAME]\n");
        EXPECT_EQ(run.err, "");
        EXPECT_FALSE(run.ranWith);
    }

    ToyRun bad = runToy({"--nam", "x"});
    EXPECT_EQ(bad.status, 2);
    EXPECT_EQ(bad.err, "toy: unexpected argument \"--nam\"\n");
    EXPECT_EQ(bad.out, "");
    EXPECT_FALSE(bad.ranWith);
    ToyRun missing = runToy({"--name"});
    EXPECT_EQ(missing.status, 2);
    EXPECT_EQ(missing.err, "toy: --name needs a value\n");

    // Both spellings of a value; a later option wins, and the word after a value is read again.
    EXPECT_EQ(runToy({"--name", "modem"}).ranWith, "modem");
    EXPECT_EQ(runToy({"--name=a=b"}).ranWith, "a=b");
    EXPECT_EQ(runToy({"--name="}).ranWith, "");
    EXPECT_EQ(runToy({"--name", "--name"}).ranWith, "--name");
    EXPECT_EQ(runToy({"--name", "a", "--name=b"}).ranWith, "b");

    // A failure while running is one line, whatever the message holds.
    ToyRun failed = runToy({"--name", "broken"});
    EXPECT_EQ(failed.status, 1);
    EXPECT_EQ(failed.err, "toy: cannot run\n");
}

TEST(HelperCommandLine, ValuesAsWordsOfTheirOwnOnly) {
    std::vector<std::string> arguments{"--dir=x", "y"};
    std::size_t index = 0;
    std::string value;
    std::string error;
    EXPECT_TRUE(helpercli::takeOptionValue(arguments, &index, "--dir=x", &value, &error, false));
    EXPECT_EQ(value, "y");
    EXPECT_EQ(index, 1u);
    index = 1;
    EXPECT_FALSE(helpercli::takeOptionValue(arguments, &index, "y", &value, &error, false));
    EXPECT_EQ(error, "y needs a value");
}

TEST(HelperCommandLine, EachProgramKeepsItsNameAndItsFormsOfValues) {
    std::ostringstream out;
    std::ostringstream err;
    EXPECT_EQ(cardprep::CardPrepCommand::main({"/pid=,1f15", "--sysfs"}, out, err), 2);
    EXPECT_EQ(err.str(), "CardPrepTool: --sysfs needs a value\n");
    err.str("");
    // CardPrepTool takes values only as the next word.
    EXPECT_EQ(cardprep::CardPrepCommand::main({"/pid=,1f15", "--sysfs=/tmp"}, out, err), 2);
    EXPECT_EQ(err.str(), "CardPrepTool: unexpected argument \"--sysfs=/tmp\"\n");
    err.str("");
    EXPECT_EQ(diskunmounter::UnmountDiskCommand::main({"--sysfs"}, out, err), 2);
    EXPECT_EQ(err.str(), "qv-unmount-disk: --sysfs needs a value\n");
    err.str("");
    // qv-unmount-disk takes both forms; without --dry-run a made-up sysfs is refused.
    EXPECT_EQ(diskunmounter::UnmountDiskCommand::main({"--sysfs=/tmp", "eject", "sr0"}, out, err),
              2);
    EXPECT_EQ(err.str(), "qv-unmount-disk: --mountinfo and --sysfs are only for --dry-run\n");
    EXPECT_EQ(out.str(), "");
}

}  // namespace
