// Bad input and output failures: each ends the run with its message and
// status 1 (or, for a resolution mismatch, only a warning), never a crash.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "study.h"
#include "test_support.h"

namespace {

using test_support::run_command;
using test_support::run_fmri_rem;
using test_support::shell_quote;
using test_support::TempDir;
using test_support::write_file;

bool ends_with(const std::string &text, const std::string &tail) {
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

TEST(BadInput, MessagesAndStatus) {
    struct Case {
        const char *what;
        std::function<void(e2e::study &)> change_study;     // before writing
        std::function<void(const std::string &)> change_dir;  // after writing
        int status;
        std::string tail;  // end of standard output
    };
    auto shell = [](const std::string &command) {
        return [command](const std::string &dir) {
            ASSERT_EQ(run_command(command, dir).status, 0) << command;
        };
    };
    auto nothing = [](e2e::study &) {};
    auto nothing_dir = [](const std::string &) {};
    auto header = [](const std::string &name, const e2e::geometry &g, int frames, int dof) {
        return [=](const std::string &dir) {
            write_file(dir + "/" + name, e2e::header_text(g, frames, dof));
        };
    };
    e2e::geometry flat;
    flat.nz = 3;
    const Case cases[] = {
        {"missing data file", nothing, shell("rm a2.bfloat"), 1,
         "Input files: 6 samples of dimension (x,y,z) = (10,5,4).\n"
         "Error: cannot open file a2.bfloat.\n"},
        {"missing header", nothing, shell("rm a2.hdr"), 1, "Error: cannot open vistra file a2.hdr.\n"},
        {"short data file", nothing, shell("truncate -s -4 b3.bfloat"), 1,
         "Error reading the floating point data from file b3.bfloat\n"},
        {"short first frame", nothing, shell("truncate -s 400 b1.bfloat"), 1,
         "Error reading the floating point data from file b1.bfloat\n"},
        {"other dimensions", nothing, header("b1.hdr", flat, 2, 20), 1,
         "The dimensions of file b1.bfloat (10,5,3) are not the same as for file a1.bfloat "
         "(10,5,4)\n"},
        {"three frames", nothing, header("b2.hdr", e2e::geometry(), 3, 20), 1,
         "File b2.bfloat has 3 time points, not 2.\n"},
        {"no degrees of freedom", nothing, shell("grep -v degrees a3.hdr > h && mv h a3.hdr"), 1,
         "Error: the keyword 'degrees-of-freedom' was not found in a3.hdr\n"},
        {"not float data", [](e2e::study &s) { s.files[1].name = "a2.bshort"; }, nothing_dir, 1,
         "File a2.bshort is not a `bfloat' file as assumed.\n"},
        {"variance volume cannot be written", nothing, shell("mkdir sigma2.hdr"), 1,
         "\r 100 percent done computing RE variance\n"
         "Error: cannot open the output file sigma2.hdr\n"},
        {"result volume cannot be written", nothing, shell("mkdir P-b.bfloat"), 1,
         "Error: cannot open the output file P-b.bfloat\nError writing output files.\n"},
        {"no conditions", [](e2e::study &s) { s.conditions = "conditions  "; }, nothing_dir, 1,
         "Error: no test conditions are defined.\n"},
        {"undefined event", [](e2e::study &s) { s.conditions = "conditions a a-q"; }, nothing_dir,
         1, "Error: one of the events in the conditions (26) is not defined.\n"},
    };
    for (const Case &c : cases) {
        TempDir dir;
        e2e::study s = e2e::small_study();
        c.change_study(s);
        s.write(dir.path());
        c.change_dir(dir.path());
        auto r = run_fmri_rem({"study.rem"}, dir.path());
        EXPECT_EQ(r.status, c.status) << c.what;
        EXPECT_TRUE(ends_with(r.out, c.tail)) << c.what << "\n" << r.out;
        EXPECT_EQ(r.err, "") << c.what;
        EXPECT_FALSE(test_support::file_exists(dir.file(".vistra"))) << c.what;
    }
}

// A file whose voxel size differs only draws a warning, which shows the
// origins of the two files.
TEST(BadInput, ResolutionMismatchIsAWarning) {
    TempDir dir;
    e2e::small_study().write(dir.path());
    e2e::geometry g;
    g.resolution[0] = 3.0f;
    g.origin[0] = 5.0f;
    g.origin[1] = 6.5f;
    g.origin[2] = -7.0f;
    write_file(dir.file("b2.hdr"), e2e::header_text(g, 2, 20));
    auto r = run_fmri_rem({"study.rem"}, dir.path());
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("\nWARNING: The resolution of file b2.bfloat (5,6.5,-7) differs from file "
                         "a1.bfloat (0,0,0)\nInput files: 6 samples"),
              std::string::npos)
        << r.out;
}

}  // namespace
