// The import's rows read on several threads: each thread takes the next
// signal unit (one row, or the two sessions of a pair), reads its maps,
// writes its signal file and header, and counts the voxels it leaves out.
// What is reported (warnings, notes, the first bad row) is put back in the
// order of the table afterwards, so that any number of threads writes and
// prints the same.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <map>
#include <mutex>
#include <new>

#ifdef _OPENMP
#include <omp.h>
#endif

#include "import_rows.h"

namespace bridge {

const char *kind_name(error_kind k) {
    return k == error_kind::stderr_ ? "stderr" : k == error_kind::variance ? "variance" : "tstat";
}

namespace {

void check_same_grid(const grid &g, const image &im, const std::string &path) {
    const image &f = g.first;
    if (im.dims[0] != f.dims[0] || im.dims[1] != f.dims[1] || im.dims[2] != f.dims[2])
        throw failure(path + " has " + std::to_string(im.dims[0]) + " x " +
                      std::to_string(im.dims[1]) + " x " + std::to_string(im.dims[2]) +
                      " voxels, " + g.source + " " + std::to_string(f.dims[0]) + " x " +
                      std::to_string(f.dims[1]) + " x " + std::to_string(f.dims[2]));
    if (!(affine_difference(im.affine, f.affine) <= 1e-3))
        throw failure(path + " is not on the grid of " + g.source +
                      " (their affines differ by more than 1e-3 mm)");
}

}  // namespace

void check_grid(grid *g, const image &im, const std::string &path) {
    if (g->set) return check_same_grid(*g, im, path);
    g->first = im;
    g->first.values.clear();
    g->source = path;
    g->set = true;
}

void subtract_session(std::vector<float> *a, const std::vector<float> &b) {
    const size_t n = a->size() / 2;
    for (size_t i = 0; i < n; ++i) {
        const double sa = (*a)[n + i], sb = b[n + i];
        (*a)[i] = static_cast<float>(static_cast<double>((*a)[i]) - b[i]);
        (*a)[n + i] = sa > 0 && sb > 0 ? static_cast<float>(std::sqrt(sa * sa + sb * sb)) : 0.0f;
    }
}

namespace {

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

// What reading one row found, for the messages given in order at the end.
struct row_outcome {
    bool analyze[2] = {false, false};     // effect, error
    bool unoriented[2] = {false, false};  // NIfTI without qform and sform
    bool empty = false;                   // no usable voxel
    bool all_one = false;                 // every usable standard error is 1
};

struct shared_state {
    const row_reading &in;
    const grid &g;  // not set when the first map could not be read
    std::ostream &err;
    std::vector<row_outcome> outcomes;  // per table row; each written by one thread
    std::atomic<size_t> next{0};        // the next unit to take
    std::atomic<size_t> first_bad;      // the first bad row known so far (SIZE_MAX: none)
    std::mutex lock;                    // for what follows
    std::map<size_t, std::string> errors;
    size_t rows_done = 0, rows_total = 0;
    std::chrono::steady_clock::time_point shown;

    shared_state(const row_reading &r, const grid &grid_, std::ostream &e)
        : in(r), g(grid_), err(e), outcomes(r.rows->size()), first_bad(SIZE_MAX) {}

    std::string where(size_t r) const {
        return in.table + " line " + std::to_string((*in.rows)[r].line) + ": ";
    }

    void fail(size_t r, const std::string &message) {
        std::lock_guard<std::mutex> hold(lock);
        errors.emplace(r, message);
        if (r < first_bad.load()) first_bad.store(r);
    }

    void done(size_t rows) {
        if (!in.progress) return;
        std::lock_guard<std::mutex> hold(lock);
        rows_done += rows;
        const auto now = std::chrono::steady_clock::now();
        if (rows_done == rows_total || now - shown >= std::chrono::milliseconds(100)) {
            err << "\rRead " << rows_done << " of " << rows_total << " rows" << std::flush;
            shown = now;
        }
    }
};

// One row's maps as the two frames of a signal file (effect, standard
// error 0 where the voxel is left out); nothing but the checks when the grid
// is not known.
std::vector<float> read_row(shared_state &s, size_t r, std::vector<uint32_t> *missing) {
    const row &w = (*s.in.rows)[r];
    const image effect = read_image(w.effect, w.effect_volume);
    if (s.g.set) check_same_grid(s.g, effect, w.effect);
    const image error = read_image(w.error, w.error_volume);
    if (s.g.set) check_same_grid(s.g, error, w.error);
    row_outcome &o = s.outcomes[r];
    for (int k = 0; k < 2; ++k) {
        const image &im = k == 0 ? effect : error;
        o.analyze[k] = im.analyze;
        o.unoriented[k] = !im.analyze && im.qform_code <= 0 && im.sform_code <= 0;
    }
    if (!s.g.set) return {};
    static const std::vector<double> no_mask;
    const std::vector<double> &mask =
        s.in.mask_image != nullptr ? s.in.mask_image->values : no_mask;
    const size_t n = effect.values.size();
    std::vector<float> data(2 * n);
    size_t valid = 0;
    bool all_one = true;
    for (size_t i = 0; i < n; ++i) {
        const double e = effect.values[i], x = error.values[i];
        double se = w.kind == error_kind::stderr_    ? x
                    : w.kind == error_kind::variance ? std::sqrt(x)
                                                     : std::fabs(e / x);
        float ef = static_cast<float>(e), sf = static_cast<float>(se);
        bool ok = std::isfinite(e) && std::isfinite(x) && std::isfinite(ef) && std::isfinite(sf) &&
                  sf > 0.0f && (mask.empty() || mask[i] != 0.0);
        data[i] = std::isfinite(ef) ? ef : 0.0f;
        data[n + i] = ok ? sf : 0.0f;
        if (ok)
            ++valid;
        else
            ++(*missing)[i];
        if (ok && std::fabs(sf - 1.0f) > 1e-6f) all_one = false;
    }
    o.empty = valid == 0;
    o.all_one = valid > 0 && all_one;
    return data;
}

void read_unit(shared_state &s, size_t u, std::vector<uint32_t> *missing) {
    const signal_unit &unit = (*s.in.units)[u];
    std::vector<float> data[2];
    bool ok = true;
    // Every row of the unit is read, so that the first bad one is found.
    for (size_t k = 0; k < unit.rows.size() && k < 2; ++k) {
        const size_t r = unit.rows[k];
        try {
            data[k] = read_row(s, r, missing);
        } catch (const std::bad_alloc &) {
            s.fail(r, s.where(r) + "out of memory");
            ok = false;
        } catch (const std::exception &e) {
            s.fail(r, s.where(r) + e.what());
            ok = false;
        }
    }
    if (!ok || !s.g.set) return;
    int dof = (*s.in.rows)[unit.rows[0]].dof;
    if (unit.rows.size() == 2) {  // the difference, with the smaller dof
        subtract_session(&data[0], data[1]);
        dof = std::min(dof, (*s.in.rows)[unit.rows[1]].dof);
    }
    try {
        write_bytes(s.in.data_files[u], data[0].data(), data[0].size() * sizeof(float));
        const std::string text = native_header_text(signal_header(s.g.first, dof));
        write_bytes(s.in.header_files[u], text.data(), text.size());
    } catch (const std::exception &e) {
        s.fail(unit.rows.back(), e.what());
    }
}

void work(shared_state &s, std::vector<uint32_t> *missing) {
    const std::vector<signal_unit> &units = *s.in.units;
    for (;;) {
        const size_t u = s.next.fetch_add(1);
        if (u >= units.size()) return;
        const std::vector<size_t> &rows = units[u].rows;
        // Past a known bad row, a unit cannot hold an earlier one.
        if (*std::min_element(rows.begin(), rows.end()) < s.first_bad.load())
            read_unit(s, u, missing);
        s.done(rows.size());
    }
}

int thread_count() {
#ifdef _OPENMP
    return omp_get_max_threads();
#else
    return 1;
#endif
}

}  // namespace

rows_read read_signal_units(const row_reading &in, std::ostream &err) {
    rows_read out;
    const std::vector<row> &rows = *in.rows;
    const std::vector<signal_unit> &units = *in.units;
    if (units.empty()) return out;

    // The grid is that of the first signal file's first effect map (and the
    // mask must share it).
    shared_state s(in, out.g, err);
    const size_t first = units[0].rows[0];
    try {
        const image reference = read_image(rows[first].effect, rows[first].effect_volume);
        check_grid(&out.g, reference, rows[first].effect);
    } catch (const std::exception &e) {
        s.fail(first, s.where(first) + e.what());
    }
    if (out.g.set && in.mask_image != nullptr) check_grid(&out.g, *in.mask_image, in.mask);
    const size_t voxels = out.g.set ? static_cast<size_t>(out.g.first.dims[0]) *
                                          out.g.first.dims[1] * out.g.first.dims[2]
                                    : 0;

    for (const signal_unit &u : units) s.rows_total += u.rows.size();
    const int threads = static_cast<int>(std::max<size_t>(
        1, std::min<size_t>(units.size(),
                            static_cast<size_t>(in.threads > 0 ? in.threads : thread_count()))));
    std::vector<std::vector<uint32_t>> counts(threads, std::vector<uint32_t>(voxels, 0));
#ifdef _OPENMP
#pragma omp parallel num_threads(threads)
    work(s, &counts[omp_get_thread_num()]);
#else
    work(s, &counts[0]);
#endif
    if (s.first_bad.load() != SIZE_MAX) throw failure(s.errors.at(s.first_bad.load()));
    if (in.progress) err << "\r" << std::string(40, ' ') << "\r" << std::flush;

    out.missing.swap(counts[0]);
    for (int t = 1; t < threads; ++t)
        for (size_t i = 0; i < voxels; ++i) out.missing[i] += counts[t][i];
    for (const signal_unit &u : units)
        for (size_t r : u.rows) {
            const row &w = rows[r];
            const row_outcome &o = s.outcomes[r];
            for (int k = 0; k < 2; ++k) {
                const std::string &path = k == 0 ? w.effect : w.error;
                if (o.analyze[k]) out.analyze_files.push_back(path);
                if (o.unoriented[k]) out.unoriented_files.push_back(path);
            }
            if (o.empty)
                out.warnings += "Warning: " + w.effect + " (line " + std::to_string(w.line) +
                                ") has no voxel with a usable effect and error\n";
            if (o.all_one) out.unit_error_lines.push_back(w.line);
        }
    return out;
}

}  // namespace bridge
