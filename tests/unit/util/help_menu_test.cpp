// The help menu driven through standard input, on help files written here,
// and the marker check of the shipped help files.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>

#include "test_support.h"
#include "util.h"

using test_support::repeat;
using test_support::TempDir;
using test_support::write_file;

namespace {

const std::string rule = "----------------------------------------------\n";
const std::string prompt_lines = rule + "--- choose item: 0 = main menu, return = back \n" + rule;
const std::string main_prompt = prompt_lines + "help > ";
const std::string sub_prompt = prompt_lines + "help >> ";

// A home folder whose documentation/ holds the given files.
struct HelpHome {
    TempDir dir;
    explicit HelpHome(const std::vector<std::pair<std::string, std::string>> &files) {
        mkdir((dir.path() + "/documentation").c_str(), 0755);
        for (const auto &f : files) write_file(path(f.first), f.second);
    }
    std::string path(const std::string &name) const {
        return dir.path() + "/documentation/" + name;
    }
};

struct HelpRun {
    int result;
    std::string out;
};

HelpRun run_help(const std::string &home, const std::string &input, int linked = 0,
                 const char *file = "main.txt") {
    TempDir io;
    write_file(io.file("answers"), input);
    EXPECT_NE(freopen(io.file("answers").c_str(), "r", stdin), nullptr);
    setenv("TOV_HOME", home.c_str(), 1);
    testing::internal::CaptureStdout();
    const int result = help_menu(linked, file);
    return {result, testing::internal::GetCapturedStdout()};
}

}  // namespace

TEST(HelpMenu, DialogueSteps) {
    // Main menu; sub-menu 1 with two items; sub-menu 2 without items;
    // sub-menu 3 whose item links to another file.
    const std::string menu =
        "!0 0\nMAIN\n!1 0\nSUB1\n!1 1\nITEM 1.1\n!1 2\nITEM 1.2\nline two\n!2 0\nSUB2 ALONE\n"
        "!3 0\nSUB3\n!3 1\nbefore link\n>linked.txt more words\nafter\n";
    // The linked file's item links to the file itself.
    HelpHome home(
        {{"main.txt", menu}, {"linked.txt", "!0 0\nLINKED MAIN\n!1 0\nLSUB\n!1 1\n>linked.txt\n"}});
    const std::string bad = "Bad option. Choose '0', 'b', 'q', or a number from 1 to ";
    // The expected output, one letter per screen.
    const std::map<char, std::string> screen = {
        {'H', "Help from file " + home.path("main.txt") + "\n"},
        {'L', "Help from file " + home.path("linked.txt") + "\nLINKED MAIN\n" + main_prompt},
        {'M', "MAIN\n" + main_prompt},
        {'S', "SUB1\n" + sub_prompt},
        {'T', "LSUB\n" + sub_prompt},
        {'1', "ITEM 1.1\n"},
        {'2', "ITEM 1.2\nline two\n"},
        {'A', "SUB2 ALONE\n"},
        {'C', "SUB3\n" + sub_prompt + "before link\n"},
        {'b', bad + "3\n"},  // main menu
        {'B', bad + "0\n"},  // sub-menu: "1 to 0" as it stands
    };
    const std::pair<std::string, std::string> cases[] = {
        {"1\n3\n\n\n", "HMSBSM"},  // item number beyond the sub-menu's items
        // Sub-menu, "0", the first word only, an item, back, leave.
        {"1\n0\n 1  extra words\n2\n\n\n", "HMSMS2SM"},
        {"1\n00\n\n\n", "HMSSM"},       // a zero that is not "0" stays in the sub-menu
        {"2\n\n", "HMAM"},              // a sub-menu without items shows its text once
        {"4\n-1\n\n", "HMbMbM"},        // main-menu numbers out of range
        {"q\n1\nx\n\n\n", "HMbMS1SM"},  // letters: refused first, then the last number
        {"1\n", "HMS"},                 // end of input leaves at once
        // A link to a file linking to itself, followed 20000 times, then back
        // to the top-level file's main menu, where return alone leaves.
        {"3\n1\n" + repeat("1\n1\n", 20000) + "\n\n", "HMCL" + repeat("TL", 20000) + "HM"},
    };
    for (const auto &c : cases) {
        std::string expected;
        for (char code : c.second) expected += screen.at(code);
        SCOPED_TRACE(c.first.substr(0, 40));
        const HelpRun run = run_help(home.dir.path(), c.first);
        EXPECT_EQ(run.result, 0);
        EXPECT_EQ(run.out, expected);
    }
}

TEST(HelpMenu, MarkerOrderAndFileErrors) {
    const struct {
        const char *text;
        int result;
        const char *warning;  // with %s for the path; null when accepted
    } cases[] = {
        {"!0 0\n!1 0\n!1 1\n!1 2\n!2 0\n!2 1\n", 0, nullptr},
        {"!0 0\n!1 0\n!1 1\n!3 5\n", 1,
         "Warning: menu entry 3 in file %s is 3 5,\nbut it should be either 1 2 or 2 1,\n"},
        {"!0 0\n!2 0\n", 0, nullptr},  // accepted: the item number equals the previous one
        {"!0 0\n!1 0\n!x\n", 1,
         "Warning: menu entry 2 in file %s is -1 -1,\nbut it should be either 1 1 or 2 0,\n"},
    };
    for (const auto &c : cases) {
        HelpHome home({{"main.txt", std::string(c.text)}});
        const HelpRun run = run_help(home.dir.path(), "\n");
        EXPECT_EQ(run.result, c.result) << c.text;
        std::string expected = c.warning ? c.warning : main_prompt;
        if (c.warning) expected.replace(expected.find("%s"), 2, home.path("main.txt"));
        EXPECT_EQ(run.out, "Help from file " + home.path("main.txt") + "\n" + expected);
    }

    HelpHome home({{"main.txt", std::string()}});
    HelpRun run = run_help(home.dir.path(), "", 0, "missing.txt");
    EXPECT_EQ(run.result, 1);
    EXPECT_EQ(run.out, "Error: cannot open the file " + home.path("missing.txt") + ".\n" +
                           "The environment variable TOV_HOME is set to " + home.dir.path() +
                           "\nIf this is incorrect, quit, define this environment variable, "
                           "and re-start.\n");
    run = run_help(home.dir.path(), "", 0, std::string(1100, 'n').c_str());
    EXPECT_EQ(run.result, 1);
    EXPECT_EQ(run.out.rfind("Error: ", 0), 0u) << run.out;
}

// The shipped files pass the marker check, and so does every file that
// their item texts link to.
TEST(HelpMenu, ShippedDocumentationPassesChecks) {
    std::vector<std::string> files = {"rem-menu.txt"};
    for (size_t n = 0; n < files.size(); ++n) {
        std::ifstream in(std::string(FMRI_REM_SOURCE_DIR) + "/documentation/" + files[n]);
        ASSERT_TRUE(in.good()) << files[n];
        std::string line;
        char target[1024];
        while (std::getline(in, line))
            if (sscanf(line.c_str(), ">%1023s", target) == 1 &&
                std::find(files.begin(), files.end(), target) == files.end())
                files.push_back(target);
        const HelpRun run = run_help(FMRI_REM_SOURCE_DIR, "", n == 0 ? 0 : 1, files[n].c_str());
        EXPECT_EQ(run.result, 0) << files[n];
        EXPECT_EQ(run.out.find("Warning"), std::string::npos) << run.out;
    }
    EXPECT_GE(files.size(), 2u);
}
