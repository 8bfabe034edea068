// The import's choice of volumes in multi-volume files (AFNI's selector, the
// <column>_volume columns, the shared volume column) and its degrees of
// freedom (numbers, dof files, SPM t maps, values that are not integers).
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

#include "bridge_test.h"

using namespace test_support;
using bridge_test::nifti_layout;

namespace {

// b and t of an AFNI bucket; |b / t| by hand.
const std::vector<double> kB = {2, -3, 1.5, 4}, kT = {4, 2, -0.5, 8};
const std::vector<float> kSe = {0.5f, 1.5f, 3.0f, 0.5f};

nifti_layout grid(int volumes = 1) {
    nifti_layout s{{2, 2, 1, volumes}};
    s.affine[0][0] = s.affine[1][1] = s.affine[2][2] = 2;
    s.sform_code = 4;
    return s;
}

// An uncompressed NIfTI file whose description reads `descrip`.
void write_described(const std::string &path, const std::vector<double> &v,
                     const std::string &descrip) {
    bridge_test::write_nifti(path, grid(), v);
    char field[80] = {};
    std::strncpy(field, descrip.c_str(), sizeof field - 1);
    FILE *f = std::fopen(path.c_str(), "r+b");
    ASSERT_NE(f, nullptr);
    std::fseek(f, 148, SEEK_SET);
    std::fwrite(field, 1, sizeof field, f);
    std::fclose(f);
}

void write_inputs(const TempDir &tmp) {
    std::vector<double> bucket(4, 9.0);  // volume 0: something else
    bucket.insert(bucket.end(), kB.begin(), kB.end());
    bucket.insert(bucket.end(), kT.begin(), kT.end());
    bridge_test::write_nifti(tmp.file("bucket.nii.gz"), grid(3), bucket);
    // The same bucket with AFNI's sub-brick labels and statistics (F(2, 412),
    // t(412)) in its NIfTI extension, its sub-bricks along the fifth
    // dimension (x y z 1 3) as AFNI writes a bucket.
    bridge_test::nifti_ptr labelled = bridge_test::read_nifti(tmp.file("bucket.nii.gz"));
    labelled->ndim = labelled->dim[0] = 5;
    labelled->nt = labelled->dim[4] = 1;
    labelled->nu = labelled->dim[5] = 3;
    const std::string xml =
        "<?xml version='1.0' ?>\n<AFNI_attributes ni_form=\"ni_group\" >\n<AFNI_atr\n"
        "  ni_type=\"String\"\n  ni_dimen=\"1\"\n  atr_name=\"BRICK_LABS\" >\n"
        " \"Full_Fstat~condA#0_Coef~condA#0_Tstat\"\n</AFNI_atr>\n<AFNI_atr\n"
        "  ni_type=\"float\"\n  ni_dimen=\"9\"\n  atr_name=\"BRICK_STATAUX\" >\n"
        " 0 4 2 2 412 2 3 1 412\n</AFNI_atr>\n</AFNI_attributes>\n";
    nifti_add_extension(labelled.get(), xml.c_str(), static_cast<int>(xml.size()) + 1,
                        NIFTI_ECODE_AFNI);
    nifti_set_filenames(labelled.get(), tmp.file("labelled.nii.gz").c_str(), 0, 1);
    nifti_image_write(labelled.get());
    bridge_test::write_nifti(tmp.file("coef.nii"), grid(), kB);
    // A t map whose intent gives its degrees of freedom.
    bridge_test::nifti_ptr tmap = bridge_test::read_nifti(tmp.file("coef.nii"));
    tmap->intent_code = NIFTI_INTENT_TTEST;
    tmap->intent_p1 = 33;
    nifti_set_filenames(tmap.get(), tmp.file("tmap.nii").c_str(), 0, 1);
    nifti_image_write(tmap.get());
    bridge_test::write_nifti(tmp.file("ones.nii"), grid(), std::vector<double>(4, 1.0));
    nifti_layout unoriented = grid();
    unoriented.sform_code = 0;
    bridge_test::write_nifti(tmp.file("unoriented.nii"), unoriented, kB);
    write_described(tmp.file("spmT_0001.nii"), kT, "SPM{T_[23.4]} - contrast 1: p");
    write_described(tmp.file("spmT_0002.nii"), kT, "SPM{T_[187.0]} - contrast 2: c");
    write_described(tmp.file("spmF_0003.nii"), kT, "SPM{F_[1.0,187.0]} - contrast 3");
    write_file(tmp.file("dof.txt"), "41.5\n");
    write_file(tmp.file("stats+tlrc.HEAD"), "");
}

const char kHead[] = "participant_id\tgroup\teffect\ttstat\tstderr\tdof";

}  // namespace

TEST(Bridge, VolumesAndDegreesOfFreedomOfEachRow) {
    TempDir tmp;
    write_inputs(tmp);
    struct good_case {
        const char *what;
        std::string extra_columns, rows;
        std::vector<int> dofs;  // per row (each row's effect is b, its error |b / t|)
        size_t unit_from;       // the rows from this one have errors of 1 instead
        const char *out, *err;  // part of standard output; start of standard error
    } cases[] = {
        {"AFNI selector", "", "s1\ta\tbucket.nii.gz[1]\tbucket.nii.gz[2]\t\t20\n", {20}, 9, "", ""},
        {"AFNI sub-brick labels",
         "",
         "s1\ta\tlabelled.nii.gz[condA#0_Coef]\tlabelled.nii.gz[condA#0_Tstat]\t\t20\n",
         {20},
         9,
         "",
         ""},
        {"own volume columns",
         "\teffect_volume\ttstat_volume",
         "s1\ta\tbucket.nii.gz\tbucket.nii.gz\t\t20\t1\t2\n",
         {20},
         9,
         "",
         ""},
        {"shared volume overridden for the t",
         "\tvolume\ttstat_volume",
         "s1\ta\tbucket.nii.gz\tbucket.nii.gz\t\t20\t1\t2\n",
         {20},
         9,
         "",
         ""},
        {"an SPM t map as error and dof",
         "",
         "s1\ta\tcoef.nii\tspmT_0001.nii\t\tspmT_0001.nii\n",
         {23},
         9,
         "rounded down: 23.4 -> 23 (line 2).\n",
         ""},
        {"dof as number, SPM t map, file, AFNI t and t intent",
         "",
         "s1\ta\tcoef.nii\tspmT_0002.nii\t\t12.7\n"
         "s2\ta\tcoef.nii\tspmT_0002.nii\t\tspmT_0002.nii\n"
         "s3\ta\tcoef.nii\tspmT_0002.nii\t\tdof.txt\n"
         "s4\ta\tcoef.nii\tspmT_0002.nii\t\t30\n"
         "s5\ta\tcoef.nii\tspmT_0002.nii\t\tlabelled.nii.gz[condA#0_Tstat]\n"
         "s6\ta\tcoef.nii\tspmT_0002.nii\t\ttmap.nii\n",
         {12, 187, 41, 30, 412, 33},
         9,
         "rounded down: 12.7 -> 12 (line 2) and 1 more row.\n",
         ""},
        {"errors all 1",
         "",
         "s1\ta\tbucket.nii.gz[1]\t\tones.nii\t20\n",
         {20},
         0,
         "",
         "Warning: every standard error of the study is 1 (|effect / t| = 1"},
        {"one row whose t is its effect",
         "",
         "s1\ta\tbucket.nii.gz[1]\tbucket.nii.gz[2]\t\t20\n"
         "s2\ta\tbucket.nii.gz[1]\tcoef.nii\t\t20\n",
         {20, 20},
         1,
         "",
         "Warning: the standard errors of table line 3 are 1 at every voxel"},
        {"no qform and no sform",
         "",
         "s1\ta\tunoriented.nii\tspmT_0002.nii\t\t20\n",
         {20},
         9,
         "",
         "Warning: 1 NIfTI file has neither qform nor sform (e.g. unoriented.nii): placed by voxel "
         "size alone"},
    };
    int k = 0;
    for (const good_case &c : cases) {
        SCOPED_TRACE(c.what);
        write_file(tmp.file("t.tsv"), kHead + c.extra_columns + "\n" + c.rows);
        const std::string study = "study" + std::to_string(++k);
        CommandResult r = bridge_test::run_tool(
            "fmri-rem-import", {"t.tsv", "-o", study, "-c", "a", "-s", "0", "0"}, tmp.path());
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_NE(r.out.find(c.out), std::string::npos) << r.out;
        EXPECT_EQ(r.out.find("rounded down") != std::string::npos, *c.out != '\0') << r.out;
        EXPECT_EQ(r.err.compare(0, std::strlen(c.err), c.err), 0) << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), *c.err ? 1 : 0) << r.err;
        for (size_t s = 0; s < c.dofs.size(); ++s) {
            const std::string id = study + "/signal/s" + std::to_string(s + 1);
            std::vector<float> got = read_floats(tmp.file(id + ".bfloat"));
            ASSERT_EQ(got.size(), 8u);
            for (int i = 0; i < 4; ++i) {
                EXPECT_EQ(got[i], static_cast<float>(kB[i])) << i;
                EXPECT_EQ(got[4 + i], s >= c.unit_from ? 1.0f : kSe[i]) << i;
            }
            EXPECT_NE(read_file(tmp.file(id + ".hdr"))
                          .find("degrees-of-freedom " + std::to_string(c.dofs[s]) + "\n"),
                      std::string::npos);
        }
    }
}

TEST(Bridge, VolumeAndDofCellsThatAreRefused) {
    TempDir tmp;
    write_inputs(tmp);
    const std::string head = std::string(kHead) + "\tvolume\teffect_volume\n";
    struct bad_case {
        const char *what, *row, *message;
    } cases[] = {
        {"same volume by selector", "s1\ta\tbucket.nii.gz[1]\tbucket.nii.gz[1]\t\t20\t\t\n",
         "t.tsv line 2: the effect and the tstat are the same map ("},
        {"same volume by the shared column", "s1\ta\tbucket.nii.gz\tbucket.nii.gz\t\t20\t1\t\n",
         "t.tsv line 2: the effect and the tstat are the same map ("},
        {"same 3-D file", "s1\ta\tcoef.nii\t\tcoef.nii\t20\t\t\n",
         "the effect and the stderr are the same map"},
        {"a range", "s1\ta\tbucket.nii.gz[1..2]\tbucket.nii.gz[2]\t\t20\t\t\n",
         "line 2, column 3 (effect): the selector [1..2] is not one volume"},
        {"a label without AFNI's extension",
         "s1\ta\tbucket.nii.gz[Coef]\tbucket.nii.gz[2]\t\t20\t\t\n",
         "column 3 (effect): bucket.nii.gz has no AFNI sub-brick labels"},
        {"an unknown label", "s1\ta\tlabelled.nii.gz[Coef]\tbucket.nii.gz[2]\t\t20\t\t\n",
         "labelled.nii.gz has no sub-brick labelled Coef (its labels: Full_Fstat, condA#0_Coef, "
         "condA#0_Tstat)"},
        {"selector and column disagree", "s1\ta\tbucket.nii.gz[1]\tbucket.nii.gz[2]\t\t20\t\t2\n",
         "column 8 (effect_volume): volume 2 where the cell bucket.nii.gz[1] selects volume 1"},
        {"dof from an F map", "s1\ta\tcoef.nii\tspmT_0001.nii\t\tspmF_0003.nii\t\t\n",
         "spmF_0003.nii is an SPM F map; name the contrast's spmT file"},
        {"dof from an image without SPM's description",
         "s1\ta\tcoef.nii\tspmT_0001.nii\t\tones.nii\t\t\n",
         "ones.nii gives no degrees of freedom"},
        {"dof from an AFNI sub-brick that is no t",
         "s1\ta\tcoef.nii\tspmT_0001.nii\t\tlabelled.nii.gz[condA#0_Coef]\t\t\n",
         "labelled.nii.gz gives no degrees of freedom"},
        {"an AFNI dataset", "s1\ta\tstats+tlrc.HEAD\tspmT_0001.nii\t\t20\t\t\n",
         "stats+tlrc.HEAD is an AFNI dataset; convert it with 3dAFNItoNIFTI"},
    };
    for (const bad_case &c : cases) {
        SCOPED_TRACE(c.what);
        write_file(tmp.file("t.tsv"), head + c.row);
        CommandResult r = bridge_test::run_tool(
            "fmri-rem-import", {"t.tsv", "-o", "study", "-c", "a", "-s", "0", "0"}, tmp.path());
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err.compare(0, 7, "Error: "), 0) << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
        EXPECT_EQ(run_command("find study -type f 2>/dev/null", tmp.path()).out, "");
    }
}
