// fmri-rem-report: the report page of a results folder (see report.h).
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "report.h"
#include "companion_cli.h"

namespace {

bool to_number(const std::string &text, double *value) {
    char *end = nullptr;
    errno = 0;
    *value = std::strtod(text.c_str(), &end);
    return !text.empty() && *end == '\0' && errno == 0 && std::isfinite(*value);
}

}  // namespace

int main(int argc, char **argv) {
    report::options o;
    std::string threshold = "3", min_cluster = "1";
    CLI::App app{
        "Writes a report page of the results that fmri-rem wrote into RESULTS_DIR: the run, the "
        "design, per condition the map thresholded at -log10 p >= LOGP over the brain with its "
        "clusters, and diagnostics. The page is one HTML file with its pictures inside; the "
        "cluster tables are also written as RESULTS_DIR/contrast-<label>_clusters.tsv.",
        "fmri-rem-report"};
    app.set_version_flag("--version", std::string("fmri-rem-report ") + report::version());
    app.add_option("RESULTS_DIR", o.results_dir, "the folder where fmri-rem ran")
        ->capture_default_str();
    app.add_option(
           "-t,--threshold", threshold,
           "show voxels with -log10 p at or above LOGP (3 means p <= 0.001); p is computed from T "
           "as fmri-rem-export computes it (two-sided t, upper tail of F; corrected "
           "when the analysis file sets multiple-comparisons)")
        ->type_name("LOGP")
        ->capture_default_str();
    app.add_option("-m,--min-cluster", min_cluster, "leave out clusters of fewer voxels")
        ->type_name("VOXELS")
        ->capture_default_str();
    app.add_option("-b,--background", o.background,
                   "a grey image on the results' grid (NIfTI or .bfloat); default: the "
                   "within-subject variance, first frame of sigma2")
        ->type_name("IMAGE");
    app.add_option("-a,--analysis", o.analysis,
                   "the analysis file; default: the one named in RESULTS_DIR/.vistra")
        ->type_name("FILE");
    app.add_option("-o,--output", o.output, "the page; default: RESULTS_DIR/report.html")
        ->type_name("report.html");
    app.add_option("--overview", o.overview,
                   "also write a PNG of every condition's three projections (for slides or a "
                   "README)")
        ->type_name("PICTURE.png");
    if (const int status = parse_companion_command_line(app, argc, argv); status >= 0)
        return status;
    double value = 0.0;
    if (!to_number(threshold, &value)) {
        std::fprintf(stderr, "Error: the threshold '%s' is not a number\n", threshold.c_str());
        return 1;
    }
    o.threshold = value;
    if (!to_number(min_cluster, &value) || value != std::floor(value) || value < 1) {
        std::fprintf(stderr, "Error: the smallest cluster '%s' is not a whole number of voxels\n",
                     min_cluster.c_str());
        return 1;
    }
    o.min_cluster = static_cast<long>(value);

    report::outcome out;
    std::string error;
    if (!report::make_report(o, &out, &error)) {
        std::fprintf(stderr, "Error: %s\n", error.c_str());
        return 1;
    }
    for (const std::string &w : out.warnings) std::fprintf(stderr, "Warning: %s\n", w.c_str());
    for (const std::string &t : out.tables) std::printf("Cluster table: %s\n", t.c_str());
    if (!o.overview.empty()) std::printf("Overview: %s\n", o.overview.c_str());
    std::printf("Report: %s\n", out.page.c_str());
    return 0;
}
