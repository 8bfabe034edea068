// Pieces of the report module that its own files share: the results read
// from a folder, pictures, and the page.
#ifndef FMRI_REM_REPORT_INTERNAL_H
#define FMRI_REM_REPORT_INTERNAL_H

#include <cstdint>
#include <string>
#include <vector>

#include "report.h"
#include "util.h"

namespace report {

// One condition's maps and what was found in them.
struct condition_maps {
    std::string name;   // in event characters, as in the result file names
    std::string title;  // its name where the analysis file gives one, else name
    std::string label;  // as in the exported file names
    // -log10 p from T through bridge::p_values (signed with T for a t test),
    // corrected where the analysis asks for it; and T itself.
    std::vector<float> logp, t;
    std::vector<float> raw_log10p;  // log10 of the uncorrected p, for the histograms
    int rows = 1, dof = 0;
    bool corrected = false;
    double corrected_from = 0.0;                // |T| below which the corrected p is 1
    std::vector<std::vector<double>> contrast;  // rows x events
    std::vector<cluster> clusters;
    std::vector<int> cluster_of;  // per voxel: 1-based place in clusters, or 0
};

// What the run was: from the analysis file, basis.dat and the headers.
struct run_facts {
    std::string analysis_path;  // empty when not found
    std::string analysis_text;
    bridge::analysis_header header;  // names of events and conditions among it
    int multiple_comparisons = 0;
    bool smoothing_known = false;
    double prior_smoothing = 0.0, ratio_smoothing = 0.0;
    std::vector<std::string> files;           // signal files, from the analysis file
    std::vector<char> events;                 // event characters, from basis.dat
    std::vector<std::vector<double>> design;  // basis.dat: one row per file
    std::vector<int> files_per_event;
    long fixed_dof = -1;  // -1: some signal file's header could not be read
    int random_dof = 0;
    int smoothed_dof = 0;
    long voxels = 0, analysed = 0;
    std::string results_time;  // when sigma2 was written
};

// A results folder, read.
struct results {
    int dims[3] = {0, 0, 0};
    bridge::geometry geometry;
    std::vector<float> within, between, smoothed;  // the frames of sigma2
    bool has_smoothed = false;
    std::vector<float> background;
    std::string background_name;
    std::vector<char> analysed;  // 1 where the voxel was analysed
    std::vector<condition_maps> conditions;
    run_facts facts;
    size_t size() const { return static_cast<size_t>(dims[0]) * dims[1] * dims[2]; }
};

// results.cpp: reads the folder; warnings for what is missing but not needed.
bool load_results(const options &o, results *r, std::vector<std::string> *warnings,
                  std::string *error);

// pictures.cpp
struct rgb {
    uint8_t r = 0, g = 0, b = 0;
};
struct image {
    int width = 0, height = 0;
    std::vector<rgb> pixels;  // row by row, top row first
    image() = default;
    image(int w, int h, rgb fill = rgb{}) : width(w), height(h), pixels(size_t(w) * h, fill) {}
    rgb &at(int x, int y) { return pixels[size_t(y) * width + x]; }
};
// A PNG file's bytes (8-bit RGB), false when libpng fails.
bool encode_png(const image &im, std::string *png);
std::string base64(const std::string &bytes);
// A signed statistic past the threshold: hue for the sign, lightness rising
// with the strength s in [0, 1] (0 at the threshold, 1 at the largest value).
rgb signed_colour(int sign, double s);
// The sequential map of the variance pictures, s in [0, 1].
rgb sequential_colour(double s);
// The grey of the background, s in [0, 1].
rgb background_grey(double s);

// How the voxel axes are shown: world x to the right, y up in axial slices.
struct view_axes {
    int axis[3] = {0, 1, 2};               // voxel axis that runs along world x, y, z
    bool flip[3] = {false, false, false};  // voxel index grows towards -x, -y, -z
    double mm[3] = {1, 1, 1};              // voxel size along each voxel axis
};
view_axes view_of(const bridge::geometry &g);

// An <img> element with the picture as a PNG data URI.
std::string img_tag(const image &im, const std::string &alt, const std::string &css_class = "");

// views.cpp: pictures of the volumes.  Slices and projections show world x
// to the right and y (axial) or z (side and front views) upwards; ppm is the
// scale in pixels per mm.
struct statistic_overlay {
    const float *logp = nullptr;              // signed -log10 p
    const std::vector<int> *shown = nullptr;  // non-zero where a kept cluster lies
    double threshold = 3.0, largest = 4.0;    // -log10 p at the bottom and top of the colour bar
};
struct grey_range {
    double low = 0.0, high = 1.0;  // background values drawn darkest and lightest
};
grey_range grey_range_of(const std::vector<float> &values, const std::vector<char> &mask);
double pixels_per_mm(const results &r, const view_axes &v, double target_pixels);
// The axial slices (along world z, bottom first) that hold analysed voxels,
// at most `most` of them spread evenly.
std::vector<int> slices_to_show(const results &r, const view_axes &v, int most);
image statistic_slice(const results &r, const view_axes &v, int slice, const grey_range &g,
                      const statistic_overlay &s, double ppm);
// Maximum-intensity projection along world axis `along` (0 side, 1 front, 2 top).
image statistic_projection(const results &r, const view_axes &v, int along,
                           const statistic_overlay &s, double ppm);
image value_slice(const results &r, const view_axes &v, int slice, const std::vector<float> &values,
                  double high, double ppm);
// Half of the colour bar: from the threshold at the centre to the largest
// value at the outer end (left for negative, right for positive).
image colour_bar(int sign, int width, int height);
image sequential_bar(int width, int height);
image design_picture(const run_facts &f, int cell_width, int cell_height);
image histogram_picture(const std::vector<long> &counts, int width, int height);
// World z of an axial slice at the volume's centre, in mm.
double slice_mm(const results &r, const view_axes &v, int slice);

// overview.cpp: the projections of every condition in one captioned picture.
image overview_picture(const options &o, const results &r);

// page.cpp: the whole page; sections.cpp: its parts per condition and the
// diagnostics.
std::string page_html(const options &o, const results &r);
std::string html_escape(const std::string &text);
std::string condition_section(const options &o, const results &r, const condition_maps &c);
// "t test, 40 dof, two-sided p" and the like, in HTML.
std::string test_text(const condition_maps &c);
std::string diagnostics_section(const options &o, const results &r);

}  // namespace report

#endif
