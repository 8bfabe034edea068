// A study of first-level maps in the styles of FSL (cope, varcope and a dof
// file), nilearn (merged 4-D float64 effect and variance), SPM (scaled int16
// con in a .hdr/.img pair with a t map) and AFNI (beta and standard error), on
// an oblique, flipped grid with sform code 4, goes through fmri-rem-import,
// fmri-rem and fmri-rem-export; the maps must hold the result volumes' values
// bit for bit on the input's grid, and nibabel's reading of each map's intent,
// applied to its values with scipy, must give the z and -log10 p maps (exported
// again with a correction and a condition's name: the z maps and the intents).
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <tuple>

#include "bridge_internal.h"
#include "bridge_test.h"

using namespace test_support;
using bridge_test::nifti_layout;

namespace {

const int NX = 10, NY = 9, NZ = 8, N = NX * NY * NZ;
const float kAffine[4][4] = {
    {-2.3492f, 0.8551f, 0, 30.5f}, {0.8551f, 2.3492f, 0, -40.25f}, {0, 0, 3, -20}, {0, 0, 0, 1}};

nifti_layout layout(int datatype, int volumes = 1) {
    nifti_layout s{{NX, NY, NZ, volumes}, datatype, {}, 1, 4};
    std::memcpy(s.affine, kAffine, sizeof kAffine);
    return s;
}

uint32_t bits(float f) {
    uint32_t b;
    std::memcpy(&b, &f, 4);
    return b;
}

}  // namespace

TEST(Bridge, RoundTripThroughImportAnalysisAndExport) {
    TempDir tmp;
    std::mt19937 rng(7);
    std::normal_distribution<double> noise(0, 0.4);
    std::uniform_real_distribution<double> variance(0.05, 0.3);
    // Per subject: the effect as a reader of the files sees it, and the
    // standard error the import should derive from the files.
    std::vector<std::vector<double>> effect(12, std::vector<double>(N)), se = effect;
    std::vector<double> merged_effect, merged_variance;
    const int v_nan = 3 * NX * NY + 20, v_zero = 5 * NX * NY + 41;  // two voxels left out
    std::string table = "participant_id\tgroup\teffect\tvariance\ttstat\tstderr\tdof\tvolume\n";
    for (int s = 0; s < 12; ++s) {
        std::vector<double> &e = effect[s], v(N);
        const bool in_float = s < 4 || s >= 10;  // FSL and AFNI write float32
        for (int i = 0; i < N; ++i) {
            e[i] = (s % 4 < 2 ? 1.0 : 0.3) + noise(rng);
            v[i] = variance(rng);
            if (in_float) e[i] = static_cast<float>(e[i]), v[i] = static_cast<float>(v[i]);
            se[s][i] = std::sqrt(v[i]);
        }
        const std::string id = "sub-" + std::to_string(10 + s), dir = tmp.file("data/" + id);
        run_command("mkdir -p " + shell_quote(dir + "/stats"));
        table += id + (s % 4 < 2 ? "\tpatients\t" : "\tcontrols\t");
        if (s < 4) {  // FSL
            if (s == 0) e[v_nan] = NAN;
            bridge_test::write_nifti(dir + "/stats/cope1.nii.gz", layout(NIFTI_TYPE_FLOAT32), e);
            bridge_test::write_nifti(dir + "/stats/varcope1.nii.gz", layout(NIFTI_TYPE_FLOAT32), v);
            write_file(dir + "/stats/dof", "41\n");
            table += id + "/stats/cope1.nii.gz\t" + id + "/stats/varcope1.nii.gz\tn/a\t\t" + id +
                     "/stats/dof\tn/a\n";
        } else if (s < 8) {  // nilearn, merged into 4-D files
            if (s == 4) v[v_zero] = se[s][v_zero] = 0;
            merged_effect.insert(merged_effect.end(), e.begin(), e.end());
            merged_variance.insert(merged_variance.end(), v.begin(), v.end());
            table += "nilearn/effect_size.nii.gz\tnilearn/effect_variance.nii.gz\t\t\t30\t" +
                     std::to_string(s - 4) + "\n";
        } else if (s < 10) {  // SPM: scaled int16 con in a pair, float t
            nifti_layout con = layout(NIFTI_TYPE_INT16);
            con.pair = true;
            con.slope = 0.001f;
            std::vector<double> raw(N), t(N);
            for (int i = 0; i < N; ++i) {
                raw[i] = std::round(e[i] / 0.001);
                if (raw[i] == 0) raw[i] = 1;  // an effect of 0 has no error through t
                e[i] = raw[i] * con.slope;
                t[i] = static_cast<float>(e[i] / se[s][i]);
                se[s][i] = std::fabs(e[i] / t[i]);
            }
            bridge_test::write_nifti(dir + "/con_0001.hdr", con, raw);
            bridge_test::write_nifti(dir + "/spmT_0001.nii", layout(NIFTI_TYPE_FLOAT32), t);
            table += id + "/con_0001.img\t\t" + id + "/spmT_0001.nii\t\t25\t\n";
        } else {  // AFNI: beta and its standard error
            for (double &x : se[s]) x = static_cast<float>(x);
            bridge_test::write_nifti(dir + "/beta.nii", layout(NIFTI_TYPE_FLOAT32), e);
            bridge_test::write_nifti(dir + "/se.nii", layout(NIFTI_TYPE_FLOAT32), se[s]);
            table += id + "/beta.nii\tn/a\tn/a\t" + id + "/se.nii\t35\tn/a\n";
        }
    }
    const std::string data = tmp.file("data");
    run_command("mkdir -p " + shell_quote(data + "/nilearn"));
    bridge_test::write_nifti(data + "/nilearn/effect_size.nii.gz", layout(NIFTI_TYPE_FLOAT64, 4),
                             merged_effect);
    bridge_test::write_nifti(data + "/nilearn/effect_variance.nii.gz",
                             layout(NIFTI_TYPE_FLOAT64, 4), merged_variance);
    std::vector<double> mask(N, 1);
    for (int i = 0; i < NX * NY; ++i) mask[i] = 0;  // the lowest slice left out
    bridge_test::write_nifti(data + "/mask.nii.gz", layout(NIFTI_TYPE_UINT8), mask);
    write_file(data + "/table.tsv", table);

    CommandResult r =
        bridge_test::run_tool("fmri-rem-import",
                              {"data/table.tsv", "-o", "study", "--conditions", "p c p-c p,c",
                               "--smoothing", "6", "8", "--mask", "data/mask.nii.gz"},
                              tmp.path());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_TRUE(holds(r.out, "Groups: patients -> p, controls -> c\n"));
    EXPECT_TRUE(holds(r.out,
                      "628 complete in every subject, 2 lost to a missing value in some "
                      "subject, 0 without a value in any, 90 outside the mask"));

    // The signal files: effect and standard error as float, 0 where left out.
    const std::string study = tmp.file("study");
    for (int s = 0; s < 12; ++s) {
        std::vector<float> got =
            read_floats(study + "/signal/sub-" + std::to_string(10 + s) + ".bfloat");
        ASSERT_EQ(got.size(), 2u * N);
        for (int i = 0; i < N; ++i) {
            const double e = effect[s][i], x = se[s][i];
            const bool kept = mask[i] != 0 && std::isfinite(e) && x > 0;
            ASSERT_EQ(bits(got[i]), bits(std::isfinite(e) ? static_cast<float>(e) : 0.0f))
                << s << " " << i;
            ASSERT_EQ(bits(got[N + i]), bits(kept ? static_cast<float>(x) : 0.0f)) << s << " " << i;
        }
    }

    r = run_command(shell_quote(FMRI_REM_BIN) + " analysis.rem", study);
    ASSERT_EQ(r.status, 0) << r.out;
    r = bridge_test::run_tool("fmri-rem-export", {}, study);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");

    // Every map: the input's affine (sform exact, qform within rounding) and codes.
    const std::string out = study + "/nifti/";
    std::vector<float> sigma2 = read_floats(study + "/sigma2.bfloat");
    ASSERT_EQ(sigma2.size(), 3u * N);
    auto check_map = [&](const std::string &name, int intent, double p1, double p2,
                         const std::vector<float> &expected) {
        SCOPED_TRACE(name);
        bridge_test::nifti_ptr m = bridge_test::read_nifti(out + name);
        ASSERT_NE(m, nullptr);
        EXPECT_TRUE(m->qform_code == 1 && m->sform_code == 4);
        for (int row = 0; row < 4; ++row)
            for (int col = 0; col < 4; ++col) {
                EXPECT_EQ(m->sto_xyz.m[row][col], kAffine[row][col]);
                EXPECT_NEAR(m->qto_xyz.m[row][col], kAffine[row][col], 1e-4);
            }
        EXPECT_EQ(std::make_tuple(m->intent_code, m->intent_p1, m->intent_p2),
                  std::make_tuple(intent, static_cast<float>(p1), static_cast<float>(p2)));
        ASSERT_EQ(m->nvox, expected.size());
        for (size_t i = 0; i < expected.size(); ++i) {
            const bool analysed = sigma2[2 * N + i % N] != 0.0f;
            const float want = analysed && std::isfinite(expected[i]) ? expected[i] : 0.0f;
            const float got = m->datatype == NIFTI_TYPE_UINT8
                                  ? static_cast<unsigned char *>(m->data)[i]
                                  : static_cast<float *>(m->data)[i];
            ASSERT_EQ(bits(got), bits(want)) << i;
        }
    };
    for (std::string c : {"p", "c", "p-c", "p,c"}) {
        const std::string label = "contrast-" + bridge::condition_label(c);
        std::vector<float> T = read_floats(study + "/T-" + c + ".bfloat");
        std::vector<float> S = read_floats(study + "/S-" + c + ".bfloat"), var(N);
        const std::string hdr = read_file(study + "/T-" + c + ".hdr");
        const int dof = std::atoi(hdr.c_str() + hdr.find("degrees-of-freedom") + 18);
        if (c == "p,c") {
            for (float &t : T) t = t * t;
            check_map(label + "_stat-F_statmap.nii.gz", NIFTI_INTENT_FTEST, 2, dof, T);
        } else {
            check_map(label + "_stat-t_statmap.nii.gz", NIFTI_INTENT_TTEST, dof, 0, T);
        }
        for (int i = 0; i < N; ++i) var[i] = S[N + i] * S[N + i];
        check_map(label + "_stat-effect_statmap.nii.gz", NIFTI_INTENT_ESTIMATE, 0, 0,
                  std::vector<float>(S.begin(), S.begin() + N));
        check_map(label + "_stat-variance_statmap.nii.gz", NIFTI_INTENT_ESTIMATE, 0, 0, var);
    }
    const char *frames[3] = {"within", "between", "betweensmoothed"};
    for (int f = 0; f < 3; ++f)
        check_map(std::string("desc-") + frames[f] + "_stat-variance_statmap.nii.gz",
                  NIFTI_INTENT_ESTIMATE, 0, 0,
                  std::vector<float>(sigma2.begin() + f * N, sigma2.begin() + (f + 1) * N));
    check_map("mask.nii.gz", 0, 0, 0, std::vector<float>(N, 1));
    EXPECT_TRUE(
        holds(read_file(out + "contrast-pAndc_stat-F_statmap.json"), "\"Contrast\": \"p,c\""));
    // Every file loads cleanly in the NIfTI library's own checker.
    CommandResult c = run_command("nifti_tool -check_hdr -check_nim -infiles *.nii.gz", out);
    EXPECT_TRUE(c.status == 0 && holds(c.out, "IS GOOD") && !holds(c.out, "BAD")) << c.out;

    if (run_command("/usr/bin/python3 -c 'import nibabel, scipy'").status != 0) return;
    const std::string check =
        "/usr/bin/python3 " + std::string(FMRI_REM_SOURCE_DIR) + "/tests/bridge/check_intents.py ";
    c = run_command(check + "nifti 0", study);
    EXPECT_TRUE(c.status == 0 && holds(c.out, "checked 12 maps")) << c.out;
    std::string rem = read_file(study + "/analysis.rem");
    rem.replace(rem.find("multiple-comparisons 0\n"), 23, "multiple-comparisons 40\n");
    write_file(study + "/analysis.rem", "# condition p-c = patients-controls\n" + rem);
    r = bridge_test::run_tool("fmri-rem-export", {"-o", "fwe"}, study);
    EXPECT_TRUE(
        holds(r.out, "  p-c (patients-controls): contrast-patientsMinuscontrols_stat-t, z,"));
    c = run_command(check + "fwe 40", study);
    EXPECT_TRUE(c.status == 0 && holds(c.out, "checked 12 maps")) << c.out;
}
