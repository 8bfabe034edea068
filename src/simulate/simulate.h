// A synthetic group study in the form fmri-rem reads: per-subject two-frame
// volumes (effect, standard error) with native text headers that carry each
// subject's degrees of freedom, an analysis file that groups the subjects
// into events and names the conditions, and the true group effects and
// between-subject variance for comparison.
//
// Model at voxel v for subject j of group g:
//   subject effect   b_j(v) = mu_g(v) + sd_between(v) * u_j(v)
//   observed effect  y_j(v) = b_j(v) + s_j(v) * e_j(v)
// with mu_g a sum of Gaussian blobs, u_j and e_j smooth Gaussian noise
// fields of unit variance (e_j as smooth as the stated first-level
// smoothing, u_j as between_fwhm says), and s_j(v) the subject's standard
// error, which is written as the second frame: a factor per subject times a
// trend along y, times exp(S w_j(v)) for a smooth field w_j with error
// spread S.  The files depend only on the options (not on the number of
// threads): the generator is our own (splitmix64 with Box-Muller).
#ifndef FMRI_REM_SIMULATE_H
#define FMRI_REM_SIMULATE_H

#include <cstdint>
#include <ostream>
#include <string>

namespace simulate {

struct options {
    std::string out = "example-study";
    std::string prefix;  // put before every file name in the analysis file
    int nx = 32, ny = 32, nz = 16;
    float voxel = 3.0f;  // mm, isotropic
    int groups = 2;      // 1 to 26
    int subjects = 12;   // per group
    uint64_t seed = 1;
    float prior_fwhm = 6.0f;  // smoothness of the single-subject maps, mm
    float ratio_fwhm = 8.0f;  // written into the analysis file, mm
    float between = 0.5f;     // between-subject standard deviation (mean over the volume)
    float within = 0.4f;      // typical single-subject standard error
    float effect = 1.0f;      // peak group effect
    int dof = 120;            // typical single-subject degrees of freedom
    bool null_study = false;  // no group effects at all
    bool mask = true;         // zero outside an ellipsoidal "brain"
    bool uniform = false;     // between and within variance the same everywhere
    // Smoothness of the subjects' deviations from their group effect, mm
    // (negative: that of the single-subject maps).
    float between_fwhm = -1.0f;
    // Spread of each subject's own smooth map of standard-error factors
    // (log scale; 0 keeps one factor per subject and the trend along y).
    float error_spread = 0.0f;
    bool converged = false;  // "reml converged" in the analysis file; no 200-file cap
    int threads = 0;         // subjects written at once (0: one per core)
};

// Files that fmri-rem reads with the classic estimate, and with "reml converged".
constexpr long classic_files = 200;
constexpr long converged_files = 1000000;

// Why the options cannot make a study (one line, without "Error: "), or
// empty when they can.
std::string check(const options &o);

// Writes the study into the folder o.out.  The files are written into a
// temporary folder beside it (o.out + ".tmp-<pid>") and moved into place
// only when all are complete: a new folder is renamed as a whole; into a
// folder that exists already the files are moved one by one, replacing
// files of the same names and leaving any others alone.  On success two
// lines go to out; on failure *error is set (one line, without "Error: ")
// and nothing is left behind.
bool write_study(const options &o, std::ostream &out, std::string *error);

// The program's version, as the companion programs print it.
const char *version();

}  // namespace simulate

#endif
