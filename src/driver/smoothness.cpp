// Smoothness of the data, estimated from the standardised residuals of the
// design, and the degrees of freedom of the smoothed variance that follow
// from it (the analysis file's "smoothness estimated").
//
// At every voxel where all files have an error value, the effects are fitted
// by ordinary least squares on the design and the residuals are divided by
// their root mean square (residual sum of squares over files minus basis
// functions).  Along each axis the correlation c of neighbouring residuals,
// pooled over the residual maps of up to kMaxMaps files, gives the full
// width at half maximum of a Gaussian field with that correlation at one
// voxel's distance: w = d sqrt(-2 ln 2 / ln c).
#include "smoothness.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <utility>
#include <vector>

#ifdef _OPENMP
#include <omp.h>
#endif

#include "rem.h"
#include "signal_data.h"
#include "voxel_passes.h"

namespace {

// Residual maps kept for the estimate: enough for a precise estimate,
// few enough that the memory stays that of a few volumes.
const int kMaxMaps = 20;

// Least-squares estimator (X'X)^-1 X' of the n x k design, row-major k x n;
// false when X'X cannot be inverted.
bool least_squares_estimator(const rem_model_view &model, std::vector<double> *estimator) {
    const int n = model.nfiles;
    const int k = model.nbasis;
    // a = [X'X | I], reduced by Gauss-Jordan elimination with partial pivoting.
    const int w = 2 * k;
    std::vector<double> a(static_cast<size_t>(k) * w, 0.0);
    for (int i = 0; i < k; ++i) {
        for (int j = 0; j < k; ++j) {
            double s = 0.0;
            for (int f = 0; f < n; ++f)
                s += static_cast<double>(model.design[f][i]) * model.design[f][j];
            a[i * w + j] = s;
        }
        a[i * w + k + i] = 1.0;
    }
    for (int c = 0; c < k; ++c) {
        int pivot = c;
        for (int i = c + 1; i < k; ++i)
            if (std::fabs(a[i * w + c]) > std::fabs(a[pivot * w + c])) pivot = i;
        if (!(std::fabs(a[pivot * w + c]) > 1e-12)) return false;
        for (int j = 0; j < w; ++j) std::swap(a[c * w + j], a[pivot * w + j]);
        const double p = a[c * w + c];
        for (int j = 0; j < w; ++j) a[c * w + j] /= p;
        for (int i = 0; i < k; ++i) {
            if (i == c) continue;
            const double m = a[i * w + c];
            for (int j = 0; j < w; ++j) a[i * w + j] -= m * a[c * w + j];
        }
    }
    estimator->assign(static_cast<size_t>(k) * n, 0.0);
    for (int i = 0; i < k; ++i)
        for (int f = 0; f < n; ++f) {
            double s = 0.0;
            for (int j = 0; j < k; ++j) s += a[i * w + k + j] * model.design[f][j];
            (*estimator)[static_cast<size_t>(i) * n + f] = s;
        }
    return true;
}

}  // namespace

double fwhm_from_neighbour_correlation(double correlation, double voxel_size) {
    if (!(correlation > 0.0)) return 0.0;
    if (!(correlation < 1.0)) return HUGE_VAL;
    return voxel_size * std::sqrt(-2.0 * std::log(2.0) / std::log(correlation));
}

int neighbour_correlations(const float *const *maps, int nmaps, const unsigned char *inside, int nx,
                           int ny, int nz, double correlation[3]) {
    const int64_t step[3] = {1, nx, static_cast<int64_t>(nx) * ny};
    const int size[3] = {nx, ny, nz};
    int pairs = 0;
    for (int a = 0; a < 3; ++a) {
        double squares = 0.0, differences = 0.0;
        const int before = pairs;
        for (int z = 0; z < nz; ++z)
            for (int y = 0; y < ny; ++y)
                for (int x = 0; x < nx; ++x) {
                    const int at[3] = {x, y, z};
                    if (at[a] + 1 >= size[a]) continue;
                    const int64_t i = (static_cast<int64_t>(z) * ny + y) * nx + x;
                    const int64_t j = i + step[a];
                    if (!inside[i] || !inside[j]) continue;
                    ++pairs;
                    for (int m = 0; m < nmaps; ++m) {
                        const double u = maps[m][i], v = maps[m][j];
                        squares += 0.5 * (u * u + v * v);
                        differences += (v - u) * (v - u);
                    }
                }
        // An axis without pairs (a single slice) is taken as perfectly smooth:
        // the smoothing averages nothing along it.
        if (pairs == before)
            correlation[a] = 1.0;
        else
            correlation[a] = squares > 0.0 ? 1.0 - differences / (2.0 * squares) : 0.0;
    }
    return pairs;
}

int estimate_residual_smoothness(double fwhm[3], int *maps_used) {
    const rem_model_view model = rem_current_model();
    const int n = model.nfiles;
    const int k = model.nbasis;
    std::vector<double> estimator;
    if (n - k < 1 || !least_squares_estimator(model, &estimator)) {
        std::printf("Error: the smoothness cannot be estimated: the design leaves no residuals.\n");
        return 1;
    }
    std::vector<file_list_entry *> entries;
    for (file_list_entry *e = &file_list_root; e != nullptr; e = e->next) entries.push_back(e);
    if (static_cast<int>(entries.size()) != n) {
        std::printf("Error: the smoothness cannot be estimated: %d files for %d rows.\n",
                    static_cast<int>(entries.size()), n);
        return 1;
    }
    const int nx = file_list_root.nx, ny = file_list_root.ny, nz = file_list_root.nz;
    const int nvoxels = nx * ny * nz;
    const int nmaps = n < kMaxMaps ? n : kMaxMaps;
    std::vector<std::vector<float>> maps(static_cast<size_t>(nmaps),
                                         std::vector<float>(static_cast<size_t>(nvoxels), 0.0f));
    std::vector<unsigned char> inside(static_cast<size_t>(nvoxels), 0);

    // The voxels of a chunk are fitted on the threads of the voxel passes
    // (each voxel's values are its own), while the next chunk is read.
    const voxel_route route = voxel_route_from_environment();
    signal_chunks values(entries.data(), n, route.read_on_demand != 0, route.threads);
    std::vector<std::vector<double>> scratch(static_cast<size_t>(route.threads),
                                             std::vector<double>(2 * static_cast<size_t>(n) + k));
    const int chunk = values.chunk_voxels();
    for (int c0 = 0; c0 < nvoxels; c0 += chunk) {
        const int count = nvoxels - c0 < chunk ? nvoxels - c0 : chunk;
        if (!values.fetch(c0, count)) return 1;
        const int next = c0 + count;
        if (next < nvoxels)
            values.fetch_ahead(next, nvoxels - next < chunk ? nvoxels - next : chunk);
#pragma omp parallel for num_threads(route.threads) schedule(dynamic, 64)
        for (int i = c0; i < c0 + count; ++i) {
#ifdef _OPENMP
            double *y = scratch[static_cast<size_t>(omp_get_thread_num())].data();
#else
            double *y = scratch[0].data();
#endif
            double *e = y + n, *beta = e + n;
            bool usable = true;
            for (int f = 0; f < n && usable; ++f) {
                y[f] = values.effect(f, i);
                const float error = values.error(f, i);
                usable = std::isfinite(y[f]) && std::isfinite(error) && error != 0.0f;
            }
            if (!usable) continue;
            for (int j = 0; j < k; ++j) {
                double s = 0.0;
                for (int f = 0; f < n; ++f) s += estimator[static_cast<size_t>(j) * n + f] * y[f];
                beta[j] = s;
            }
            double rss = 0.0;
            for (int f = 0; f < n; ++f) {
                double s = y[f];
                for (int j = 0; j < k; ++j) s -= model.design[f][j] * beta[j];
                e[f] = s;
                rss += s * s;
            }
            if (!(rss > 0.0) || !std::isfinite(rss)) continue;
            const double scale = 1.0 / std::sqrt(rss / (n - k));
            for (int m = 0; m < nmaps; ++m) maps[m][i] = static_cast<float>(e[m] * scale);
            inside[i] = 1;
        }
    }
    if (check_signal_files_unchanged() != 0) return 1;

    std::vector<const float *> pointers;
    for (const auto &m : maps) pointers.push_back(m.data());
    double correlation[3];
    if (neighbour_correlations(pointers.data(), nmaps, inside.data(), nx, ny, nz, correlation) ==
        0) {
        std::printf(
            "Error: the smoothness cannot be estimated: no two neighbouring voxels hold "
            "data in every file.\n");
        return 1;
    }
    for (int a = 0; a < 3; ++a)
        fwhm[a] = fwhm_from_neighbour_correlation(correlation[a], file_list_root.resolution[a]);
    *maps_used = nmaps;
    return 0;
}

double smoothed_dof_boost(const double fwhm[3], const float voxel[3], double ratio_fwhm) {
    double boost = 1.0;
    for (int a = 0; a < 3; ++a) {
        const double r2 = fwhm[a] * fwhm[a] + static_cast<double>(voxel[a]) * voxel[a];
        boost *= std::sqrt(2.0 * ratio_fwhm * ratio_fwhm / r2 + 1.0);
    }
    return boost;
}
