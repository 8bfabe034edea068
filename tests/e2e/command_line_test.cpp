// The command line of fmri-rem: statuses and texts of the options, the
// help menu, and naming the analysis file with or without -i.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "study.h"
#include "test_support.h"

namespace {

using test_support::run_fmri_rem;
using test_support::TempDir;

const std::string kSyntax =
    "Syntax: executable [file name] [optional arguments]\n"
    "optional arguments:\n"
    "-h for this help\n"
    "-H for more help using a menu\n"
    "-r to write out a residue time series\n"
    "\n";

TEST(CommandLine, OptionsTable) {
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string out;
    };
    const std::string long_name(1100, 'n');
    const Case cases[] = {
        {{}, 1, kSyntax},
        {{"-h"}, 0, kSyntax},
        {{"-r"}, 1, kSyntax},
        {{"-r", "-h"}, 0, kSyntax},
        {{"-x"}, 1, "Option --x not valid.\nProgram exiting.\n"},
        {{"-h", "-xyz"}, 1, "Option --xyz not valid.\nProgram exiting.\n"},
        {{"-"}, 1, "Option -- not valid.\nProgram exiting.\n"},
        {{"missing.rem"}, 1,
         "Error: cannot open the file missing.rem.\n"
         "Program terminated due to error in analysis file missing.rem\n"},
        {{"-i", "missing.rem", "-h"}, 1,
         "Error: cannot open the file missing.rem.\n"
         "Program terminated due to error in analysis file missing.rem\n"},
        {{"-i"}, 1, "Error: option -i requires the name of an analysis file.\n"},
        {{long_name}, 1, "Error: the analysis file name is longer than 1023 characters.\n"},
    };
    TempDir dir;
    for (const Case &c : cases) {
        auto r = run_fmri_rem(c.args, dir.path());
        std::string what = c.args.empty() ? "(none)" : c.args[0];
        EXPECT_EQ(r.status, c.status) << what;
        EXPECT_EQ(r.out, c.out) << what;
        EXPECT_EQ(r.err, "") << what;
    }
}

// A letter accepted by the option scan but not handled by the program.
TEST(CommandLine, UnhandledOptionLetter) {
    TempDir dir;
    auto r = run_fmri_rem({"-:"}, dir.path());
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "Valid option -- not yet programmed.\nProgram exiting.\n");
}

TEST(CommandLine, HelpMenu) {
    TempDir home;
    std::string docs = home.file("documentation");
    ASSERT_EQ(test_support::run_command("mkdir " + test_support::shell_quote(docs)).status, 0);
    test_support::write_file(docs + "/rem-menu.txt", "!0 0\nMain menu of the test\n!1 0\nOne\n");

    TempDir dir;
    // Return alone leaves the main menu.
    auto r = run_fmri_rem({"-H"}, dir.path(), "\n", "TOV_HOME=" + test_support::shell_quote(home.path()));
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("Help from file " + docs + "/rem-menu.txt\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("Main menu of the test\n"), std::string::npos) << r.out;

    // Without TOV_HOME the menu cannot be shown; the status is still 0.
    r = run_fmri_rem({"-H"}, dir.path(), "\n", "env -u TOV_HOME");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out,
              "For help, quit and define the environment variable TOV_HOME, and then re-start.\n");

    // -H after -i: the analysis file is read first, then the menu ends the run.
    e2e::small_study().write(dir.path());
    r = run_fmri_rem({"-i", "study.rem", "-H"}, dir.path(), "\n",
                     "TOV_HOME=" + test_support::shell_quote(home.path()));
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("SQUARE event a has 3 samples:"), std::string::npos);
    EXPECT_NE(r.out.find("Main menu of the test"), std::string::npos);
    EXPECT_FALSE(test_support::file_exists(dir.file("sigma2.hdr")));
}

// The analysis file may be named with -i or as a bare word; -h after it
// reads the file and then shows the syntax.
TEST(CommandLine, AnalysisFileWithOrWithoutOption) {
    for (const std::vector<std::string> &args :
         {std::vector<std::string>{"study.rem"}, std::vector<std::string>{"-i", "study.rem"}}) {
        TempDir dir;
        e2e::small_study().write(dir.path());
        auto r = run_fmri_rem(args, dir.path());
        EXPECT_EQ(r.status, 0) << r.out;
        EXPECT_TRUE(test_support::file_exists(dir.file("T-a-b.bfloat")));
        EXPECT_EQ(test_support::read_file(dir.file(".vistra")), "vt -r study.rem\n");
    }
    TempDir dir;
    e2e::small_study().write(dir.path());
    auto r = run_fmri_rem({"study.rem", "-h"}, dir.path());
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.substr(0, 31), "\nSQUARE event a has 3 samples:\n");
    EXPECT_EQ(r.out.substr(r.out.size() - kSyntax.size()), kSyntax);
    EXPECT_FALSE(test_support::file_exists(dir.file("basis.dat")));
}

}  // namespace

namespace {

// The simulator is deterministic for a seed and writes files fmri-rem reads.
TEST(Simulator, SameSeedSameStudy) {
    TempDir dir;
    const std::string simulate =
        test_support::shell_quote(std::string(FMRI_REM_BUILD_DIR) + "/fmri-rem-simulate");
    const std::string common = " --size 8 6 4 --subjects 3";
    ASSERT_EQ(test_support::run_command(simulate + " -o one --seed 5" + common + " && " + simulate +
                                            " -o two --seed 5" + common + " && " + simulate +
                                            " -o three --seed 6" + common,
                                        dir.path())
                  .status,
              0);
    const std::string first = test_support::read_file(dir.file("one/subject-c02.bfloat"));
    EXPECT_EQ(first.size(), 8u * 6 * 4 * 2 * 4);
    EXPECT_EQ(first, test_support::read_file(dir.file("two/subject-c02.bfloat")));
    EXPECT_NE(first, test_support::read_file(dir.file("three/subject-c02.bfloat")));
    const std::string header = test_support::read_file(dir.file("one/subject-p01.hdr"));
    EXPECT_EQ(header.substr(0, 20), "x 8\ny 6\nz 4\nt 2\nbyte");
    EXPECT_NE(header.find("\ndegrees-of-freedom "), std::string::npos);
    auto r = test_support::run_fmri_rem({"analysis.rem"}, dir.file("one"));
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_NE(r.out.find("Conditions to be tested: p c p-c \n"), std::string::npos);
}

}  // namespace
