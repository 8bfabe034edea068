// The command line of fmri-rem: statuses and texts of the options and the
// help menu; and the simulator that writes example studies.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "study.h"
#include "test_support.h"

namespace {

using test_support::file_exists;
using test_support::read_file;
using test_support::run_command;
using test_support::run_fmri_rem;
using test_support::shell_quote;
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
    const std::string missing =
        "Error: cannot open the file missing.rem.\n"
        "Program terminated due to error in analysis file missing.rem\n";
    const Case cases[] = {
        {{}, 1, kSyntax},
        {{"-h"}, 0, kSyntax},
        {{"-r"}, 1, kSyntax},
        {{"-r", "-h"}, 0, kSyntax},
        {{"-x"}, 1, "Option --x not valid.\nProgram exiting.\n"},
        {{"-h", "-xyz"}, 1, "Option --xyz not valid.\nProgram exiting.\n"},
        {{"-"}, 1, "Option -- not valid.\nProgram exiting.\n"},
        // A letter accepted by the option scan but not handled by the program.
        {{"-:"}, 1, "Valid option -- not yet programmed.\nProgram exiting.\n"},
        {{"missing.rem"}, 1, missing},
        {{"-i", "missing.rem", "-h"}, 1, missing},
        {{"-i"}, 1, "Error: option -i requires the name of an analysis file.\n"},
        {{std::string(1100, 'n')},
         1,
         "Error: the analysis file name is longer than 1023 characters.\n"},
    };
    TempDir dir;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.args.empty() ? "(none)" : c.args[0]);
        auto r = run_fmri_rem(c.args, dir.path());
        EXPECT_EQ(r.status, c.status);
        EXPECT_EQ(r.out, c.out);
        EXPECT_EQ(r.err, "");
    }
}

// -H shows the menu file under TOV_HOME (Return alone leaves it) or asks
// for TOV_HOME; after an analysis file, -H and -h end the run once the file
// is read.
TEST(CommandLine, HelpAfterOrWithoutAnAnalysisFile) {
    TempDir home, dir;
    const std::string docs = home.file("documentation"),
                      tov = "TOV_HOME=" + shell_quote(home.path());
    ASSERT_EQ(run_command("mkdir " + shell_quote(docs)).status, 0);
    test_support::write_file(docs + "/rem-menu.txt", "!0 0\nMain menu of the test\n!1 0\nOne\n");
    auto r = run_fmri_rem({"-H"}, dir.path(), "\n", tov);
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("Help from file " + docs + "/rem-menu.txt\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("Main menu of the test\n"), std::string::npos) << r.out;
    r = run_fmri_rem({"-H"}, dir.path(), "\n", "env -u TOV_HOME");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out,
              "For help, quit and define the environment variable TOV_HOME, and then re-start.\n");

    e2e::small_study().write(dir.path());
    r = run_fmri_rem({"-i", "study.rem", "-H"}, dir.path(), "\n", tov);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.substr(0, 31), "\nSQUARE event a has 3 samples:\n");
    EXPECT_NE(r.out.find("Main menu of the test"), std::string::npos);
    r = run_fmri_rem({"study.rem", "-h"}, dir.path());
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.substr(0, 31), "\nSQUARE event a has 3 samples:\n");
    EXPECT_EQ(r.out.substr(r.out.size() - kSyntax.size()), kSyntax);
    EXPECT_FALSE(file_exists(dir.file("basis.dat")));
}

// The simulator is deterministic for a seed and writes studies fmri-rem reads.
TEST(Simulator, SameSeedSameStudy) {
    TempDir dir;
    const std::string simulate =
        shell_quote(std::string(FMRI_REM_BUILD_DIR) + "/fmri-rem-simulate");
    std::string command = "true";
    for (const char *run : {" -o one --seed 5", " -o two --seed 5", " -o three --seed 6"})
        command += " && " + simulate + run + " --size 8 6 4 --subjects 3";
    ASSERT_EQ(run_command(command, dir.path()).status, 0);
    const std::string first = read_file(dir.file("one/subject-c02.bfloat"));
    EXPECT_EQ(first.size(), 8u * 6 * 4 * 2 * 4);
    EXPECT_EQ(first, read_file(dir.file("two/subject-c02.bfloat")));
    EXPECT_NE(first, read_file(dir.file("three/subject-c02.bfloat")));
    EXPECT_EQ(read_file(dir.file("one/subject-p01.hdr")).substr(0, 20), "x 8\ny 6\nz 4\nt 2\nbyte");
    auto r = run_fmri_rem({"analysis.rem"}, dir.file("one"));
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_NE(r.out.find("Conditions to be tested: p c p-c \n"), std::string::npos);
}

}  // namespace
