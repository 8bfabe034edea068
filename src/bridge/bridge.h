// NIfTI import and export beside the analysis: first-level NIfTI maps in
// (signal files, an analysis file and geometry.json), result volumes out (NIfTI
// statistical maps with intents), and the pieces that the report shares with
// the export (condition labels and the geometry of a results folder).
#ifndef FMRI_REM_BRIDGE_H
#define FMRI_REM_BRIDGE_H

#include <ostream>
#include <string>

namespace bridge {

// The version of the companion programs (that of the project).
const char *version();

// A condition's name in file names: event characters kept, "-" written
// "Minus" and "," written "And" ("p-c" gives "pMinusc", "p,c" "pAndc").
std::string condition_label(const std::string &condition);

// Where the voxels of a results folder lie in space.
struct geometry {
    int dims[3] = {0, 0, 0};
    double affine[4][4] = {
        {1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}};  // (i, j, k, 1) -> mm
    int qform_code = 2;  // the input's codes as read (0 when it had none)
    int sform_code = 2;
    bool from_header = false;  // built from a result header, not read from geometry.json
    std::string source;        // the file it came from
    std::string analysis;      // the import's analysis file, relative to source's folder ("": none)
};

// The geometry of a results folder: the file `given` when not empty, else
// results_dir/geometry.json, else geometry.json in its parent folder; without
// one, the affine of the result header's (sigma2.hdr) voxel size, origin and
// direction, with codes 2 and from_header set.  False with *error set (one
// line, without "Error: ") when none can be had.
bool find_geometry(const std::string &results_dir, const std::string &given, geometry *out,
                   std::string *error);

// Whether fmri-rem analysed a voxel, from its fixed-effects variance (frame 1
// of sigma2) and the random-effects variance that the second pass used (the
// smoothed one, frame 3, when the ratio is smoothed, else frame 2): a voxel
// whose random variance is exactly 0 is left out, except that with
// "reml converged" (converged true) an estimate of 0 is analysed unless the
// fixed-effects variance is 0 too.
inline bool voxel_analysed(float fixed, float random, bool converged) {
    return random != 0.0f || (converged && fixed != 0.0f);
}

// True when the text of an analysis file selects the converged estimate (a
// header line "reml converged").
bool analysis_uses_converged_reml(const std::string &text);

// Voxel (i, j, k) in millimetres through the affine.
void voxel_to_mm(const geometry &g, double i, double j, double k, double mm[3]);

// fmri-rem-import: a table of first-level NIfTI maps to signal files, an
// analysis file and geometry.json in out_dir.
struct import_options {
    std::string table;
    std::string out_dir = "study";
    std::string conditions;
    double prior_smoothing = 0;
    double ratio_smoothing = 0;
    std::string mask;  // "" for none
    int multiple_comparisons = 0;
    bool progress = false;   // progress lines on `err`
    bool converged = false;  // "reml converged" in the analysis file (over 200 rows allowed)
};

// fmri-rem-export: the result volumes of results_dir to NIfTI maps in out_dir
// (results_dir/nifti when empty).
struct export_options {
    std::string results_dir = ".";
    std::string out_dir;
    std::string geometry;  // "" to look for geometry.json
    bool progress = false;
};

// Both return 0 on success and 1 after one "Error: ..." line on `err`; what
// they report goes to `out`, warnings ("Warning: ...") to `err`.
int run_import(const import_options &options, std::ostream &out, std::ostream &err);
int run_export(const export_options &options, std::ostream &out, std::ostream &err);

}  // namespace bridge

#endif
