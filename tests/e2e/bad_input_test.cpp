// Bad input and output failures: each ends the run with its message and
// status 1 (or, for a resolution mismatch, only a warning), never a crash.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "study.h"
#include "test_support.h"

namespace {

using test_support::run_command;
using test_support::run_fmri_rem;
using test_support::TempDir;

// Each case spoils the small study with a shell command.
TEST(BadInput, MessagesAndStatus) {
    struct Case {
        const char *command;
        std::string tail;  // end of standard output
    };
    const Case cases[] = {
        {"rm a2.bfloat",
         "Input files: 6 samples of dimension (x,y,z) = (10,5,4).\nError: cannot open file "
         "a2.bfloat.\n"},
        {"rm a2.hdr", "Error: cannot open vistra file a2.hdr.\n"},
        {"truncate -s -4 b3.bfloat", "Error reading the floating point data from file b3.bfloat\n"},
        {"truncate -s 400 b1.bfloat",
         "Error reading the floating point data from file b1.bfloat\n"},
        {"sed -i 's/^z 4/z 3/' b1.hdr",
         "The dimensions of file b1.bfloat (10,5,3) are not the same as for file a1.bfloat "
         "(10,5,4)\n"},
        {"sed -i 's/^t 2/t 3/' b2.hdr", "File b2.bfloat has 3 time points, not 2.\n"},
        {"sed -i /degrees/d a3.hdr",
         "Error: the keyword 'degrees-of-freedom' was not found in a3.hdr\n"},
        {"sed -i s/a2.bfloat/a2.bshort/ study.rem && mv a2.bfloat a2.bshort",
         "File a2.bshort is not a `bfloat' file as assumed.\n"},
        {"mkdir sigma2.hdr",
         "\r 100 percent done computing RE variance\nError: cannot open the output file "
         "sigma2.hdr\n"},
        {"mkdir P-b.bfloat",
         "Error: cannot open the output file P-b.bfloat\nError writing output files.\n"},
        {"sed -i 's/^conditions.*/conditions  /' study.rem",
         "Error: no test conditions are defined.\n"},
        {"sed -i 's/^conditions.*/conditions a a-q/' study.rem",
         "Error: one of the events in the conditions (26) is not defined.\n"},
        // One file leaves no degrees of freedom for the test, which the
        // incomplete beta function refuses.
        {"printf 'smoothing 0 4\\nconditions a\\nevent a\\na1.bfloat\\n' > study.rem",
         "ibeta: Domain error!, a = 0, b = 0.5\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.command);
        TempDir dir;
        e2e::small_study().write(dir.path());
        ASSERT_EQ(run_command(c.command, dir.path()).status, 0);
        auto r = run_fmri_rem({"study.rem"}, dir.path());
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.out.substr(r.out.size() - std::min(r.out.size(), c.tail.size())), c.tail);
        EXPECT_EQ(r.err, "");
        EXPECT_FALSE(test_support::file_exists(dir.file(".vistra")));
    }
}

// A file whose voxel size differs only draws a warning, which shows the
// origins of the two files.
TEST(BadInput, ResolutionMismatchIsAWarning) {
    TempDir dir;
    e2e::small_study().write(dir.path());
    const char *command = "sed -i 's/^res.*/resolution 3 2 2/; s/^ori.*/origin 5 6.5 -7/' b2.hdr";
    ASSERT_EQ(run_command(command, dir.path()).status, 0);
    auto r = run_fmri_rem({"study.rem"}, dir.path());
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("\nWARNING: The resolution of file b2.bfloat (5,6.5,-7) differs from file "
                         "a1.bfloat (0,0,0)\nInput files: 6 samples"),
              std::string::npos)
        << r.out;
}

}  // namespace
