// The report page of a results folder: one self-contained HTML page with the
// run's facts, the design, per condition a thresholded slice mosaic over a
// grey background with three maximum-intensity projections and a cluster
// table, and diagnostics of the variance maps and the p values; beside it one
// cluster table per condition (contrast-<label>_clusters.tsv).
#ifndef FMRI_REM_REPORT_H
#define FMRI_REM_REPORT_H

#include <string>
#include <vector>

#include "bridge.h"

namespace report {

// What the report is made of and where it goes.
struct options {
    std::string results_dir = ".";  // where fmri-rem wrote its results
    double threshold = 3.0;         // -log10 p at or above which a voxel is shown
    long min_cluster = 1;           // smaller clusters are left out of the tables and pictures
    std::string background;         // an image on the results' grid; empty: within variance
    std::string analysis;           // the analysis file; empty: the one named in .vistra
    std::string output;             // the page; empty: results_dir/report.html
    std::string overview;           // a PNG of every condition's projections; empty: none
};

// One peak of a cluster: voxel (0-based i, j, k), its position in mm and the
// values of the two maps there.
struct peak {
    int ijk[3] = {0, 0, 0};
    double mm[3] = {0, 0, 0};
    float t = 0.0f;
    float logp = 0.0f;
};

// A cluster: voxels with -log10 p >= the threshold, all of one sign, joined through
// faces, edges or corners (26-connected).  peaks[0] is the cluster's own peak
// (largest -log10 p, then largest |T|); further peaks are local maxima at least
// 8 mm from every stronger peak kept.
struct cluster {
    int sign = 1;  // +1 for positive T, -1 for negative
    long voxels = 0;
    double volume_mm3 = 0.0;
    std::vector<peak> peaks;
};

// Distance in mm that keeps the further peaks of a cluster apart.
constexpr double peak_separation_mm = 8.0;

// The clusters of a map of signed -log10 p values (logp) and the matching T
// values, both nx*ny*nz values with x fastest; positive and negative ones
// apart; clusters of fewer than min_cluster voxels are dropped.  Sorted by
// size, the largest first (equal sizes: the stronger peak first).  When
// labels is given it receives, per voxel, the 1-based place of its cluster in
// that list, or 0.
std::vector<cluster> find_clusters(const float *logp, const float *t, const int dims[3],
                                   const bridge::geometry &geometry, double threshold,
                                   long min_cluster, std::vector<int> *labels = nullptr);

// The text of a cluster table (tab-separated, with a header line); the peak
// statistic's column is peak_t, or peak_f for a test of several rows.
std::string clusters_tsv(const std::vector<cluster> &clusters, bool f_test = false);

// What a finished report left behind.
struct outcome {
    std::string page;                   // the HTML page's path
    std::vector<std::string> tables;    // the cluster tables' paths
    std::vector<std::string> warnings;  // one line each, without "Warning: "
};

// Reads the results, writes the cluster tables and the page (each under a
// temporary name, renamed when all are complete).  False with *error set
// (one line, without "Error: ") on bad input; nothing is then left behind.
bool make_report(const options &o, outcome *out, std::string *error);

// The program's version, as the companion programs print it.
const char *version();

}  // namespace report

#endif
