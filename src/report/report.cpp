// The report of a results folder: read, find the clusters, write the tables
// and the page, each under a temporary name until all are complete.
#include <unistd.h>

#include <cmath>
#include <cstdio>

#include "report_internal.h"

#ifndef FMRI_REM_VERSION
#define FMRI_REM_VERSION "unknown"
#endif

namespace report {

namespace {

bool write_whole(const std::string &path, const std::string &text) {
    FILE *f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) return false;
    bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
    return std::fclose(f) == 0 && ok;
}

}  // namespace

const char *version() {
    return FMRI_REM_VERSION;
}

bool make_report(const options &given, outcome *out, std::string *error) {
    options o = given;
    if (o.results_dir.empty()) o.results_dir = ".";
    if (!(o.threshold > 0.0) || !std::isfinite(o.threshold)) {
        *error = "the threshold must be a positive number (-log10 p)";
        return false;
    }
    if (o.min_cluster < 1) {
        *error = "the smallest cluster must have at least 1 voxel";
        return false;
    }
    results r;
    if (!load_results(o, &r, &out->warnings, error)) return false;
    for (condition_maps &c : r.conditions)
        c.clusters = find_clusters(c.logp.data(), c.t.data(), r.dims, r.geometry, o.threshold,
                                   o.min_cluster, &c.cluster_of);

    // Everything under temporary names first; renamed only when all is written.
    std::vector<std::pair<std::string, std::string>> files;  // final name, text
    for (const condition_maps &c : r.conditions)
        files.emplace_back(o.results_dir + "/contrast-" + c.label + "_clusters.tsv",
                           clusters_tsv(c.clusters, c.rows > 1));
    const std::string page = o.output.empty() ? o.results_dir + "/report.html" : o.output;
    if (!o.overview.empty()) {
        std::string png;
        if (!encode_png(overview_picture(o, r), &png)) {
            *error = "cannot make the overview picture";
            return false;
        }
        files.emplace_back(o.overview, png);
    }
    files.emplace_back(page, page_html(o, r));
    const std::string suffix = ".tmp-" + std::to_string(getpid());
    size_t written = 0;
    for (; written < files.size(); ++written) {
        if (!write_whole(files[written].first + suffix, files[written].second)) {
            *error = "cannot write " + files[written].first;
            break;
        }
    }
    if (written < files.size()) {
        for (size_t k = 0; k <= written && k < files.size(); ++k)
            std::remove((files[k].first + suffix).c_str());
        return false;
    }
    for (const auto &f : files) {
        if (std::rename((f.first + suffix).c_str(), f.first.c_str()) != 0) {
            *error = "cannot rename " + f.first + suffix + " to " + f.first;
            for (const auto &g : files) std::remove((g.first + suffix).c_str());
            return false;
        }
    }
    out->page = page;
    out->tables.clear();
    for (const condition_maps &c : r.conditions)
        out->tables.push_back(o.results_dir + "/contrast-" + c.label + "_clusters.tsv");
    return true;
}

}  // namespace report
