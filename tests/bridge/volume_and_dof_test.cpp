// The import's choice of volumes in multi-volume files (AFNI's selector, the
// <column>_volume columns, the shared volume column) and its degrees of
// freedom (numbers, dof files, SPM t maps, values that are not integers).
#include <gtest/gtest.h>

#include <algorithm>
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
    return bridge_test::grid(2, 2, 1, 2, volumes);
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

// Cells below are separated by '|', from the effect to tstat_volume.
std::string table(const std::vector<std::string> &rows) {
    std::string t =
        "participant_id\tgroup\teffect\ttstat\tstderr\tdof\tvolume\teffect_volume\t"
        "tstat_volume\n";
    for (size_t s = 0; s < rows.size(); ++s)
        t += "s" + std::to_string(s + 1) + "\ta\t" + rows[s] + "\n";
    std::replace(t.begin(), t.end(), '|', '\t');
    return t;
}

}  // namespace

TEST(Bridge, VolumesAndDegreesOfFreedomOfEachRow) {
    TempDir tmp;
    write_inputs(tmp);
    const std::string bt = "bucket.nii.gz[1]|bucket.nii.gz[2]||20|||",
                      c2 = "coef.nii|spmT_0002.nii||";
    const struct {
        std::vector<std::string> rows;  // from the effect; its value is b, its error |b / t|
        std::vector<int> dofs;          // per row
        size_t unit_from;               // the rows from this one have errors of 1 instead
        const char *out, *err;          // part of standard output, start of standard error
    } cases[] = {
        {{bt, "labelled.nii.gz[condA#0_Coef]|labelled.nii.gz[condA#0_Tstat]||20|||",
          "bucket.nii.gz|bucket.nii.gz||20||1|2", "bucket.nii.gz|bucket.nii.gz||20|1||2",
          "coef.nii|spmT_0001.nii||spmT_0001.nii|||", c2 + "12.7|||", c2 + "spmT_0002.nii|||",
          c2 + "dof.txt|||", c2 + "labelled.nii.gz[condA#0_Tstat]|||", c2 + "tmap.nii|||",
          "unoriented.nii|spmT_0002.nii||20|||"},
         {20, 20, 20, 20, 23, 12, 187, 41, 412, 33, 20},
         99,
         "rounded down: 23.4 -> 23 (line 6) and 2 more rows.\n",
         "Warning: 1 NIfTI file has neither qform nor sform (e.g. unoriented.nii)"},
        {{"bucket.nii.gz[1]||ones.nii|20|||"},
         {20},
         0,
         "",
         "Warning: every standard error of the study is 1"},
        {{bt, "bucket.nii.gz[1]|coef.nii||20|||"},
         {20, 20},
         1,
         "",
         "Warning: the standard errors of table line 3 are 1"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.err);
        run_command("rm -rf study", tmp.path());
        write_file(tmp.file("t.tsv"), table(c.rows));
        CommandResult r = bridge_test::import(tmp.path(), "t.tsv", "a");
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_TRUE(holds(r.out, c.out));
        EXPECT_EQ(r.out.find("rounded down") != std::string::npos, *c.out != 0) << r.out;
        EXPECT_EQ(r.err.rfind(c.err, 0), 0u) << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
        for (size_t s = 0; s < c.dofs.size(); ++s) {
            const std::string id = tmp.file("study/signal/s" + std::to_string(s + 1));
            std::vector<float> got = read_floats(id + ".bfloat");
            ASSERT_EQ(got.size(), 8u);
            for (int i = 0; i < 4; ++i) {
                EXPECT_EQ(got[i], static_cast<float>(kB[i])) << s << " " << i;
                EXPECT_EQ(got[4 + i], s >= c.unit_from ? 1.0f : kSe[i]) << s << " " << i;
            }
            EXPECT_TRUE(
                holds(read_file(id + ".hdr"), "freedom " + std::to_string(c.dofs[s]) + "\n"));
        }
    }

    const struct {
        const char *row, *message;
    } refused[] = {
        {"bucket.nii.gz[1]|bucket.nii.gz[1]||20|||",
         "line 2: the effect and the tstat are the same map"},
        {"coef.nii||coef.nii|20|||", "the effect and the stderr are the same map"},
        {"bucket.nii.gz[1..2]|bucket.nii.gz[2]||20|||",
         "column 3 (effect): the selector [1..2] is not one volume"},
        {"bucket.nii.gz[Coef]|bucket.nii.gz[2]||20|||",
         "column 3 (effect): bucket.nii.gz has no AFNI sub-brick labels"},
        {"labelled.nii.gz[Coef]|bucket.nii.gz[2]||20|||",
         "has no sub-brick labelled Coef (its labels: Full_Fstat, condA#0_Coef, condA#0_Tstat)"},
        {"bucket.nii.gz[1]|bucket.nii.gz[2]||20||2|",
         "column 8 (effect_volume): volume 2 where the cell bucket.nii.gz[1] selects volume 1"},
        {"coef.nii|spmT_0001.nii||spmF_0003.nii|||",
         "spmF_0003.nii is an SPM F map; name the contrast's spmT file"},
        {"coef.nii|spmT_0001.nii||ones.nii|||", "ones.nii gives no degrees of freedom"},
        {"coef.nii|spmT_0001.nii||labelled.nii.gz[condA#0_Coef]|||",
         "labelled.nii.gz gives no degrees of freedom"},
        {"stats+tlrc.HEAD|spmT_0001.nii||20|||",
         "is an AFNI dataset; convert it with 3dAFNItoNIFTI"},
    };
    for (const auto &c : refused) {
        SCOPED_TRACE(c.row);
        run_command("rm -rf study", tmp.path());
        write_file(tmp.file("t.tsv"), table({c.row}));
        bridge_test::expect_refused(bridge_test::import(tmp.path(), "t.tsv", "a"), c.message,
                                    tmp.path());
    }
}
