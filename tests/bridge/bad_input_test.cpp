// Bad input to the companions: one "Error: ..." line on standard error,
// status 1, nothing on standard output and nothing left that looks finished.
#include <gtest/gtest.h>

#include <cstring>

#include "bridge_test.h"

using namespace test_support;
using bridge_test::nifti_layout;

namespace {

nifti_layout grid(float voxel, int volumes = 1) {
    nifti_layout s{{5, 5, 4, volumes}};
    s.affine[0][0] = s.affine[1][1] = s.affine[2][2] = voxel;
    s.sform_code = 4;
    return s;
}

}  // namespace

TEST(Bridge, BadInputEndsWithOneErrorLine) {
    TempDir tmp;
    const std::vector<double> ones(100, 1.0), four(400, 1.0);
    bridge_test::write_nifti(tmp.file("e.nii"), grid(2), ones);
    bridge_test::write_nifti(tmp.file("v.nii"), grid(2), ones);
    bridge_test::write_nifti(tmp.file("other.nii"), grid(2.5f), ones);
    bridge_test::write_nifti(tmp.file("merged.nii.gz"), grid(2, 4), four);
    // A results folder whose geometry does not fit its volumes.
    run_command("mkdir -p results empty", tmp.path());
    write_file(tmp.file("results/sigma2.hdr"),
               "x 6\ny 6\nz 4\nt 3\nresolution 2 2 2\ndegrees-of-freedom 9\n");
    write_floats(tmp.file("results/sigma2.bfloat"), std::vector<float>(3 * 144, 1.0f));
    write_file(tmp.file("results/geometry.json"),
               R"({"dimensions": [5, 5, 4], "affine": [[2,0,0,0],[0,2,0,0],[0,0,2,0],[0,0,0,1]],)"
               R"( "qform_code": 0, "sform_code": 4})");

    const std::string head = "group\teffect\tvariance\tstderr\tdof\n";
    const std::vector<std::string> import_args = {"t.tsv", "-o", "study", "-c",
                                                  "a",     "-s", "6",     "8"};
    struct bad_case {
        const char *what;
        std::string table;  // written to t.tsv; empty: export case
        std::vector<std::string> args;
        const char *message;  // part of the error line
    } cases[] = {
        {"missing file", head + "a\te.nii\tv.nii\t\t9\nb\tnone.nii\tv.nii\t\t9\n", import_args,
         "none.nii: no such file"},
        {"missing table",
         "",
         {"no-table.tsv", "-c", "a", "-s", "6", "8"},
         "cannot read no-table.tsv"},
        {"no effect column", "group\tvariance\tdof\na\tv.nii\t9\n", import_args,
         "has no column `effect'"},
        {"two error columns", head + "a\te.nii\tv.nii\tv.nii\t9\n", import_args,
         "line 2, column 3 (variance): give only one of stderr, variance and tstat"},
        {"dof below 1", head + "a\te.nii\tv.nii\t\t0.5\n", import_args,
         "line 2, column 5 (dof): the degrees of freedom must be at least 1"},
        {"short row", head + "a\te.nii\tv.nii\n", import_args,
         "line 2: 3 columns where the header has 5"},
        {"different grids", head + "a\te.nii\tv.nii\t\t9\nb\tother.nii\tv.nii\t\t9\n", import_args,
         "other.nii is not on the grid of"},
        {"4-D without volume", head + "a\tmerged.nii.gz\tv.nii\t\t9\n", import_args,
         "is 4-D (4 volumes): give the volume"},
        {"unknown event",
         head + "a\te.nii\tv.nii\t\t9\nb\te.nii\tv.nii\t\t9\n",
         {"t.tsv", "-o", "study", "-c", "a-q", "-s", "6", "8"},
         "the condition a-q uses q"},
        {"folder without results", "", {"export", "empty"}, "no results in empty"},
        {"geometry of another grid", "", {"export", "results"}, "does not have the dimensions"},
        {"missing geometry file",
         "",
         {"export", "results", "--geometry", "none.json"},
         "the geometry file none.json does not exist"},
    };
    for (const bad_case &c : cases) {
        SCOPED_TRACE(c.what);
        const bool to_export = c.args[0] == "export";
        if (!c.table.empty()) write_file(tmp.file("t.tsv"), c.table);
        CommandResult r =
            bridge_test::run_tool(to_export ? "fmri-rem-export" : "fmri-rem-import",
                                  {c.args.begin() + to_export, c.args.end()}, tmp.path());
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err.compare(0, 7, "Error: "), 0) << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
        // Nothing that looks finished, and no temporary files left.
        CommandResult left =
            run_command("find study results/nifti empty -type f 2>/dev/null", tmp.path());
        EXPECT_EQ(left.out, "");
        EXPECT_EQ(run_command("ls -d study 2>/dev/null", tmp.path()).out, "")
            << "the import left an empty study folder";
    }
}
