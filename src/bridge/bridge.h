// NIfTI import and export beside the analysis: first-level NIfTI maps in
// (signal files, an analysis file and geometry.json), result volumes out (NIfTI
// statistical maps with intents), and the pieces that the report shares with
// the export (condition labels and the geometry of a results folder).
#ifndef FMRI_REM_BRIDGE_H
#define FMRI_REM_BRIDGE_H

#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace bridge {

// The version of the companion programs (that of the project).
const char *version();

// A condition's name (or its text) in file names, as a BIDS label: letters
// and digits kept, "-" written "Minus", "," "And", "+" "Plus", "*" "Times",
// "." "p" and ":" "By", anything else dropped ("p-c" gives "pMinusc",
// "0.5*a+b" "0p5TimesaPlusb").
std::string condition_label(const std::string &name);

// The rows of a condition's test: its commas plus one.
int condition_rows(const std::string &condition);

// What the analysis file says beyond the signals: its header (the lines
// before the first event line, or before "measurements" where that line
// exists), its signal files, and the names that fmri-rem-import writes as
// comments ("# event p = patients", "# condition p-c = patients-controls").
struct analysis_header {
    bool smoothing_given = false;
    double prior_smoothing = 0.0, ratio_smoothing = 0.0;  // mm FWHM
    int multiple_comparisons = 0;                         // resolution elements; 0: raw p
    bool converged = false;                               // "reml converged"
    std::vector<std::string> conditions;                  // in event characters, as written
    std::vector<std::string> files;                       // the signal files, in order
    std::map<char, std::string> event_names;
    std::map<std::string, std::string> condition_names;
    // The condition's name where the file gives one, else its own text.
    std::string name_of(const std::string &condition) const;
    // An event's name where the file gives one, else its character.
    std::string event_name(char event) const;
};
analysis_header read_analysis_header(const std::string &text);

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

// The p values of one condition, computed in double precision from its
// statistic T (fmri-rem's T map: the signed square root of F) and the
// degrees of freedom of the result header; the export's maps and the report
// take every p from here.  A condition of one row is a t test with
// two-sided p; one of m rows is an F test of F = T^2 with (m, dof) degrees
// of freedom and the upper tail of F as p.  With resels > 0, the corrected p
// is the expected Euler characteristic of the statistic's field over that
// many resolution elements (three-dimensional term), taken as 1 below the
// statistic where that formula has its maximum and wherever it exceeds 1,
// so that it never increases with |T|.
class p_values {
  public:
    p_values(int rows, double dof, int resels);
    int rows() const { return rows_; }
    double dof() const { return dof_; }
    int resels() const { return resels_; }
    bool corrected() const { return resels_ > 0; }
    // |T| below which the corrected p is 1 (infinite where the formula never
    // decreases, as for a t field of 3 or fewer degrees of freedom).
    double corrected_from() const { return corrected_from_; }

    double log10_raw(double t) const;        // log10 p, at most 0
    double log10_corrected(double t) const;  // log10 of the corrected p
    // The p that the analysis asks for: corrected when resels > 0.
    double log10_p(double t) const { return corrected() ? log10_corrected(t) : log10_raw(t); }
    // -log10 p of log10_p, with the sign of T for a t test; F tests have none.
    double signed_logp(double t) const;
    // z of the raw p: signed with T and two-sided for a t test; one-sided,
    // from the upper tail, for an F test (negative where p > 0.5; at least
    // -37.04, the z of a lower tail of 1e-300, as where F = 0).
    double z(double t) const;

    // All of them at once (one tail computed once): what a map needs per voxel.
    struct at_t {
        double log10_raw, signed_logp, z;
    };
    at_t at(double t) const;

  private:
    double log_ec_density(double f) const;  // natural log; -inf where not positive
    int rows_;
    double dof_;
    int resels_;
    double corrected_from_;
};

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
    bool progress = false;  // progress lines on `err`
    // The model beside the groups: covariates (centred on their mean unless
    // centre is false; a text column gives an indicator column per level but
    // the first), covariates with one slope per group, or a design matrix of
    // the user's (a .tsv with participant_id) in place of all of these.
    std::vector<std::string> covariates, by_group;
    bool centre = true;
    std::string design_matrix;
    std::string paired;     // "post-pre": one signal file per participant, post minus pre
    bool converged = true;  // "reml converged" (else "reml classic")
    // "smoothness estimated": the smoothed ratio's degrees of freedom from the
    // data's own smoothness (else "smoothness stated": from the first smoothing)
    bool smoothness_estimated = true;
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
