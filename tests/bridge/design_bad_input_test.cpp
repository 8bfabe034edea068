// Bad models given to the import: one "Error: ..." line, status 1, nothing
// written.
#include <gtest/gtest.h>

#include <functional>

#include "bridge_test.h"

using namespace test_support;

TEST(Bridge, BadModelsEndWithOneErrorLine) {
    TempDir tmp;
    bridge_test::write_nifti(tmp.file("e.nii"), {}, {1.0});
    bridge_test::write_nifti(tmp.file("v.nii"), {}, {0.1});
    // Six participants; sex follows the group, age is 30 + 2 s.
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
    std::string dm = "participant_id\tx\n";
    for (int s = 0; s < 5; ++s) dm += "sub-" + std::to_string(s) + "\t" + ages(s) + "\n";
    write_file(tmp.file("short.tsv"), dm);
    write_file(tmp.file("long.tsv"), dm + "sub-5\t1\nsub-9\t2\n");
    write_file(tmp.file("text.tsv"), dm + "sub-5\tyoung\n");
    struct bad_case {
        const char *what;
        std::string table;
        std::vector<std::string> options;
        const char *message;  // part of the error line
    } cases[] = {
        {"unknown covariate",
         table(ages),
         {"--covariates", "age,agex"},
         "--covariates: t.tsv has no column `agex' (its columns: participant_id, group,"},
        {"missing covariate value",
         table([](int s) { return s == 4 ? std::string("n/a") : std::to_string(s); }),
         {"--covariates", "age"},
         "t.tsv line 6, column 4 (age): no value given"},
        {"text among numbers",
         table([](int s) { return s == 2 ? std::string("forty") : std::to_string(s); }),
         {"--covariates", "age"},
         "line 4, column 4 (age): forty is not a number"},
        {"constant covariate",
         table([](int) { return std::string("41"); }),
         {"--by-group", "age"},
         "the covariate `age' has the same value (41) in every file"},
        {"slopes of a text column",
         table(ages),
         {"--by-group", "sex"},
         "--by-group sex: the column holds text"},
        {"rank-deficient",
         table(ages),
         {"--covariates", "sex"},
         "the design is rank-deficient: column `sex[M]' is a linear combination of "
         "`patients', `controls'"},
        {"paired levels not in the table",
         table(ages, true),
         {"--paired", "post-base"},
         "--paired post-base: give two sessions of the table as FIRST-SECOND (the session "
         "column holds post, pre)"},
        {"condition not in the model",
         table(ages),
         {"-c", "patients-contrls"},
         "the condition patients-contrls uses contrls, which is not in the model (patients -> "
         "p, controls -> c)"},
        {"design matrix without a row",
         table(ages),
         {"--design-matrix", "short.tsv"},
         "short.tsv has no row for participant sub-5 of t.tsv"},
        {"design matrix with an extra row",
         table(ages),
         {"--design-matrix", "long.tsv"},
         "long.tsv line 8: participant sub-9 is not among the files of t.tsv"},
        {"design matrix with text",
         table(ages),
         {"--design-matrix", "text.tsv"},
         "text.tsv line 7, column 2 (x): young is not a number"},
        {"design matrix of two sessions",
         table(ages, true),
         {"--design-matrix", "short.tsv"},
         "participant sub-0 has several rows in t.tsv"},
    };
    for (const bad_case &c : cases) {
        SCOPED_TRACE(c.what);
        write_file(tmp.file("t.tsv"), c.table);
        std::vector<std::string> args = {"t.tsv", "-o", "study", "-s", "0", "0"};
        if (c.options[0] != "-c") args.insert(args.end(), {"-c", "p"});
        args.insert(args.end(), c.options.begin(), c.options.end());
        CommandResult r = bridge_test::run_tool("fmri-rem-import", args, tmp.path());
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err.compare(0, 7, "Error: "), 0) << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
        EXPECT_EQ(run_command("find study -type f 2>/dev/null", tmp.path()).out, "");
    }
}
