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
    const struct {
        const char *command;
        std::string tail;  // end of standard output
        int status = 1;
    } cases[] = {
        {"rm a2.bfloat",
         "Input files: 6 samples of dimension (x,y,z) = (10,5,4).\nError: cannot open file "
         "a2.bfloat.\n"},
        {"rm a2.hdr", "Error: cannot open vistra file a2.hdr.\n"},
        {"sed -i 's/^z 4/z 3/' b1.hdr",
         "The dimensions of file b1.bfloat (10,5,3) are not the same as for file a1.bfloat "
         "(10,5,4)\n"},
        {"sed -i 's/^t 2/t 3/' b2.hdr", "File b2.bfloat has 3 time points, not 2.\n"},
        {"sed -i s/a2.bfloat/a2.bshort/ study.rem && mv a2.bfloat a2.bshort",
         "File a2.bshort is not a `bfloat' file as assumed.\n"},
        {"mkdir P-b.bfloat",
         "Error: cannot open the output file P-b.bfloat\nError writing output files.\n"},
        {"sed -i 's/^conditions.*/conditions  /' study.rem",
         "Error: no test conditions are defined.\n"},
        // Designs that cannot be estimated are refused before the passes.
        {"printf 'smoothing 0 4\\nconditions a\\nevent a\\na1.bfloat\\na2.bfloat\\nevent b\\n' > "
         "study.rem",
         "Error: event b covers no file: the design cannot be estimated.\n"},
        {"printf 'smoothing 0 4\\nconditions a\\nsmoothness estimated\\nevent a\\na1.bfloat\\n"
         "event b\\nb1.bfloat\\n' > study.rem",
         "Error: the smoothness cannot be estimated: the design leaves no residuals.\n"},
        // One voxel: no neighbours (the data files are longer than needed).
        {"sed -i 's/^\\([xyz]\\) .*/\\1 1/' *.hdr && sed -i '1asmoothness estimated' study.rem",
         "Error: the smoothness cannot be estimated: no two neighbouring voxels hold data in every "
         "file.\n"},
        // Degrees of freedom whose sum is beyond an int.
        {"sed -i 's/^degrees.*/degrees-of-freedom 2147483647/' a1.hdr a2.hdr",
         "Degrees of freedom: fixed = 4294967374, random = 4, smoothed = 108\n", 0},
        // A voxel size that differs only draws a warning, showing the origins.
        {"sed -i 's/^res.*/resolution 3 2 2/; s/^ori.*/origin 5 6.5 -7/' b2.hdr",
         "\nWARNING: The resolution of file b2.bfloat (5,6.5,-7) differs from file a1.bfloat "
         "(0,0,0)\nInput files: 6 samples",
         0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.command);
        TempDir dir;
        e2e::small_study().write(dir.path());
        ASSERT_EQ(run_command(c.command, dir.path()).status, 0);
        auto r = run_fmri_rem({"study.rem"}, dir.path());
        EXPECT_EQ(r.status, c.status);
        EXPECT_TRUE(c.status == 0 ? bool(holds(r.out, c.tail))
                                  : e2e::tail(r.out, c.tail.size()) == c.tail)
            << r.out;
        EXPECT_EQ(r.err, "");
        EXPECT_EQ(test_support::file_exists(dir.file(".vistra")), c.status == 0);
    }
}

// Every voxel with effects 0, 0.5, -0.5, 0.4 and errors 1, 1, 2e4, 2e4 under
// events over files 0-3 and 0-1: the float estimate alternates between two
// values, each step changing it by more than 5 %, for ever.  Such voxels are
// left out like those without an error value, the same way on both routes.
TEST(BadInput, EstimateThatDoesNotSettle) {
    TempDir dir;
    e2e::study s;
    const float effect[4] = {0.0f, 0.5f, -0.5f, 0.4f}, error[4] = {1, 1, 2e4f, 2e4f};
    for (int k = 0; k < 4; ++k)
        s.files.push_back({"f" + std::to_string(k) + ".bfloat", 'p', 20,
                           std::vector<float>(s.g.voxels(), effect[k]),
                           std::vector<float>(s.g.voxels(), error[k])});
    s.write(dir.path());
    test_support::write_file(dir.file("study.rem"),
                             "smoothing 0 4\nconditions p c\nevent p\n0 3\n\nevent c\n0 1\n\n"
                             "measurements\nf0.bfloat\nf1.bfloat\nf2.bfloat\nf3.bfloat\n");
    for (const char *env : {"", "FMRI_REM_PLAIN=1"}) {
        SCOPED_TRACE(env);
        auto r = run_fmri_rem({"study.rem"}, dir.path(), "", env);
        EXPECT_EQ(r.status, 0);
        EXPECT_TRUE(holds(r.out,
                          "\r 100 percent done computing RE variance\nWarning: 200 voxels were "
                          "left out: their variance estimate did not settle.\n"));
        for (float v : test_support::read_floats(dir.file("sigma2.bfloat"))) EXPECT_EQ(v, 0.0f);
    }
}

}  // namespace
