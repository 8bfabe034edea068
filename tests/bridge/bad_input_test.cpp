// Bad input to the companions: one "Error: ..." line on standard error,
// status 1, nothing on standard output and nothing left that looks finished.
#include <gtest/gtest.h>

#include <functional>
#include <cstring>

#include "bridge_test.h"

using namespace test_support;
using bridge_test::grid;

TEST(Bridge, BadInputAndBadModelsEndWithOneErrorLine) {
    TempDir tmp;
    const std::vector<double> ones(100, 1.0);
    for (const char *name : {"e.nii", "v.nii"})
        bridge_test::write_nifti(tmp.file(name), grid(5, 5, 4, 2), ones);
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
    // Models: six participants; sex follows the group, age is 30 + 2 s unless given.
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
    const std::string model = table(ages), sessions = table(ages, true);
    struct bad_case {
        std::string table;    // written to t.tsv; empty: none
        const char *command;  // the import's options, or "export" and its arguments
        const char *message;  // part of the error line
    } cases[] = {
        {h + ev + "b\tnone.nii\tv.nii\t\t9\n", "-c a", "none.nii: no such file"},
        {"", "-c a", "cannot read t.tsv"},
        {"group\tvariance\tdof\na\tv.nii\t9\n", "-c a", "has no column `effect'"},
        {h + "a\te.nii\tv.nii\tv.nii\t9\n", "-c a",
         "column 3 (variance): give only one of stderr,"},
        {h + "a\te.nii\tv.nii\t\t0.5\n", "-c a",
         "(dof): the degrees of freedom must be at least 1"},
        {h + "a\te.nii\tv.nii\n", "-c a", "line 2: 3 columns where the header has 5"},
        {h + ev + "b\tother.nii\tv.nii\t\t9\n", "-c a", "other.nii is not on the grid of"},
        {h + "a\tmerged.nii.gz\tv.nii\t\t9\n", "-c a", "is 4-D (4 volumes): give the volume"},
        {"", "export empty", "no results in empty"},
        {"", "export results", "does not have the dimensions"},
        {"", "export results --geometry x.json", "the geometry file x.json does not"},
        {model, "-c p --covariates age,agex", "no column `agex' (its columns: participant_id,"},
        {table(age_is(4, "n/a")), "-c p --covariates age",
         "line 6, column 4 (age): no value given"},
        {table(age_is(2, "forty")), "-c p --covariates age",
         "line 4, column 4 (age): forty is not"},
        {table([](int) { return std::string("41"); }), "-c p --by-group age",
         "the covariate `age' has the same value (41) in every file"},
        {model, "-c p --by-group sex", "--by-group sex: the column holds text"},
        {model, "-c p --covariates sex", "rank-deficient: column `sex[M]' is a linear combinatio"},
        {sessions, "-c p --paired post-base", "--paired post-base: give two sessions of the tab"},
        {model, "-c p --design-matrix short.tsv", "short.tsv has no row for participant sub-5 o"},
        {model, "-c p --design-matrix long.tsv", "long.tsv line 8: participant sub-9 is not amon"},
        {model, "-c p --design-matrix text.tsv", "text.tsv line 7, column 2 (x): young is not a "},
        {sessions, "-c p --design-matrix short.tsv", "participant sub-0 has several rows in t.tsv"},
    };
    for (const bad_case &c : cases) {
        SCOPED_TRACE(c.message);
        run_command("rm -f t.tsv", tmp.path());
        if (!c.table.empty()) write_file(tmp.file("t.tsv"), c.table);
        const bool to_export = std::strncmp(c.command, "export ", 7) == 0;
        const std::string tool = std::string(FMRI_REM_BUILD_DIR) + "/fmri-rem-" +
                                 (to_export ? "export " : "import t.tsv -o study -s 6 8 ");
        bridge_test::expect_refused(run_command(tool + (c.command + 7 * to_export), tmp.path()),
                                    c.message, tmp.path());
    }
}
