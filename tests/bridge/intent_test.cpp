// A study of three groups (t and F conditions) through fmri-rem-import,
// fmri-rem and fmri-rem-export, uncorrected and corrected; every exported map
// is read with nibabel, whose reading of the intent and its parameters,
// applied to the values with scipy, must give the z and the uncorrected
// -log10 p maps (the corrected p are checked in pvalues_test.cpp).
#include <gtest/gtest.h>

#include <random>

#include "bridge_test.h"

using namespace test_support;
using bridge_test::nifti_layout;

TEST(Bridge, EveryExportedMapAgreesWithItsIntentInNibabel) {
    if (run_command("/usr/bin/python3 -c 'import nibabel, scipy'", ".").status != 0)
        GTEST_SKIP() << "/usr/bin/python3 lacks nibabel or scipy";
    TempDir tmp;
    const int N = 8 * 7 * 6;
    nifti_layout layout{{8, 7, 6, 1}, NIFTI_TYPE_FLOAT32, {}, 1, 1};
    for (int a = 0; a < 4; ++a) layout.affine[a][a] = a < 3 ? 3.0f : 1.0f;
    std::mt19937 rng(11);
    std::normal_distribution<double> noise(0, 1);
    std::string table = "participant_id\tgroup\teffect\tvariance\tdof\n";
    const char *groups[3] = {"mci", "sz", "controls"};
    for (int s = 0; s < 15; ++s) {
        std::vector<double> e(N), v(N, 0.04);
        for (int i = 0; i < N; ++i) e[i] = (s % 3 == 0 ? 0.8 * (i % 7) : 0.0) + 0.5 * noise(rng);
        const std::string id = "sub-" + std::to_string(10 + s);
        bridge_test::write_nifti(tmp.file(id + "_cope.nii"), layout, e);
        bridge_test::write_nifti(tmp.file(id + "_varcope.nii"), layout, v);
        table += id + "\t" + groups[s % 3] + "\t" + id + "_cope.nii\t" + id + "_varcope.nii\t30\n";
    }
    write_file(tmp.file("table.tsv"), table);
    for (const char *resels : {"0", "40"}) {
        SCOPED_TRACE(resels);
        const std::string study = std::string("study") + resels;
        CommandResult r =
            bridge_test::run_tool("fmri-rem-import",
                                  {"table.tsv", "-o", study, "--conditions", "m m-c m-c,s-c m,s,c",
                                   "--smoothing", "0", "8", "--multiple-comparisons", resels},
                                  tmp.path());
        ASSERT_EQ(r.status, 0) << r.err;
        // A name for one condition, as the import writes it.
        const std::string analysis = tmp.file(study + "/analysis.rem");
        write_file(analysis, read_file(analysis) + "# condition m-c = mci-controls\n");
        r = run_command(shell_quote(FMRI_REM_BIN) + " analysis.rem", tmp.file(study));
        ASSERT_EQ(r.status, 0) << r.out;
        r = bridge_test::run_tool("fmri-rem-export", {}, tmp.file(study));
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_NE(r.out.find("  m-c (mci-controls): contrast-mciMinuscontrols_stat-t, z, logp"),
                  std::string::npos)
            << r.out;
        r = run_command(
            "/usr/bin/python3 " +
                shell_quote(std::string(FMRI_REM_SOURCE_DIR) + "/tests/bridge/check_intents.py") +
                " nifti " + resels,
            tmp.file(study));
        EXPECT_EQ(r.status, 0) << r.out << r.err;
        EXPECT_NE(r.out.find("checked 12 maps"), std::string::npos) << r.out;
    }
}
