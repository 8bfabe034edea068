// Clusters of a thresholded map, their peaks, and the cluster table's text.
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "report_internal.h"

namespace report {

namespace {

// -log10 p first, then |T|, then the lower index: the order in which voxels
// become peaks.
struct stronger {
    const float *logp, *t;
    bool operator()(size_t a, size_t b) const {
        float pa = std::fabs(logp[a]), pb = std::fabs(logp[b]);
        if (pa != pb) return pa > pb;
        float ta = std::fabs(t[a]), tb = std::fabs(t[b]);
        if (ta != tb) return ta > tb;
        return a < b;
    }
};

double voxel_volume(const bridge::geometry &g) {
    const double(*a)[4] = g.affine;
    double det = a[0][0] * (a[1][1] * a[2][2] - a[1][2] * a[2][1]) -
                 a[0][1] * (a[1][0] * a[2][2] - a[1][2] * a[2][0]) +
                 a[0][2] * (a[1][0] * a[2][1] - a[1][1] * a[2][0]);
    return std::fabs(det);
}

}  // namespace

std::vector<cluster> find_clusters(const float *logp, const float *t, const int dims[3],
                                   const bridge::geometry &geometry, double threshold,
                                   long min_cluster, std::vector<int> *labels) {
    const int nx = dims[0], ny = dims[1], nz = dims[2];
    const size_t n = static_cast<size_t>(nx) * ny * nz;
    const double volume = voxel_volume(geometry);
    const stronger order{logp, t};
    // 0: not past the threshold or already taken; the cluster's number otherwise.
    std::vector<int> owner(n, 0);
    auto sign_of = [&](size_t i) {
        if (logp[i] >= threshold) return 1;
        if (-logp[i] >= threshold) return -1;
        return 0;
    };
    auto for_neighbours = [&](size_t i, auto &&visit) {
        int x = static_cast<int>(i % nx), y = static_cast<int>((i / nx) % ny),
            z = static_cast<int>(i / (static_cast<size_t>(nx) * ny));
        for (int dz = -1; dz <= 1; ++dz)
            for (int dy = -1; dy <= 1; ++dy)
                for (int dx = -1; dx <= 1; ++dx) {
                    int a = x + dx, b = y + dy, c = z + dz;
                    if ((dx | dy | dz) == 0 || a < 0 || b < 0 || c < 0 || a >= nx || b >= ny ||
                        c >= nz)
                        continue;
                    visit((static_cast<size_t>(c) * ny + b) * nx + a);
                }
    };

    std::vector<cluster> clusters;
    std::vector<int> numbers;  // the owner number of each cluster kept
    std::vector<size_t> members, stack;
    int number = 0;
    for (size_t seed = 0; seed < n; ++seed) {
        const int sign = sign_of(seed);
        if (sign == 0 || owner[seed] != 0) continue;
        ++number;
        members.clear();
        stack.assign(1, seed);
        owner[seed] = number;
        while (!stack.empty()) {
            size_t i = stack.back();
            stack.pop_back();
            members.push_back(i);
            for_neighbours(i, [&](size_t j) {
                if (owner[j] == 0 && sign_of(j) == sign) {
                    owner[j] = number;
                    stack.push_back(j);
                }
            });
        }
        if (static_cast<long>(members.size()) < min_cluster) continue;

        // Local maxima, strongest first; the cluster's own peak is the first.
        std::vector<size_t> maxima;
        for (size_t i : members) {
            bool top = true;
            for_neighbours(i, [&](size_t j) {
                if (owner[j] == number && order(j, i)) top = false;
            });
            if (top) maxima.push_back(i);
        }
        std::sort(maxima.begin(), maxima.end(), order);
        cluster c;
        c.sign = sign;
        c.voxels = static_cast<long>(members.size());
        c.volume_mm3 = static_cast<double>(members.size()) * volume;
        for (size_t i : maxima) {
            peak p;
            p.ijk[0] = static_cast<int>(i % nx);
            p.ijk[1] = static_cast<int>((i / nx) % ny);
            p.ijk[2] = static_cast<int>(i / (static_cast<size_t>(nx) * ny));
            bridge::voxel_to_mm(geometry, p.ijk[0], p.ijk[1], p.ijk[2], p.mm);
            bool apart = true;
            for (const peak &q : c.peaks) {
                double d2 = 0.0;
                for (int a = 0; a < 3; ++a) d2 += (p.mm[a] - q.mm[a]) * (p.mm[a] - q.mm[a]);
                if (std::sqrt(d2) < peak_separation_mm) apart = false;
            }
            if (!apart) continue;
            p.t = t[i];
            p.logp = logp[i];
            c.peaks.push_back(p);
        }
        clusters.push_back(c);
        numbers.push_back(number);
    }
    std::vector<size_t> place(clusters.size());
    for (size_t k = 0; k < place.size(); ++k) place[k] = k;
    std::stable_sort(place.begin(), place.end(), [&](size_t x, size_t y) {
        const cluster &a = clusters[x], &b = clusters[y];
        if (a.voxels != b.voxels) return a.voxels > b.voxels;
        return std::fabs(a.peaks[0].logp) != std::fabs(b.peaks[0].logp)
                   ? std::fabs(a.peaks[0].logp) > std::fabs(b.peaks[0].logp)
                   : std::fabs(a.peaks[0].t) > std::fabs(b.peaks[0].t);
    });
    std::vector<cluster> sorted;
    std::vector<int> rank(number + 1, 0);
    for (size_t k = 0; k < place.size(); ++k) {
        sorted.push_back(clusters[place[k]]);
        rank[numbers[place[k]]] = static_cast<int>(k + 1);
    }
    if (labels != nullptr) {
        labels->assign(n, 0);
        for (size_t i = 0; i < n; ++i) (*labels)[i] = rank[owner[i]];
    }
    return sorted;
}

std::string clusters_tsv(const std::vector<cluster> &clusters, bool f_test) {
    std::string text = "cluster\tpeak_i\tpeak_j\tpeak_k\tpeak_x_mm\tpeak_y_mm\tpeak_z_mm\t";
    text += f_test ? "peak_f" : "peak_t";
    text += "\tpeak_logp\tvoxels\tvolume_mm3\n";
    char line[512];
    for (size_t c = 0; c < clusters.size(); ++c) {
        for (const peak &p : clusters[c].peaks) {
            std::snprintf(line, sizeof line,
                          "%zu\t%d\t%d\t%d\t%.2f\t%.2f\t%.2f\t%.4f\t%.4f\t%ld\t%.2f\n", c + 1,
                          p.ijk[0], p.ijk[1], p.ijk[2], p.mm[0], p.mm[1], p.mm[2],
                          static_cast<double>(p.t), static_cast<double>(p.logp), clusters[c].voxels,
                          clusters[c].volume_mm3);
            text += line;
        }
    }
    return text;
}

}  // namespace report
