// The help menu driven through standard input, on help files written here,
// and the marker check of the shipped help files.
#include "util.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "test_support.h"

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
        for (const auto &f : files) write_file(dir.path() + "/documentation/" + f.first, f.second);
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
    HelpRun run;
    run.result = help_menu(linked, file);
    run.out = testing::internal::GetCapturedStdout();
    return run;
}

// Main menu, sub-menu 1 with two items, sub-menu 2 without items.
const std::string menu_file =
    "!0 0\nMAIN\n1 first\n2 second\n"
    "!1 0\nSUB1\n"
    "!1 1\nITEM 1.1\n"
    "!1 2\nITEM 1.2\nline two\n"
    "!2 0\nSUB2 ALONE\n";

}  // namespace

TEST(HelpMenu, DialogueSteps) {
    HelpHome home({{"main.txt", menu_file}});
    const std::string head = "Help from file " + home.path("main.txt") + "\n";
    const std::string main_screen = "MAIN\n1 first\n2 second\n" + main_prompt;
    const std::string sub1 = "SUB1\n" + sub_prompt;
    struct Case {
        const char *input;
        std::string expected;
    };
    const Case cases[] = {
        // Return alone leaves the main menu.
        {"\n", head + main_screen},
        // Sub-menu, an item, return back to the main menu, return to leave.
        {"1\n2\n\n\n", head + main_screen + sub1 + "ITEM 1.2\nline two\n" + sub1 + main_screen},
        // An item number beyond the sub-menu's items.
        {"1\n3\n\n\n",
         head + main_screen + sub1 +
             "Bad option. Choose '0', 'b', 'q', or a number from 1 to 0\n" + sub1 + main_screen},
        // "0" in a sub-menu goes to the main menu; a first word only.
        {"1\n0\n 1  extra words\n1\n\n\n",
         head + main_screen + sub1 + main_screen + sub1 + "ITEM 1.1\n" + sub1 + main_screen},
        // A sub-menu without items shows its text once, then the main menu.
        {"2\n\n", head + main_screen + "SUB2 ALONE\n" + main_screen},
        // Main-menu numbers out of range are refused.
        {"3\n-1\n\n",
         head + main_screen + "Bad option. Choose '0', 'b', 'q', or a number from 1 to 2\n" +
             main_screen + "Bad option. Choose '0', 'b', 'q', or a number from 1 to 2\n" +
             main_screen},
        // Negative item numbers are refused in a sub-menu too.
        {"1\n-2\n\n\n",
         head + main_screen + sub1 +
             "Bad option. Choose '0', 'b', 'q', or a number from 1 to 0\n" + sub1 + main_screen},
        // Letters before any number are refused; after one they repeat it.
        {"q\n1\nx\n\n\n",
         head + main_screen + "Bad option. Choose '0', 'b', 'q', or a number from 1 to 2\n" +
             main_screen + sub1 + "ITEM 1.1\n" + sub1 + main_screen},
        // End of input in the middle of the dialogue leaves at once.
        {"1\n", head + main_screen + sub1},
        {"1\n2", head + main_screen + sub1 + "ITEM 1.2\nline two\n" + sub1},
        {"", head + main_screen},
    };
    for (const Case &c : cases) {
        const HelpRun run = run_help(home.dir.path(), c.input);
        EXPECT_EQ(run.result, 0) << c.input;
        EXPECT_EQ(run.out, c.expected) << "answers: " << c.input;
    }
}

TEST(HelpMenu, LinkOpensOtherFileAndReturnsToTopLevel) {
    HelpHome home({{"main.txt",
                    "!0 0\nMAIN\n!1 0\nSUB1\n!1 1\nbefore link\n>linked.txt more words\nafter\n"},
                   {"linked.txt", "!0 0\nLINKED MAIN\n!1 0\nLSUB\n"}});
    const HelpRun run = run_help(home.dir.path(), "1\n1\n\n\n");
    EXPECT_EQ(run.result, 0);
    const std::string expected =
        "Help from file " + home.path("main.txt") + "\nMAIN\n" + main_prompt + "SUB1\n" +
        sub_prompt + "before link\n" + "Help from file " + home.path("linked.txt") +
        "\nLINKED MAIN\n" + main_prompt + "Help from file " + home.path("main.txt") +
        "\nMAIN\n" + main_prompt;
    EXPECT_EQ(run.out, expected);
}

TEST(HelpMenu, MarkerOrder) {
    struct Case {
        const char *markers;
        int result;
        const char *warning;  // with %s for the path; null when accepted
    };
    const Case cases[] = {
        {"0 0,1 0,1 1,1 2,2 0,2 1", 0, nullptr},
        {"0 0,1 0,1 1,3 5", 1,
         "Warning: menu entry 3 in file %s is 3 5,\nbut it should be either 1 2 or 2 1,\n"},
        // Accepted by the check although not in order: the item number
        // equals the previous one.
        {"0 0,2 0", 0, nullptr},
        {"0 0,2 2", 1,
         "Warning: menu entry 1 in file %s is 2 2,\nbut it should be either 0 1 or 1 0,\n"},
        {"0 0,1 0,x", 1,
         "Warning: menu entry 2 in file %s is -1 -1,\nbut it should be either 1 1 or 2 0,\n"},
    };
    for (const Case &c : cases) {
        std::string text, list = c.markers;
        size_t start = 0;
        while (start <= list.size()) {
            size_t end = list.find(',', start);
            if (end == std::string::npos) end = list.size();
            text += "!" + list.substr(start, end - start) + "\ntext\n";
            start = end + 1;
        }
        HelpHome home({{"main.txt", text}});
        const HelpRun run = run_help(home.dir.path(), "\n");
        EXPECT_EQ(run.result, c.result) << c.markers;
        if (c.warning) {
            char expected[2048];
            snprintf(expected, sizeof expected, c.warning, home.path("main.txt").c_str());
            EXPECT_EQ(run.out, "Help from file " + home.path("main.txt") + "\n" + expected);
        } else {
            EXPECT_EQ(run.out.find("Warning"), std::string::npos);
        }
    }
}

TEST(HelpMenu, EnvironmentAndFileErrors) {
    unsetenv("TOV_HOME");
    testing::internal::CaptureStdout();
    EXPECT_EQ(help_menu(0, "rem-menu.txt"), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "For help, quit and define the environment variable TOV_HOME, and then re-start.\n");

    HelpHome home({});
    HelpRun run = run_help(home.dir.path(), "", 0, "missing.txt");
    EXPECT_EQ(run.result, 1);
    EXPECT_EQ(run.out, "Error: cannot open the file " + home.path("missing.txt") + ".\n" +
                           "The environment variable TOV_HOME is set to " + home.dir.path() +
                           "\nIf this is incorrect, quit, define this environment variable, "
                           "and re-start.\n");

    const std::string long_name(1100, 'n');
    run = run_help(home.dir.path(), "", 0, long_name.c_str());
    EXPECT_EQ(run.result, 1);
    EXPECT_EQ(run.out.rfind("Error: ", 0), 0u) << run.out;
}

// The shipped files pass the marker check, and so does every file that
// their item texts link to.
TEST(HelpMenu, ShippedDocumentationPassesChecks) {
    const std::string docs = std::string(FMRI_REM_SOURCE_DIR) + "/documentation/";
    std::vector<std::string> files = {"rem-menu.txt"};
    for (size_t n = 0; n < files.size() && n < 20; ++n) {
        std::ifstream in(docs + files[n]);
        ASSERT_TRUE(in.good()) << files[n];
        std::string line;
        int markers = 0;
        while (std::getline(in, line)) {
            EXPECT_LT(line.size(), 1000u) << files[n];
            markers += !line.empty() && line[0] == '!';
            char target[1024];
            if (!line.empty() && line[0] == '>' && sscanf(line.c_str() + 1, "%1023s", target) == 1 &&
                std::find(files.begin(), files.end(), target) == files.end())
                files.push_back(target);
        }
        EXPECT_GE(markers, 3) << files[n];
        const HelpRun run = run_help(FMRI_REM_SOURCE_DIR, "", n == 0 ? 0 : 1, files[n].c_str());
        EXPECT_EQ(run.result, 0) << files[n];
        EXPECT_EQ(run.out.find("Warning"), std::string::npos) << run.out;
    }
    EXPECT_GE(files.size(), 2u);
}
