// The command line of fmri-rem: statuses and texts of the options, the help
// text and the help menu.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "study.h"
#include "test_support.h"

namespace {

using namespace test_support;

// In a folder with the small study.  -H shows the menu file under TOV_HOME
// (Return alone leaves it) or asks for TOV_HOME; after the study's analysis
// file, -H and -h end the run once the file has been read and described.
TEST(CommandLine, OptionsTable) {
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string out;  // the whole output, or its end after the study's report
    };
    const std::string syntax =
        "Syntax: executable [file name] [optional arguments]\noptional arguments:\n"
        "-h for this help\n-H for more help using a menu\n"
        "-r to write out a residue time series\n\n";
    const std::string missing =
        "Error: cannot open the file missing.rem.\n"
        "Program terminated due to error in analysis file missing.rem\n";
    TempDir home, dir;
    const std::string docs = home.file("documentation"), dashes(46, '-'), n1100(1100, 'n'),
                      tov = "TOV_HOME=" + shell_quote(home.path());
    ASSERT_EQ(run_command("mkdir " + shell_quote(docs)).status, 0);
    write_file(docs + "/rem-menu.txt", "!0 0\nMain menu of the test\n!1 0\nOne\n");
    const std::string menu = "Help from file " + docs + "/rem-menu.txt\nMain menu of the test\n" +
                             dashes + "\n--- choose item: 0 = main menu, return = back \n" +
                             dashes + "\nhelp > ";
    e2e::small_study().write(dir.path());
    const Case cases[] = {
        {{}, 1, syntax},
        {{"-h"}, 0, syntax},
        {{"-h", "-xyz"}, 1, "Option --xyz not valid.\nProgram exiting.\n"},
        // A letter accepted by the option scan but not handled by the program.
        {{"-:"}, 1, "Valid option -- not yet programmed.\nProgram exiting.\n"},
        {{"missing.rem"}, 1, missing},
        {{"-i"}, 1, "Error: option -i requires the name of an analysis file.\n"},
        {{n1100}, 1, "Error: the analysis file name is longer than 1023 characters.\n"},
        {{"-i", "study.rem", "-H"}, 0, menu},
        {{"study.rem", "-h"}, 0, syntax},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(&c - cases);
        auto r = run_fmri_rem(c.args, dir.path(), "\n", tov);
        if (std::count(c.args.begin(), c.args.end(), "study.rem")) {
            EXPECT_EQ(r.out.substr(0, 31), "\nSQUARE event a has 3 samples:\n");
            r.out = e2e::tail(r.out, c.out.size());
        }
        EXPECT_EQ(r.status, c.status);
        EXPECT_EQ(r.out, c.out);
        EXPECT_EQ(r.err, "");
    }
    EXPECT_FALSE(file_exists(dir.file("basis.dat")));
    auto r = run_fmri_rem({"-H"}, dir.path(), "\n", "env -u TOV_HOME");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out,
              "For help, quit and define the environment variable TOV_HOME, and then re-start.\n");
}

}  // namespace
