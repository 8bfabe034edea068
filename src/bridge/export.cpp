// fmri-rem-export: the result volumes of a results folder become NIfTI-1
// statistical maps with intents, a mask and JSON sidecars.
#include <dirent.h>
#include <nifti1.h>

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <sstream>

#include "bridge_internal.h"

namespace bridge {

namespace {

// The analysis file of a run and what it says.
struct analysis {
    std::string path;  // "" when not found
    analysis_header header;
};

analysis read_analysis(const std::string &path) {
    analysis a;
    a.path = path;
    a.header = read_analysis_header(read_text(path));
    return a;
}

// The analysis file of the run: named in the viewer's start-up file that
// fmri-rem leaves in its folder, else the one the import wrote.
analysis find_analysis(const std::string &dir, const geometry &g) {
    std::vector<std::string> candidates;
    const std::string vistra = join_path(dir, ".vistra");
    if (is_file(vistra)) {
        std::istringstream words(read_text(vistra));
        std::string vt, r, file;
        if (words >> vt >> r >> file && r == "-r") candidates.push_back(join_path(dir, file));
    }
    if (!g.analysis.empty()) candidates.push_back(join_path(parent_dir(g.source), g.analysis));
    for (const std::string &c : candidates)
        if (is_file(c)) return read_analysis(c);
    return analysis();
}

std::vector<std::string> conditions_in_folder(const std::string &dir) {
    std::vector<std::string> found;
    if (DIR *d = opendir(dir.c_str())) {
        while (dirent *e = readdir(d)) {
            std::string name = e->d_name;
            if (name.size() > 9 && name.compare(0, 2, "P-") == 0 &&
                name.compare(name.size() - 7, 7, ".bfloat") == 0)
                found.push_back(name.substr(2, name.size() - 9));
        }
        closedir(d);
    }
    std::sort(found.begin(), found.end());
    return found;
}

// One result volume: its header and all its frames.
struct volume {
    native_header header;
    std::vector<float> data;
};

volume read_volume(const std::string &dir, const std::string &stem, const int dims[3],
                   int frames_needed) {
    const std::string hdr = join_path(dir, stem + ".hdr"), data = join_path(dir, stem + ".bfloat");
    if (!is_file(hdr) || !is_file(data))
        throw failure("the result volume " + data + " or its header is missing");
    volume v;
    v.header = read_native_header(hdr);
    if (v.header.nx != dims[0] || v.header.ny != dims[1] || v.header.nz != dims[2])
        throw failure(hdr + " does not have the dimensions of the geometry (" +
                      std::to_string(dims[0]) + " x " + std::to_string(dims[1]) + " x " +
                      std::to_string(dims[2]) + ")");
    const size_t n = static_cast<size_t>(dims[0]) * dims[1] * dims[2];
    size_t frames = static_cast<size_t>(v.header.nt);
    // sigma2 announces three frames and holds two when the ratio is not smoothed.
    if (frames_needed > 0 && frames_needed < v.header.nt &&
        file_size(data) == static_cast<int64_t>(n * frames_needed * sizeof(float)))
        frames = static_cast<size_t>(frames_needed);
    v.data = read_floats(data, 0, n * frames);
    v.header.nt = static_cast<int>(frames);
    return v;
}

void write_text(const std::string &path, const std::string &text) {
    write_bytes(path, text.data(), text.size());
}

struct exporter {
    exporter(const export_options &options, std::ostream &stream) : o(options), err(stream) {}
    const export_options &o;
    std::ostream &err;
    geometry g;
    analysis an;
    size_t n = 0;
    std::vector<uint8_t> analysed;
    staging stage;
    nlohmann::json common;
    int written = 0;

    // Finite values of analysed voxels as they are, everything else 0;
    // returns the count of analysed values that were not finite.
    size_t clean(std::vector<float> *values) const {
        size_t bad = 0;
        for (size_t k = 0; k < values->size(); ++k) {
            float &v = (*values)[k];
            if (!analysed[k % n])
                v = 0.0f;
            else if (!std::isfinite(v))
                v = 0.0f, ++bad;
        }
        return bad;
    }

    void write(const std::string &name, map_header h, std::vector<float> values,
               nlohmann::json sidecar, const std::string &what) {
        const size_t bad = clean(&values);
        h.descrip = "fmri-rem-export " + std::string(version()) + ": " + what;
        if (o.progress) err << "\rWriting " << name << std::string(10, ' ') << std::flush;
        const std::string path = join_path(o.out_dir, name + ".nii.gz");
        write_map(stage.add(path), g, h, values, analysed);
        for (auto &item : common.items()) sidecar[item.key()] = item.value();
        sidecar["NonFiniteVoxels"] = bad;
        write_text(stage.add(join_path(o.out_dir, name + ".json")), sidecar.dump(2) + "\n");
        ++written;
    }
};

// One condition's maps: its statistic (t, or F = T^2 for several rows) and
// effect maps as fmri-rem wrote them, and z and -log10 p computed from the
// statistic in double precision (not copied from the P volume, whose rules
// differ; see p_values).
void export_condition(exporter *x, const std::string &dir, const std::string &c) {
    const volume T = read_volume(dir, "T-" + c, x->g.dims, 0);
    const volume S = read_volume(dir, "S-" + c, x->g.dims, 0);
    if (T.header.nt != 1 || S.header.nt != 2)
        throw failure("the result volumes T-" + c + " and S-" + c + " do not have 1 and 2 frames");
    const analysis_header &ah = x->an.header;
    const int rows = condition_rows(c), dof = T.header.dof;
    const p_values pv(rows, dof, x->an.path.empty() ? 0 : ah.multiple_comparisons);
    const std::string name = ah.name_of(c);
    const std::string stem = "contrast-" + condition_label(name) + "_stat-";
    const std::string test =
        rows == 1 ? "t test with " + std::to_string(dof) + " dof"
                  : "F test with " + std::to_string(rows) + " and " + std::to_string(dof) + " dof";
    nlohmann::json side = {{"Contrast", c},
                           {"ContrastName", name},
                           {"ContrastRows", rows},
                           {"Test", rows == 1 ? "t" : "F"},
                           {"DegreesOfFreedom", dof}};
    if (rows > 1) side["NumeratorDegreesOfFreedom"] = rows;

    map_header h;
    std::vector<float> v(T.data);
    if (rows == 1) {
        h.intent_code = NIFTI_INTENT_TTEST;
        h.intent_p1 = dof;
        side["Statistic"] = "t";
        x->write(stem + "t_statmap", h, v, side, "t, " + std::to_string(dof) + " dof");
    } else {
        for (float &f : v) f = f * f;
        h.intent_code = NIFTI_INTENT_FTEST;
        h.intent_p1 = rows;
        h.intent_p2 = dof;
        side["Statistic"] = "F";
        x->write(stem + "F_statmap", h, v, side,
                 "F, " + std::to_string(rows) + " and " + std::to_string(dof) + " dof");
    }

    // z and -log10 p together: the tail is computed once per voxel.
    std::vector<float> logp(x->n);
    for (size_t i = 0; i < x->n; ++i) {
        const p_values::at_t p = pv.at(T.data[i]);
        v[i] = static_cast<float>(p.z);
        logp[i] = static_cast<float>(p.signed_logp);
    }
    h = map_header();
    h.intent_code = NIFTI_INTENT_ZSCORE;
    side["Statistic"] = "z";
    side["Description"] =
        rows == 1 ? "z of the two-sided p of the " + test + " (uncorrected), with the sign of t"
                  : "z of the upper-tail p of the " + test +
                        " (uncorrected), one-sided: negative where p > 0.5";
    x->write(stem + "z_statmap", h, v, side, "z");

    h = map_header();
    h.intent_code = NIFTI_INTENT_NONE;
    h.intent_name = rows == 1 ? (pv.corrected() ? "sign -log10pFWE" : "signed -log10p")
                              : (pv.corrected() ? "-log10pFWE" : "-log10p");
    const std::string p_kind = pv.corrected()
                                   ? "p corrected for multiple comparisons over " +
                                         std::to_string(pv.resels()) + " resolution elements"
                                   : "p uncorrected";
    side["Statistic"] = "logp";
    side["Intent"] = "NIFTI_INTENT_NONE: the values are -log10 p (not log10 p)";
    side["PValue"] = pv.corrected() ? "corrected" : "uncorrected";
    side["Description"] = "-log10 p of the " + test +
                          (rows == 1 ? " (two-sided), negative where t is negative"
                                     : " (upper tail of F), never negative") +
                          "; " + p_kind;
    if (pv.corrected())
        side["CorrectedBelowAbsT"] = std::isfinite(pv.corrected_from())
                                         ? nlohmann::json(pv.corrected_from())
                                         : nlohmann::json("all");
    x->write(stem + "logp_statmap", h, logp, side,
             std::string(rows == 1 ? "signed " : "") + "-log10 p, " + test +
                 (pv.corrected() ? ", corrected" : ""));
    side.erase("Intent");
    side.erase("PValue");
    side.erase("CorrectedBelowAbsT");

    h = map_header();
    h.intent_code = NIFTI_INTENT_ESTIMATE;
    side["Statistic"] = "effect";
    side["Description"] = "effect size";
    x->write(stem + "effect_statmap", h, std::vector<float>(S.data.begin(), S.data.begin() + x->n),
             side, "effect");
    for (size_t i = 0; i < x->n; ++i) v[i] = S.data[x->n + i] * S.data[x->n + i];
    side["Statistic"] = "variance";
    side["Description"] = "variance of the effect size (its error squared)";
    x->write(stem + "variance_statmap", h, v, side, "effect variance");
}

void export_results(const export_options &options, std::ostream &out, std::ostream &err) {
    export_options o = options;
    if (o.results_dir.empty()) o.results_dir = ".";
    const std::string dir = o.results_dir;
    if (o.out_dir.empty()) o.out_dir = join_path(dir, "nifti");
    if (!is_dir(dir)) throw failure("no folder " + dir);
    if (!is_file(join_path(dir, "sigma2.hdr")) || !is_file(join_path(dir, "sigma2.bfloat")))
        throw failure("no results in " + dir + " (sigma2.hdr or sigma2.bfloat is missing)");
    exporter x(o, err);
    std::string problem;
    if (!find_geometry(dir, o.geometry, &x.g, &problem)) throw failure(problem);
    if (x.g.from_header)
        err << "Warning: no geometry.json for " << dir
            << "; the affine is built from the voxel size, origin and direction of " << x.g.source
            << " (codes 2)\n";
    x.n = static_cast<size_t>(x.g.dims[0]) * x.g.dims[1] * x.g.dims[2];

    volume sigma2 = read_volume(dir, "sigma2", x.g.dims, 2);
    if (sigma2.header.nt < 2)
        throw failure(join_path(dir, "sigma2.hdr") + " has fewer than 2 frames");

    x.an = find_analysis(dir, x.g);
    const analysis_header &ah = x.an.header;
    std::vector<std::string> &conditions = x.an.header.conditions;
    if (x.an.path.empty()) {
        conditions = conditions_in_folder(dir);
        err << "Warning: the analysis file of " << dir
            << " was not found (no .vistra); the conditions are taken from the P- files and "
               "the p values are uncorrected\n";
    }
    if (conditions.empty()) throw failure("no conditions in " + dir);

    // The random variance that fmri-rem's second pass used: the smoothed one
    // when there is a third frame.
    const float *used = sigma2.data.data() + x.n * (sigma2.header.nt >= 3 ? 2 : 1);
    x.analysed.resize(x.n);
    size_t count = 0;
    for (size_t i = 0; i < x.n; ++i)
        count += x.analysed[i] = voxel_analysed(sigma2.data[i], used[i], ah.converged);

    x.common = {{"GeneratedBy", {{"Name", "fmri-rem-export"}, {"Version", version()}}},
                {"Results", dir},
                {"Geometry", x.g.source},
                {"AnalysedVoxels", count}};
    if (!x.an.path.empty()) {
        x.common["AnalysisFile"] = x.an.path;
        x.common["Smoothing"] = {{"PriorFWHMmm", ah.prior_smoothing},
                                 {"RatioFWHMmm", ah.ratio_smoothing}};
        x.common["MultipleComparisons"] = ah.multiple_comparisons;
    }
    make_dirs(o.out_dir);

    for (const std::string &c : conditions) export_condition(&x, dir, c);

    map_header h;
    h.intent_code = NIFTI_INTENT_ESTIMATE;
    const char *desc[3] = {"within", "between", "betweensmoothed"};
    const char *text[3] = {"within-subject (fixed-effects) variance",
                           "between-subject variance (REML)",
                           "between-subject variance, smoothed ratio"};
    for (int f = 0; f < sigma2.header.nt && f < 3; ++f)
        x.write(
            std::string("desc-") + desc[f] + "_stat-variance_statmap", h,
            std::vector<float>(sigma2.data.begin() + x.n * f, sigma2.data.begin() + x.n * (f + 1)),
            {{"Statistic", "variance"}, {"Description", text[f]}}, text[f]);
    if (is_file(join_path(dir, "residue.hdr"))) {
        volume r = read_volume(dir, "residue", x.g.dims, 0);
        h.frames = r.header.nt;
        x.write("stat-residuals_statmap", h, r.data,
                {{"Statistic", "residuals"},
                 {"Description",
                  "each signal file's effect minus its fitted value, in the "
                  "order of the analysis file"}},
                "residuals");
    }
    map_header m;
    m.uint8 = true;
    std::vector<float> ones(x.n, 1.0f);
    x.write("mask", m, ones, {{"Description", "1 where the voxel was analysed"}}, "mask");

    nlohmann::json description = {{"Name", "fmri-rem group analysis"},
                                  {"BIDSVersion", "1.8.0"},
                                  {"DatasetType", "derivative"},
                                  {"GeneratedBy",
                                   {{{"Name", "fmri-rem-export"},
                                     {"Version", version()},
                                     {"Description", "NIfTI maps of " + dir}}}}};
    write_text(x.stage.add(join_path(o.out_dir, "dataset_description.json")),
               description.dump(2) + "\n");
    x.stage.commit();
    if (o.progress) err << "\r" << std::string(70, ' ') << "\r" << std::flush;

    out << "Exported " << conditions.size() << " condition(s) and " << sigma2.header.nt
        << " variance map(s) of " << dir << " to " << o.out_dir << " (" << x.written << " maps; "
        << count << " of " << x.n << " voxels analysed):\n";
    for (const std::string &c : conditions) {
        const std::string name = ah.name_of(c);
        out << "  " << c << (name != c ? " (" + name + ")" : std::string()) << ": contrast-"
            << condition_label(name) << "_stat-" << (condition_rows(c) > 1 ? "F" : "t")
            << ", z, logp, effect, variance\n";
    }
}

}  // namespace

int run_export(const export_options &options, std::ostream &out, std::ostream &err) {
    return run_reporting_errors(options.progress, err, [&] { export_results(options, out, err); });
}

}  // namespace bridge
