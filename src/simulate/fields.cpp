// The simulated maps: the brain mask, the group effects, the variance maps,
// and the smooth noise fields of each subject.
#include "simulate_internal.h"

namespace simulate {

namespace {

// Separable Gaussian smoothing with mirrored edges; the kernel is scaled to
// unit sum of squares so white noise of unit variance stays of unit variance.
void smooth_axis(std::vector<float> &f, const volume &v, int axis, float sigma_vox) {
    int n = axis == 0 ? v.nx : axis == 1 ? v.ny : v.nz;
    int radius = static_cast<int>(std::ceil(3.0f * sigma_vox));
    if (radius < 1 || n < 2) return;
    std::vector<double> k(2 * radius + 1);
    double sum2 = 0.0;
    for (int d = -radius; d <= radius; ++d) {
        double w = std::exp(-0.5 * d * d / (static_cast<double>(sigma_vox) * sigma_vox));
        k[d + radius] = w;
        sum2 += w * w;
    }
    for (double &w : k) w /= std::sqrt(sum2);
    std::vector<double> line(n);
    std::vector<float> out(n);
    int na = axis == 0 ? v.ny : v.nx;
    int nb = axis == 2 ? v.ny : v.nz;
    for (int b = 0; b < nb; ++b) {
        for (int a = 0; a < na; ++a) {
            auto idx = [&](int i) {
                if (axis == 0) return v.at(i, a, b);
                if (axis == 1) return v.at(a, i, b);
                return v.at(a, b, i);
            };
            for (int i = 0; i < n; ++i) line[i] = f[idx(i)];
            for (int i = 0; i < n; ++i) {
                double s = 0.0;
                for (int d = -radius; d <= radius; ++d) {
                    int j = i + d;
                    // Mirror at the edges (repeatedly for short lines).
                    while (j < 0 || j >= n) j = j < 0 ? -j - 1 : 2 * n - j - 1;
                    s += k[d + radius] * line[j];
                }
                out[i] = static_cast<float>(s);
            }
            for (int i = 0; i < n; ++i) f[idx(i)] = out[i];
        }
    }
}

struct blob {
    float cx, cy, cz;  // centre as a fraction of the volume
};

}  // namespace

std::vector<float> noise_field(generator &rng, const volume &v, float fwhm_mm, float voxel) {
    std::vector<float> f(v.size());
    for (float &x : f) x = static_cast<float>(rng.normal());
    float sigma = fwhm_mm / 2.3548f / voxel;
    if (sigma > 0.2f) {
        for (int axis = 0; axis < 3; ++axis) smooth_axis(f, v, axis, sigma);
    }
    return f;
}

shared_maps make_shared_maps(const options &o, const volume &v) {
    const size_t n = v.size();
    shared_maps m;
    // Brain mask: an ellipsoid filling most of the volume.
    m.inside.assign(n, 1);
    if (o.mask) {
        for (int z = 0; z < v.nz; ++z)
            for (int y = 0; y < v.ny; ++y)
                for (int x = 0; x < v.nx; ++x) {
                    double ex = (x + 0.5 - v.nx / 2.0) / (0.46 * v.nx);
                    double ey = (y + 0.5 - v.ny / 2.0) / (0.46 * v.ny);
                    double ez = (z + 0.5 - v.nz / 2.0) / (0.48 * v.nz);
                    m.inside[v.at(x, y, z)] = ex * ex + ey * ey + ez * ez <= 1.0;
                }
    }

    // Group effects: blob A is shared by all groups, blob B belongs to the
    // even-numbered groups and blob C (negative) to the odd-numbered ones.
    const blob blobs[3] = {{0.30f, 0.40f, 0.50f}, {0.70f, 0.60f, 0.50f}, {0.50f, 0.25f, 0.40f}};
    const double blob_sigma = 2.5;  // voxels
    m.mu.assign(o.groups, std::vector<float>(n, 0.0f));
    for (int g = 0; g < o.groups; ++g) {
        double amp[3] = {o.effect, g % 2 == 0 ? o.effect : 0.0, g % 2 == 1 ? -0.8 * o.effect : 0.0};
        if (o.null_study) amp[0] = amp[1] = amp[2] = 0.0;
        for (int z = 0; z < v.nz; ++z)
            for (int y = 0; y < v.ny; ++y)
                for (int x = 0; x < v.nx; ++x) {
                    double s = 0.0;
                    for (int b = 0; b < 3; ++b) {
                        double dx = x - blobs[b].cx * (v.nx - 1);
                        double dy = y - blobs[b].cy * (v.ny - 1);
                        double dz = z - blobs[b].cz * (v.nz - 1);
                        s += amp[b] * std::exp(-(dx * dx + dy * dy + dz * dz) /
                                               (2 * blob_sigma * blob_sigma));
                    }
                    size_t i = v.at(x, y, z);
                    m.mu[g][i] = m.inside[i] ? static_cast<float>(s) : 0.0f;
                }
    }

    // Between-subject standard deviation: rises from 0.6 to 1.4 times the
    // given value along x.  The within-subject error varies along y.
    m.sd_between.resize(n);
    m.between_variance.resize(n);
    m.within_shape.resize(n);
    for (int z = 0; z < v.nz; ++z)
        for (int y = 0; y < v.ny; ++y)
            for (int x = 0; x < v.nx; ++x) {
                size_t i = v.at(x, y, z);
                double fx = v.nx > 1 ? static_cast<double>(x) / (v.nx - 1) : 0.5;
                double fy = v.ny > 1 ? static_cast<double>(y) / (v.ny - 1) : 0.5;
                double sd = o.between * (o.uniform ? 1.0 : 0.6 + 0.8 * fx);
                m.sd_between[i] = static_cast<float>(sd);
                m.between_variance[i] = m.inside[i] ? static_cast<float>(sd * sd) : 0.0f;
                m.within_shape[i] = static_cast<float>(o.uniform ? 1.0 : 0.8 + 0.4 * fy);
            }
    return m;
}

}  // namespace simulate
