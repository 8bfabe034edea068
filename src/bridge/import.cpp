// fmri-rem-import: a table of first-level NIfTI maps (FSL, SPM, AFNI,
// nilearn) becomes the signal files, the analysis file and geometry.json of
// a study folder.
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>

#include "bridge_internal.h"
#include "first_level.h"
#include "import_model.h"
#include "import_rows.h"

namespace bridge {

namespace {

const size_t kMaxFiles = 200;  // fmri-rem's limit with the classic estimate

bool parse_double(const std::string &s, double *v) {
    char *end = nullptr;
    *v = std::strtod(s.c_str(), &end);
    return !s.empty() && *end == '\0';
}

std::string trim(const std::string &s) {
    size_t b = s.find_first_not_of(" \t\r\n");
    size_t e = s.find_last_not_of(" \t\r\n");
    return b == std::string::npos ? "" : s.substr(b, e - b + 1);
}

std::string safe_name(const std::string &id) {
    std::string s;
    for (char c : id)
        s += std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '.' ? c : '_';
    if (s.empty() || s[0] == '.') s = "_" + s;
    return s;
}

std::vector<row> read_rows(const table &t) {
    const std::string dir = parent_dir(t.path);
    auto where = [&](size_t r, int c) {
        return t.path + " line " + std::to_string(t.lines[r]) + ", column " +
               std::to_string(c + 1) + " (" + t.columns[c] + ")";
    };
    for (const char *required : {"effect", "dof"})
        if (t.column(required) < 0) throw failure(t.path + " has no column `" + required + "'");
    const int kinds[3] = {t.column("stderr"), t.column("variance"), t.column("tstat")};
    if (kinds[0] < 0 && kinds[1] < 0 && kinds[2] < 0)
        throw failure(t.path + " has none of the columns `stderr', `variance', `tstat'");
    const int id_col = t.column("participant_id"), weight_col = t.column("weight");
    const int group_col = t.column("group"), effect_col = t.column("effect"),
              dof_col = t.column("dof");

    std::vector<row> rows;
    for (size_t r = 0; r < t.rows.size(); ++r) {
        const std::vector<std::string> &cells = t.rows[r];
        row w;
        w.line = t.lines[r];
        w.group = group_col >= 0 ? cells[group_col] : "all";
        if (!given(w.group)) throw failure(where(r, group_col) + ": no group given");
        if (!given(cells[effect_col])) throw failure(where(r, effect_col) + ": no file given");
        const map_cell effect = read_map_cell(t, r, effect_col);
        w.effect = effect.path;
        w.effect_volume = effect.volume;
        int chosen = -1;
        for (int k = 0; k < 3; ++k) {
            if (kinds[k] < 0 || !given(cells[kinds[k]])) continue;
            if (chosen >= 0)
                throw failure(where(r, kinds[k]) +
                              ": give only one of stderr, variance and tstat (" +
                              t.columns[kinds[chosen]] + " is given too)");
            chosen = k;
        }
        if (chosen < 0)
            throw failure(t.path + " line " + std::to_string(w.line) +
                          ": give one of stderr, variance and tstat");
        w.kind = static_cast<error_kind>(chosen);
        const map_cell error = read_map_cell(t, r, kinds[chosen]);
        check_error_is_not_effect(t, r, effect, error, kind_name(w.kind));
        w.error = error.path;
        w.error_volume = error.volume;

        const dof_cell dof = read_dof_cell(t, r, dof_col);
        w.dof = dof.dof;
        w.dof_value = dof.value;
        w.dof_source = dof.source;

        if (weight_col >= 0 && given(cells[weight_col])) {
            if (!parse_double(cells[weight_col], &w.weight) || !(w.weight > 0) ||
                !std::isfinite(w.weight))
                throw failure(where(r, weight_col) + ": the weight must be a positive number");
        }
        w.id = id_col >= 0 && given(cells[id_col]) ? cells[id_col] : "";
        rows.push_back(w);
    }
    return rows;
}

// What the model is, before the counts of voxels.
void print_summary(const import_options &o, const study_model &m,
                   const std::vector<condition_text> &conditions, const pairing &pairs,
                   std::ostream &out) {
    bool named = m.design;
    for (const model_column &c : m.columns) named = named || c.name != std::string(1, c.event);
    if (named) out << (m.design ? "Design: " : "Groups: ") << describe_model(m) << "\n";
    for (const std::string &note : m.notes) out << "  " << note << "\n";
    for (const condition_text &c : conditions)
        if (!c.names.empty()) out << "Condition " << c.names << " -> " << c.events << "\n";
    if (!o.paired.empty()) {
        out << "Paired: one signal file per participant, " << pairs.first << " minus "
            << pairs.second << ", with the variance var(" << pairs.first << ") + var("
            << pairs.second << "): the two first-level estimates are taken as independent. "
            << "Where the first-level analysis can give the contrast " << pairs.first << " - "
            << pairs.second << " itself, import that instead.\n";
        if (!pairs.incomplete.empty()) {
            out << "Left out, without both sessions:";
            for (const std::string &id : pairs.incomplete) out << " " << id;
            out << "\n";
        }
        if (pairs.other_rows > 0)
            out << "Not used: " << pairs.other_rows << " rows of other sessions.\n";
    }
    out << "REML: " << (o.converged ? "converged" : "classic")
        << (o.converged ? " (the import's default; --reml classic for the classic estimate)\n"
                        : "\n");
    out << "Smoothness: " << (o.smoothness_estimated ? "estimated" : "stated")
        << (o.smoothness_estimated
                ? " (the import's default: the smoothed variance ratio's degrees of freedom follow "
                  "from the smoothness of the data; --smoothness stated for the classic formula)\n"
                : "\n");
}

std::vector<std::string> signal_names(const std::vector<signal_unit> &units) {
    std::vector<std::string> signals;
    std::set<std::string> names;
    for (size_t u = 0; u < units.size(); ++u) {
        std::string base = safe_name(
            units[u].id.empty() ? "row-" + std::to_string(units[u].rows[0] + 1) : units[u].id);
        std::string name = base;
        for (int k = 2; names.count(name); ++k) name = base + "-" + std::to_string(k);
        names.insert(name);
        signals.push_back("signal/" + name + ".bfloat");
    }
    return signals;
}

void import_study(const import_options &o, std::ostream &out, std::ostream &err) {
    if (!std::isfinite(o.prior_smoothing) || o.prior_smoothing < 0 ||
        !std::isfinite(o.ratio_smoothing) || o.ratio_smoothing < 0)
        throw failure("the smoothing widths must be numbers from 0 (mm)");
    if (o.multiple_comparisons < 0) throw failure("--multiple-comparisons must be 0 or more");
    table t = read_table(o.table);
    std::vector<row> rows = read_rows(t);
    pairing pairs;
    const std::vector<signal_unit> units =
        o.paired.empty() ? single_rows(t) : pair_rows(t, o.paired, &pairs);
    if (!o.converged && units.size() > kMaxFiles)
        throw failure(t.path + " gives " + std::to_string(units.size()) +
                      " signal files; fmri-rem analyses at most " + std::to_string(kMaxFiles) +
                      " with --reml classic (any number with --reml converged)");
    if (rows.size() > UINT32_MAX)
        throw failure(t.path + " has more than " + std::to_string(UINT32_MAX) + " rows");
    model_options mo;
    for (const std::string &name : o.covariates) mo.covariates.push_back(trim(name));
    for (const std::string &name : o.by_group) mo.by_group.push_back(trim(name));
    mo.design_matrix = o.design_matrix;
    mo.centre = o.centre;
    const study_model model = build_model(t, units, mo);
    const std::vector<condition_text> conditions = translate_conditions(o.conditions, model);
    // Weights only when some row gives one (the others then weigh 1), and
    // only for groups alone.
    std::vector<double> weights;
    for (const signal_unit &u : units) weights.push_back(rows[u.rows[0]].weight);
    if (std::count_if(rows.begin(), rows.end(), [](const row &w) { return w.weight != 1.0; })) {
        if (model.design || !o.paired.empty())
            throw failure(
                "the weight column works only with groups alone (not with "
                "--covariates, --by-group, --design-matrix or --paired)");
    } else {
        weights.clear();
    }
    const std::vector<std::string> signals = signal_names(units);

    // The analysis file, before any image is read.
    analysis_settings h;
    h.table = o.table;
    h.prior_smoothing = o.prior_smoothing;
    h.ratio_smoothing = o.ratio_smoothing;
    h.multiple_comparisons = o.multiple_comparisons;
    h.converged = o.converged;
    h.smoothness_estimated = o.smoothness_estimated;
    const std::string rem = analysis_text(h, model, conditions, signals, weights);

    // Rows in the order of their signal files (a pair's first session, then its second).
    std::vector<size_t> unit_of(rows.size(), units.size()), order;
    for (size_t u = 0; u < units.size(); ++u)
        for (size_t r : units[u].rows) unit_of[r] = u, order.push_back(r);

    image mask_image;
    if (!o.mask.empty()) mask_image = read_image(o.mask, -1);
    const std::vector<double> &mask = mask_image.values;
    staging stage;
    stage.make_dirs(join_path(o.out_dir, "signal"));
    row_reading reading;
    reading.table = t.path;
    reading.rows = &rows;
    reading.units = &units;
    for (const std::string &signal : signals) {
        const std::string data_path = join_path(o.out_dir, signal);
        reading.data_files.push_back(stage.add(data_path));
        reading.header_files.push_back(
            stage.add(data_path.substr(0, data_path.size() - 6) + "hdr"));
    }
    reading.mask = o.mask;
    if (!o.mask.empty()) reading.mask_image = &mask_image;
    reading.progress = o.progress;
    const rows_read found = read_signal_units(reading, err);
    const grid &g = found.g;
    const std::vector<uint32_t> &missing = found.missing;
    err << found.warnings << unit_error_warning(found.unit_error_lines, rows.size())
        << unoriented_warning(found.unoriented_files);

    // geometry.json: the exact grid, the model, where everything came from.
    nlohmann::json j;
    j["program"] = "fmri-rem-import";
    j["version"] = version();
    j["dimensions"] = {g.first.dims[0], g.first.dims[1], g.first.dims[2]};
    for (int r = 0; r < 4; ++r)
        j["affine"].push_back({g.first.affine[r][0], g.first.affine[r][1], g.first.affine[r][2],
                               g.first.affine[r][3]});
    j["qform_code"] = g.first.qform_code;
    j["sform_code"] = g.first.sform_code;
    j["grid_source"] = full_path(g.source);
    j["analysis"] = "analysis.rem";
    j["table"] = full_path(o.table);
    j["mask"] = o.mask.empty() ? nlohmann::json() : nlohmann::json(full_path(o.mask));
    for (const model_column &c : model.columns)
        j["model"].push_back(
            {{"name", c.name}, {"event", std::string(1, c.event)}, {"values", c.values}});
    if (!o.paired.empty()) j["paired"] = {pairs.first, pairs.second};
    // The sources are written one at a time where a marker stands in the
    // record, which is never held whole.
    const std::string marker = "\x01sources\x01";
    if (!order.empty()) j["sources"] = marker;
    const std::string text = j.dump(2) + "\n", quoted = nlohmann::json(marker).dump();
    const size_t at = order.empty() ? text.size() : text.find(quoted);
    const std::string geometry_path = join_path(o.out_dir, "geometry.json");
    std::unique_ptr<FILE, int (*)(FILE *)> f(std::fopen(stage.add(geometry_path).c_str(), "wb"),
                                             std::fclose);
    bool ok = f != nullptr;
    auto put = [&](const std::string &piece) {
        ok = ok && std::fwrite(piece.data(), 1, piece.size(), f.get()) == piece.size();
    };
    put(text.substr(0, at));
    const char *between = "[\n    ";
    for (const row &w : rows) {
        const size_t u = unit_of[&w - rows.data()];
        if (u == units.size()) continue;  // a row left out of the pairs
        nlohmann::json s = {{"signal", signals[u]},
                            {"table_line", w.line},
                            {"group", w.group},
                            {"effect", full_path(w.effect)},
                            {"error", full_path(w.error)},
                            {"error_kind", kind_name(w.kind)},
                            {"dof", w.dof},
                            {"weight", w.weight}};
        s["participant_id"] = w.id.empty() ? nlohmann::json() : nlohmann::json(w.id);
        s["effect_volume"] =
            w.effect_volume < 0 ? nlohmann::json() : nlohmann::json(w.effect_volume);
        s["error_volume"] = w.error_volume < 0 ? nlohmann::json() : nlohmann::json(w.error_volume);
        if (w.dof_value != w.dof) s["dof_given"] = w.dof_value;
        s["dof_file"] =
            w.dof_source.empty() ? nlohmann::json() : nlohmann::json(full_path(w.dof_source));
        std::string piece = s.dump(2);  // indented as an element of "sources"
        for (size_t k = piece.find('\n'); k != std::string::npos; k = piece.find('\n', k + 1))
            piece.insert(k + 1, "    ");
        put(between + piece);
        between = ",\n    ";
    }
    if (at < text.size()) put("\n  ]" + text.substr(at + quoted.size()));
    if (f != nullptr) ok = std::fclose(f.release()) == 0 && ok;
    if (!ok) throw failure("cannot write " + geometry_path + " (disk full?)");

    stage.commit();
    write_text_atomic(join_path(o.out_dir, "analysis.rem"), rem);

    size_t outside = 0, lost = 0, empty = 0;
    for (size_t i = 0; i < missing.size(); ++i) {
        if (!mask.empty() && mask[i] == 0.0)
            ++outside;
        else if (missing[i] == order.size())
            ++empty;
        else if (missing[i] > 0)
            ++lost;
    }
    print_summary(o, model, conditions, pairs, out);
    out << "Read " << order.size() << " rows";
    if (!o.paired.empty()) out << " into " << units.size() << " differences";
    out << ": " << g.first.dims[0] << " x " << g.first.dims[1] << " x " << g.first.dims[2]
        << " voxels; " << missing.size() - lost - empty - outside << " complete in every subject, "
        << lost << " lost to a missing value in some subject, " << empty
        << " without a value in any";
    if (!mask.empty()) out << ", " << outside << " outside the mask";
    out << ".\n";
    std::vector<std::pair<int, double>> rounded;
    for (const row &w : rows)
        if (w.dof_value != w.dof) rounded.emplace_back(w.line, w.dof_value);
    out << rounded_dof_note(rounded) << analyze_note(found.analyze_files);
    out << "Wrote " << join_path(o.out_dir, "analysis.rem") << ", "
        << join_path(o.out_dir, "geometry.json") << " and " << units.size() << " signal files in "
        << join_path(o.out_dir, "signal/") << ".\n";
    out << "Next:\n  cd " << o.out_dir << " && fmri-rem analysis.rem\n  fmri-rem-export\n";
}

}  // namespace

int run_import(const import_options &options, std::ostream &out, std::ostream &err) {
    return run_reporting_errors(options.progress, err, [&] { import_study(options, out, err); });
}

}  // namespace bridge
