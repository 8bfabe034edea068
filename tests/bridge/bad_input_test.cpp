// Bad input to the companions: one "Error: ..." line on standard error,
// status 1, nothing on standard output and nothing left that looks finished.
#include <gtest/gtest.h>

#include <functional>
#include <sstream>

#include "bridge_test.h"

using namespace test_support;
using bridge_test::grid;

TEST(Bridge, BadInputEndsWithOneErrorLine) {
    TempDir tmp;
    const std::vector<double> ones(100, 1.0);
    bridge_test::write_nifti(tmp.file("e.nii"), grid(5, 5, 4, 2), ones);
    bridge_test::write_nifti(tmp.file("v.nii"), grid(5, 5, 4, 2), ones);
    bridge_test::write_nifti(tmp.file("other.nii"), grid(5, 5, 4, 2.5f), ones);
    bridge_test::write_nifti(tmp.file("merged.nii.gz"), grid(5, 5, 4, 2, 4),
                             std::vector<double>(400, 1.0));
    // A results folder whose geometry does not fit its volumes.
    run_command("mkdir -p results empty", tmp.path());
    write_file(tmp.file("results/sigma2.hdr"),
               "x 6\ny 6\nz 4\nt 3\nresolution 2 2 2\ndegrees-of-freedom 9\n");
    write_floats(tmp.file("results/sigma2.bfloat"), std::vector<float>(3 * 144, 1.0f));
    write_file(tmp.file("results/geometry.json"),
               R"({"dimensions": [5, 5, 4], "affine": [[2,0,0,0],[0,2,0,0],[0,0,2,0],[0,0,0,1]],)"
               R"( "qform_code": 0, "sform_code": 4})");
    const std::string h = "group\teffect\tvariance\tstderr\tdof\n", ev = "a\te.nii\tv.nii\t\t9\n";
    struct bad_case {
        std::string table;              // written to t.tsv; empty: none
        std::vector<std::string> args;  // "-c" and conditions, or "export" and its arguments
        const char *message;
    } cases[] = {
        {h + ev + "b\tnone.nii\tv.nii\t\t9\n", {}, "none.nii: no such file"},
        {"", {}, "cannot read t.tsv"},
        {"group\tvariance\tdof\na\tv.nii\t9\n", {}, "has no column `effect'"},
        {h + "a\te.nii\tv.nii\tv.nii\t9\n", {}, "column 3 (variance): give only one of stderr,"},
        {h + "a\te.nii\tv.nii\t\t0.5\n", {}, "(dof): the degrees of freedom must be at least 1"},
        {h + "a\te.nii\tv.nii\n", {}, "line 2: 3 columns where the header has 5"},
        {h + ev + "b\tother.nii\tv.nii\t\t9\n", {}, "other.nii is not on the grid of"},
        {h + "a\tmerged.nii.gz\tv.nii\t\t9\n", {}, "is 4-D (4 volumes): give the volume"},
        {h + ev + "b\te.nii\tv.nii\t\t9\n", {"-c", "a-q"}, "the condition a-q uses q"},
        {"", {"export", "empty"}, "no results in empty"},
        {"", {"export", "results"}, "does not have the dimensions"},
        {"", {"export", "results", "--geometry", "x.json"}, "the geometry file x.json does not"},
    };
    for (const bad_case &c : cases) {
        SCOPED_TRACE(c.message);
        run_command("rm -f t.tsv", tmp.path());
        if (!c.table.empty()) write_file(tmp.file("t.tsv"), c.table);
        const bool to_export = !c.args.empty() && c.args[0] == "export";
        // args: the export's after "export", else the conditions instead of a
        std::vector<std::string> args = {"t.tsv", "-o", "study", "-c", "a", "-s", "6", "8"};
        if (to_export) args.assign(c.args.begin() + 1, c.args.end());
        if (!to_export && !c.args.empty()) args[4] = c.args[1];
        bridge_test::expect_refused(
            bridge_test::run_tool(to_export ? "fmri-rem-export" : "fmri-rem-import", args,
                                  tmp.path()),
            c.message, tmp.path());
    }
}

TEST(Bridge, BadModelsEndWithOneErrorLine) {
    TempDir tmp;
    bridge_test::write_nifti(tmp.file("e.nii"), {}, {1.0});
    bridge_test::write_nifti(tmp.file("v.nii"), {}, {0.1});
    // Six participants; sex follows the group, age is 30 + 2 s unless given.
    auto table = [](const std::function<std::string(int)> &age, bool sessions = false) {
        std::string t = "participant_id\tgroup\tsession\tage\tsex\teffect\tvariance\tdof\n";
        for (int s = 0; s < 6; ++s)
            for (int session = 0; session <= sessions; ++session)
                t += "sub-" + std::to_string(s) + (s < 3 ? "\tpatients\t" : "\tcontrols\t") +
                     (session ? "post\t" : "pre\t") + age(s) + (s < 3 ? "\tF" : "\tM") +
                     "\te.nii\tv.nii\t20\n";
        return t;
    };
    auto ages = [](int s) { return std::to_string(30 + 2 * s); };
    auto age_is = [](int at, const char *v) {
        return [=](int s) { return s == at ? std::string(v) : std::to_string(s); };
    };
    std::string dm = "participant_id\tx\n";
    for (int s = 0; s < 5; ++s) dm += "sub-" + std::to_string(s) + "\t" + ages(s) + "\n";
    write_file(tmp.file("short.tsv"), dm);
    write_file(tmp.file("long.tsv"), dm + "sub-5\t1\nsub-9\t2\n");
    write_file(tmp.file("text.tsv"), dm + "sub-5\tyoung\n");
    const std::string tables[] = {table(ages), table(ages, true), table(age_is(4, "n/a")),
                                  table(age_is(2, "forty")),
                                  table([](int) { return std::string("41"); })};
    const struct {
        int table;            // of tables
        const char *options;  // split at spaces
        const char *message;  // part of the error line
    } cases[] = {
        {0, "--covariates age,agex", "no column `agex' (its columns: participant_id, group,"},
        {2, "--covariates age", "t.tsv line 6, column 4 (age): no value given"},
        {3, "--covariates age", "line 4, column 4 (age): forty is not a number"},
        {4, "--by-group age", "the covariate `age' has the same value (41) in every file"},
        {0, "--by-group sex", "--by-group sex: the column holds text"},
        {0, "--covariates sex", "rank-deficient: column `sex[M]' is a linear combination of `pat"},
        {1, "--paired post-base", "--paired post-base: give two sessions of the table as FIRST-S"},
        {0, "--design-matrix short.tsv", "short.tsv has no row for participant sub-5 of t.tsv"},
        {0, "--design-matrix long.tsv", "long.tsv line 8: participant sub-9 is not among the fi"},
        {0, "--design-matrix text.tsv", "text.tsv line 7, column 2 (x): young is not a number"},
        {1, "--design-matrix short.tsv", "participant sub-0 has several rows in t.tsv"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.message);
        write_file(tmp.file("t.tsv"), tables[c.table]);
        std::vector<std::string> options;
        std::istringstream in(c.options);
        for (std::string w; in >> w;) options.push_back(w);
        bridge_test::expect_refused(bridge_test::import(tmp.path(), "t.tsv", "p", options),
                                    c.message, tmp.path());
    }
}
