// fmri-rem-import: a table of first-level NIfTI maps (FSL, SPM, AFNI,
// nilearn) becomes the signal files, the analysis file and geometry.json of
// a study folder.
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cmath>
#include <mutex>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "bridge_internal.h"

namespace bridge {

namespace {

const char kEventChars[] = "123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
const int kMaxFiles = 200;               // fmri-rem's limit with the classic estimate
const int kMaxConvergedFiles = 1000000;  // and with "reml converged"

bool is_event_char(char c) {
    return c != '\0' && std::strchr(kEventChars, c) != nullptr;
}

enum class error_kind { stderr_, variance, tstat };
const char *kind_name(error_kind k) {
    return k == error_kind::stderr_ ? "stderr" : k == error_kind::variance ? "variance" : "tstat";
}

struct row {
    int line = 0;
    std::string id, group, effect, error, dof_source;
    error_kind kind = error_kind::stderr_;
    int dof = 0, volume = -1;
    double weight = 1;
    char event = 0;
    std::string signal;  // signal/<id>.bfloat
};

bool parse_long(const std::string &s, long *v) {
    char *end = nullptr;
    errno = 0;
    *v = std::strtol(s.c_str(), &end, 10);
    return !s.empty() && errno == 0 && *end == '\0';
}

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

// A file's full name for the record in geometry.json.
std::string full_path(const std::string &path) {
    char *resolved = realpath(path.c_str(), nullptr);
    if (resolved == nullptr) return path;
    std::string s = resolved;
    std::free(resolved);
    return s;
}

std::vector<row> read_rows(const table &t, bool converged) {
    const std::string dir = parent_dir(t.path);
    auto where = [&](size_t r, int c) {
        return t.path + " line " + std::to_string(t.lines[r]) + ", column " +
               std::to_string(c + 1) + " (" + t.columns[c] + ")";
    };
    for (const char *required : {"group", "effect", "dof"})
        if (t.column(required) < 0) throw failure(t.path + " has no column `" + required + "'");
    const int kinds[3] = {t.column("stderr"), t.column("variance"), t.column("tstat")};
    if (kinds[0] < 0 && kinds[1] < 0 && kinds[2] < 0)
        throw failure(t.path + " has none of the columns `stderr', `variance', `tstat'");
    if (t.rows.size() > static_cast<size_t>(converged ? kMaxConvergedFiles : kMaxFiles))
        throw failure(t.path + " has " + std::to_string(t.rows.size()) +
                      " rows; fmri-rem analyses at most " +
                      std::to_string(converged ? kMaxConvergedFiles : kMaxFiles) + " files" +
                      (converged ? "" : " (--reml converged lifts this to 1000000)"));
    const int id_col = t.column("participant_id"), weight_col = t.column("weight"),
              volume_col = t.column("volume");
    const int group_col = t.column("group"), effect_col = t.column("effect"),
              dof_col = t.column("dof");

    std::vector<row> rows;
    std::set<std::string> names;
    for (size_t r = 0; r < t.rows.size(); ++r) {
        const std::vector<std::string> &cells = t.rows[r];
        row w;
        w.line = t.lines[r];
        w.group = cells[group_col];
        if (!given(w.group)) throw failure(where(r, group_col) + ": no group given");
        if (!given(cells[effect_col])) throw failure(where(r, effect_col) + ": no file given");
        w.effect = join_path(dir, cells[effect_col]);
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
        w.error = join_path(dir, cells[kinds[chosen]]);

        const std::string &d = cells[dof_col];
        long v = 0;
        double x = 0;
        if (!given(d)) throw failure(where(r, dof_col) + ": no degrees of freedom given");
        if (parse_long(d, &v)) {
            w.dof = static_cast<int>(v);
        } else if (parse_double(d, &x)) {
            throw failure(where(r, dof_col) + ": " + d + " is not an integer");
        } else {
            w.dof_source = join_path(dir, d);
            if (!is_file(w.dof_source))
                throw failure(where(r, dof_col) + ": " + d + " is neither an integer nor a file (" +
                              w.dof_source + ")");
            std::string text = trim(read_text(w.dof_source));
            if (!parse_long(text, &v)) {
                throw failure(where(r, dof_col) + ": the file " + w.dof_source +
                              " does not hold an integer");
            }
            w.dof = static_cast<int>(v);
        }
        if (v < 1 || v > 1000000000)
            throw failure(where(r, dof_col) + ": the degrees of freedom must be positive");

        if (weight_col >= 0 && given(cells[weight_col])) {
            if (!parse_double(cells[weight_col], &w.weight) || !(w.weight > 0) ||
                !std::isfinite(w.weight))
                throw failure(where(r, weight_col) + ": the weight must be a positive number");
        }
        if (volume_col >= 0 && given(cells[volume_col])) {
            if (!parse_long(cells[volume_col], &v) || v < 0 || v > 1000000)
                throw failure(where(r, volume_col) + ": the volume must be an integer from 0");
            w.volume = static_cast<int>(v);
        }
        w.id = id_col >= 0 && given(cells[id_col]) ? cells[id_col] : "";
        std::string base = safe_name(w.id.empty() ? "row-" + std::to_string(r + 1) : w.id);
        std::string name = base;
        for (int k = 2; names.count(name); ++k) name = base + "-" + std::to_string(k);
        names.insert(name);
        w.signal = "signal/" + name + ".bfloat";
        rows.push_back(w);
    }
    return rows;
}

// Groups to event characters: a group written as one event character is that
// event; the others, in order of first appearance, get their first letter
// when it is free, else the first free character.
std::vector<std::pair<std::string, char>> map_groups(std::vector<row> *rows) {
    std::vector<std::pair<std::string, char>> groups;
    std::set<char> used;
    for (const row &w : *rows)
        if (w.group.size() == 1 && is_event_char(w.group[0])) used.insert(w.group[0]);
    std::map<std::string, char> event_of;
    for (row &w : *rows) {
        auto found = event_of.find(w.group);
        if (found == event_of.end()) {
            char e = 0;
            if (w.group.size() == 1 && is_event_char(w.group[0])) {
                e = w.group[0];
            } else {
                char first =
                    static_cast<char>(std::tolower(static_cast<unsigned char>(w.group[0])));
                if (is_event_char(first) && !used.count(first)) e = first;
                for (const char *c = kEventChars + 9; e == 0 && *c; ++c)
                    if (!used.count(*c)) e = *c;
                for (const char *c = kEventChars; e == 0 && c < kEventChars + 9; ++c)
                    if (!used.count(*c)) e = *c;
                if (e == 0) throw failure("more groups than the 61 event characters");
                used.insert(e);
            }
            found = event_of.emplace(w.group, e).first;
            groups.emplace_back(w.group, e);
        }
        w.event = found->second;
    }
    return groups;
}

std::string describe_groups(const std::vector<std::pair<std::string, char>> &groups) {
    std::string s;
    for (const auto &g : groups)
        s += (s.empty() ? "" : ", ") + g.first + " -> " + std::string(1, g.second);
    return s;
}

void check_conditions(const std::string &text,
                      const std::vector<std::pair<std::string, char>> &groups) {
    std::set<char> events;
    for (const auto &g : groups) events.insert(g.second);
    std::vector<std::string> words;
    size_t pos = 0;
    while ((pos = text.find_first_not_of(" \t", pos)) != std::string::npos) {
        size_t end = text.find_first_of(" \t", pos);
        words.push_back(text.substr(pos, end == std::string::npos ? end : end - pos));
        pos = end;
    }
    if (words.empty()) throw failure("--conditions names no condition");
    if (words.size() > 100) throw failure("more than 100 conditions");
    if (text.size() > 1000) throw failure("the conditions text is too long");
    for (const std::string &w : words) {
        bool row_has_event = false;
        for (size_t k = 0; k <= w.size(); ++k) {
            char c = k < w.size() ? w[k] : ',';
            if (c == ',') {
                if (!row_has_event)
                    throw failure("the condition " + w + " has a row without an event");
                row_has_event = false;
            } else if (events.count(c)) {
                row_has_event = true;
            } else if (c != '-') {
                throw failure("the condition " + w + " uses " + std::string(1, c) +
                              ", which is no group's event (groups: " + describe_groups(groups) +
                              ")");
            }
        }
    }
}

struct grid {
    bool set = false;
    image first;
    std::string source;
};

void check_grid(grid *g, const image &im, const std::string &path) {
    if (!g->set) {
        g->first = im;
        g->first.values.clear();
        g->source = path;
        g->set = true;
        return;
    }
    const image &f = g->first;
    if (im.dims[0] != f.dims[0] || im.dims[1] != f.dims[1] || im.dims[2] != f.dims[2])
        throw failure(path + " has " + std::to_string(im.dims[0]) + " x " +
                      std::to_string(im.dims[1]) + " x " + std::to_string(im.dims[2]) +
                      " voxels, " + g->source + " " + std::to_string(f.dims[0]) + " x " +
                      std::to_string(f.dims[1]) + " x " + std::to_string(f.dims[2]));
    if (!(affine_difference(im.affine, f.affine) <= 1e-3))
        throw failure(path + " is not on the grid of " + g->source +
                      " (their affines differ by more than 1e-3 mm)");
}

native_header signal_header(const image &g, int dof) {
    native_header h;
    h.nx = g.dims[0];
    h.ny = g.dims[1];
    h.nz = g.dims[2];
    h.nt = 2;
    h.dof = dof;
    for (int a = 0; a < 3; ++a) {
        double norm = 0, largest = 0;
        for (int r = 0; r < 3; ++r) {
            norm += g.affine[r][a] * g.affine[r][a];
            if (std::fabs(g.affine[r][a]) > std::fabs(largest)) largest = g.affine[r][a];
        }
        h.resolution[a] = static_cast<float>(std::sqrt(norm));
        h.direction[a] = largest < 0 ? -1.0f : 1.0f;
        h.origin[a] = static_cast<float>(g.affine[a][3]);
    }
    return h;
}

void import_study(const import_options &o, std::ostream &out, std::ostream &err) {
    if (!std::isfinite(o.prior_smoothing) || o.prior_smoothing < 0 ||
        !std::isfinite(o.ratio_smoothing) || o.ratio_smoothing < 0)
        throw failure("the smoothing widths must be numbers from 0 (mm)");
    if (o.multiple_comparisons < 0) throw failure("--multiple-comparisons must be 0 or more");
    table t = read_table(o.table);
    std::vector<row> rows = read_rows(t, o.converged);
    std::vector<std::pair<std::string, char>> groups = map_groups(&rows);
    check_conditions(o.conditions, groups);

    grid g;
    image mask_image;
    if (!o.mask.empty()) mask_image = read_image(o.mask, -1);
    const std::vector<double> &mask = mask_image.values;
    make_dirs(join_path(o.out_dir, "signal"));
    staging stage;
    std::vector<uint32_t> missing;  // per voxel: the subjects without a value
    std::mutex staged;              // the rows' files into stage
    // Rows in parallel (row 0 first: it sets the grid and the voxel count);
    // what a row adds to missing and its warning are applied in row order.
    auto where = [&](size_t r) { return o.table + ", line " + std::to_string(rows[r].line); };
    for_each_row(rows.size(), o.progress, err, where, [&](size_t r) -> std::function<void()> {
        const row &w = rows[r];
        image effect = read_image(w.effect, w.volume);
        check_grid(&g, effect, w.effect);
        if (r == 0 && !o.mask.empty()) check_grid(&g, mask_image, o.mask);
        image error = read_image(w.error, w.volume);
        check_grid(&g, error, w.error);
        const size_t n = effect.values.size();
        if (missing.empty()) missing.assign(n, 0);
        std::vector<float> data(2 * n);
        std::vector<uint32_t> lost;  // the voxels without a value in this row
        for (size_t i = 0; i < n; ++i) {
            const double e = effect.values[i], x = error.values[i];
            double se = w.kind == error_kind::stderr_    ? x
                        : w.kind == error_kind::variance ? std::sqrt(x)
                                                         : std::fabs(e / x);
            float ef = static_cast<float>(e), sf = static_cast<float>(se);
            bool ok = std::isfinite(e) && std::isfinite(x) && std::isfinite(ef) &&
                      std::isfinite(sf) && sf > 0.0f && (mask.empty() || mask[i] != 0.0);
            data[i] = std::isfinite(ef) ? ef : 0.0f;
            data[n + i] = ok ? sf : 0.0f;
            if (!ok) lost.push_back(static_cast<uint32_t>(i));
        }
        const std::string data_path = join_path(o.out_dir, w.signal);
        const std::string header_path = data_path.substr(0, data_path.size() - 6) + "hdr";
        const std::string text = native_header_text(signal_header(g.first, w.dof));
        {
            std::lock_guard<std::mutex> guard(staged);
            stage.files.emplace_back(temporary_name(data_path, ""), data_path);
            stage.files.emplace_back(temporary_name(header_path, ""), header_path);
        }
        write_bytes(temporary_name(data_path, ""), data.data(), data.size() * sizeof(float));
        write_bytes(temporary_name(header_path, ""), text.data(), text.size());
        return [&missing, &err, &w, n, lost = std::move(lost)] {
            for (uint32_t i : lost) ++missing[i];
            if (lost.size() == n)
                err << "Warning: " << w.effect << " (line " << w.line
                    << ") has no voxel with a usable effect and error\n";
        };
    });
    if (o.progress) err << "\r" << std::string(40, ' ') << "\r" << std::flush;

    // geometry.json: the exact grid, where everything came from.
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
    for (const auto &gr : groups) {
        size_t count = 0;
        for (const row &w : rows) count += w.event == gr.second;
        j["groups"].push_back(
            {{"group", gr.first}, {"event", std::string(1, gr.second)}, {"files", count}});
    }
    for (const row &w : rows) {
        nlohmann::json s = {{"signal", w.signal},
                            {"table_line", w.line},
                            {"group", w.group},
                            {"event", std::string(1, w.event)},
                            {"effect", full_path(w.effect)},
                            {"error", full_path(w.error)},
                            {"error_kind", kind_name(w.kind)},
                            {"dof", w.dof},
                            {"weight", w.weight}};
        s["participant_id"] = w.id.empty() ? nlohmann::json() : nlohmann::json(w.id);
        s["volume"] = w.volume < 0 ? nlohmann::json() : nlohmann::json(w.volume);
        s["dof_file"] =
            w.dof_source.empty() ? nlohmann::json() : nlohmann::json(full_path(w.dof_source));
        j["sources"].push_back(s);
    }

    // The analysis file: events in order of first appearance.
    char number[64];
    std::string rem =
        "# Written by fmri-rem-import " + std::string(version()) + " from " + o.table + "\n";
    std::snprintf(number, sizeof number, "smoothing %.9g %.9g\n", o.prior_smoothing,
                  o.ratio_smoothing);
    rem += number;
    rem += "conditions " + o.conditions + "\n";
    rem += "multiple-comparisons " + std::to_string(o.multiple_comparisons) + "\n";
    if (o.converged) rem += "reml converged\n";
    // Weights only when some row gives one (the others then weigh 1).
    bool weights = false;
    for (const row &w : rows) weights = weights || w.weight != 1.0;
    for (const auto &gr : groups) {
        rem += "event " + std::string(1, gr.second) + "  # " + gr.first + "\n";
        for (const row &w : rows) {
            if (w.event != gr.second) continue;
            rem += w.signal;
            if (weights) {
                std::snprintf(number, sizeof number, " %.9g", w.weight);
                rem += number;
            }
            rem += "\n";
        }
    }

    stage.commit();
    write_text_atomic(join_path(o.out_dir, "geometry.json"), j.dump(2) + "\n");
    write_text_atomic(join_path(o.out_dir, "analysis.rem"), rem);

    size_t outside = 0, lost = 0, empty = 0;
    for (size_t i = 0; i < missing.size(); ++i) {
        if (!mask.empty() && mask[i] == 0.0)
            ++outside;
        else if (missing[i] == rows.size())
            ++empty;
        else if (missing[i] > 0)
            ++lost;
    }
    bool named = false;
    for (const auto &gr : groups) named = named || gr.first != std::string(1, gr.second);
    if (named) out << "Groups: " << describe_groups(groups) << "\n";
    out << "Read " << rows.size() << " rows: " << g.first.dims[0] << " x " << g.first.dims[1]
        << " x " << g.first.dims[2] << " voxels; " << missing.size() - lost - empty - outside
        << " complete in every subject, " << lost << " lost to a missing value in some subject, "
        << empty << " without a value in any";
    if (!mask.empty()) out << ", " << outside << " outside the mask";
    out << ".\n";
    out << "Wrote " << join_path(o.out_dir, "analysis.rem") << ", "
        << join_path(o.out_dir, "geometry.json") << " and " << rows.size() << " signal files in "
        << join_path(o.out_dir, "signal/") << ".\n";
    out << "Next:\n  cd " << o.out_dir << " && fmri-rem analysis.rem\n  fmri-rem-export\n";
}

}  // namespace

int run_import(const import_options &options, std::ostream &out, std::ostream &err) {
    return run_reporting_errors(options.progress, err, [&] { import_study(options, out, err); });
}

}  // namespace bridge
