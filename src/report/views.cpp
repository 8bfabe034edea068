// Pictures of the volumes: slices and maximum-intensity projections of a
// thresholded statistic over a grey background, maps of the variances, the
// colour bars, the design and the p-value histograms.
#include <algorithm>
#include <cmath>

#include "report_internal.h"

namespace report {

namespace {

size_t index_of(const results &r, const int c[3]) {
    return (static_cast<size_t>(c[2]) * r.dims[1] + c[1]) * r.dims[0] + c[0];
}

int repeat(const view_axes &v, int axis, double ppm) {
    return std::max(1, static_cast<int>(std::lround(v.mm[axis] * ppm)));
}

// A picture of the plane spanned by world axes `across` (to the right) and
// `up`; colour(c) is called with the voxel coordinates c[axis] of the two
// in-plane voxel axes filled in (the third is left for colour to set).
template <class Colour>
image plane(const results &r, const view_axes &v, int across, int up, double ppm, Colour colour) {
    const int ac = v.axis[across], au = v.axis[up];
    const int rc = repeat(v, ac, ppm), ru = repeat(v, au, ppm);
    const int nc = r.dims[ac], nu = r.dims[au];
    image im(nc * rc, nu * ru);
    for (int y = 0; y < im.height; ++y) {
        int row = y / ru;  // 0 at the top: the largest world coordinate
        int qu = v.flip[up] ? row : nu - 1 - row;
        for (int x = 0; x < im.width; ++x) {
            int col = x / rc;
            int qc = v.flip[across] ? nc - 1 - col : col;
            int c[3] = {0, 0, 0};
            c[ac] = qc;
            c[au] = qu;
            im.at(x, y) = colour(c);
        }
    }
    return im;
}

double strength(const statistic_overlay &s, double p) {
    double span = s.largest - s.threshold;
    return span > 0 ? (std::fabs(p) - s.threshold) / span : 1.0;
}

}  // namespace

grey_range grey_range_of(const std::vector<float> &values, const std::vector<char> &mask) {
    std::vector<float> inside;
    for (size_t i = 0; i < values.size(); ++i)
        if (mask[i] && std::isfinite(values[i]) && values[i] != 0.0f) inside.push_back(values[i]);
    grey_range g;
    if (inside.empty()) return g;
    std::sort(inside.begin(), inside.end());
    g.low = inside[inside.size() * 2 / 100];
    g.high = inside[inside.size() * 98 / 100];
    if (!(g.high > g.low)) g.high = g.low + 1.0;
    return g;
}

double pixels_per_mm(const results &r, const view_axes &v, double target_pixels) {
    double extent = 0.0;
    for (int a = 0; a < 3; ++a) extent = std::max(extent, r.dims[a] * v.mm[a]);
    return target_pixels / extent;
}

std::vector<int> slices_to_show(const results &r, const view_axes &v, int most) {
    const int az = v.axis[2], nz = r.dims[az];
    std::vector<int> used;
    for (int s = 0; s < nz; ++s) {
        int q = v.flip[2] ? nz - 1 - s : s;
        bool any = false;
        int c[3];
        for (c[2] = 0; c[2] < r.dims[2] && !any; ++c[2])
            for (c[1] = 0; c[1] < r.dims[1] && !any; ++c[1])
                for (c[0] = 0; c[0] < r.dims[0] && !any; ++c[0])
                    any = c[az] == q && r.analysed[index_of(r, c)];
        if (any) used.push_back(q);
    }
    if (static_cast<int>(used.size()) <= most) return used;
    std::vector<int> spread;
    for (int k = 0; k < most; ++k) spread.push_back(used[k * (used.size() - 1) / (most - 1)]);
    return spread;
}

double slice_mm(const results &r, const view_axes &v, int slice) {
    double c[3] = {(r.dims[0] - 1) / 2.0, (r.dims[1] - 1) / 2.0, (r.dims[2] - 1) / 2.0};
    c[v.axis[2]] = slice;
    double mm[3];
    bridge::voxel_to_mm(r.geometry, c[0], c[1], c[2], mm);
    return mm[2];
}

image statistic_slice(const results &r, const view_axes &v, int slice, const grey_range &g,
                      const statistic_overlay &s, double ppm) {
    return plane(r, v, 0, 1, ppm, [&](int c[3]) {
        c[v.axis[2]] = slice;
        size_t i = index_of(r, c);
        if (s.logp != nullptr && (*s.shown)[i] != 0) {
            double p = s.logp[i];
            return signed_colour(p > 0 ? 1 : -1, strength(s, p));
        }
        float b = r.background[i];
        if (!std::isfinite(b) || b == 0.0f) return background_grey(0.0);
        return background_grey(0.25 + 0.75 * std::clamp((b - g.low) / (g.high - g.low), 0.0, 1.0));
    });
}

image statistic_projection(const results &r, const view_axes &v, int along,
                           const statistic_overlay &s, double ppm) {
    const int across = along == 0 ? 1 : 0, up = along == 2 ? 1 : 2;
    const int an = v.axis[along], depth = r.dims[an];
    // The silhouette: the share of analysed voxels along each ray.
    double deepest = 1.0;
    for (int pass = 0; pass < 2; ++pass) {
        image im = plane(r, v, across, up, ppm, [&](int c[3]) {
            int inside = 0;
            double best = 0.0;
            for (int q = 0; q < depth; ++q) {
                c[an] = q;
                size_t i = index_of(r, c);
                inside += r.analysed[i];
                if (s.logp != nullptr && (*s.shown)[i] != 0 &&
                    std::fabs(s.logp[i]) > std::fabs(best))
                    best = s.logp[i];
            }
            if (pass == 0) deepest = std::max(deepest, static_cast<double>(inside));
            if (best != 0.0) return signed_colour(best > 0 ? 1 : -1, strength(s, best));
            return background_grey(inside == 0 ? 0.0 : 0.25 + 0.75 * inside / deepest);
        });
        if (pass == 1) return im;
    }
    return image();
}

image value_slice(const results &r, const view_axes &v, int slice, const std::vector<float> &values,
                  double high, double ppm) {
    return plane(r, v, 0, 1, ppm, [&](int c[3]) {
        c[v.axis[2]] = slice;
        size_t i = index_of(r, c);
        if (!r.analysed[i] || !std::isfinite(values[i])) return background_grey(0.0);
        return sequential_colour(high > 0 ? values[i] / high : 0.0);
    });
}

image colour_bar(int sign, int width, int height) {
    image im(width, height);
    for (int x = 0; x < width; ++x) {
        double s = width > 1 ? static_cast<double>(x) / (width - 1) : 1.0;
        rgb c = signed_colour(sign, sign > 0 ? s : 1.0 - s);
        for (int y = 0; y < height; ++y) im.at(x, y) = c;
    }
    return im;
}

image sequential_bar(int width, int height) {
    image im(width, height);
    for (int x = 0; x < width; ++x) {
        rgb c = sequential_colour(width > 1 ? static_cast<double>(x) / (width - 1) : 1.0);
        for (int y = 0; y < height; ++y) im.at(x, y) = c;
    }
    return im;
}

image design_picture(const run_facts &f, int cell_width, int cell_height) {
    const int rows = static_cast<int>(f.design.size());
    const int cols = static_cast<int>(f.events.size());
    // Each column on its own grey scale, 0 included, so that a 0/1 group column reads black and
    // white beside a covariate of much larger values.
    std::vector<double> low(cols, 0.0), high(cols, 0.0);
    for (const auto &row : f.design)
        for (int e = 0; e < cols && e < static_cast<int>(row.size()); ++e) {
            low[e] = std::min(low[e], row[e]);
            high[e] = std::max(high[e], row[e]);
        }
    image im(cols * cell_width, rows * cell_height, rgb{128, 128, 128});
    for (int i = 0; i < rows; ++i)
        for (int e = 0; e < cols && e < static_cast<int>(f.design[i].size()); ++e) {
            double span = high[e] > low[e] ? high[e] - low[e] : 1.0;
            double s = (f.design[i][e] - low[e]) / span;
            uint8_t g = static_cast<uint8_t>(std::lround(20 + 225 * s));
            for (int y = 0; y < cell_height; ++y)
                for (int x = 0; x < cell_width; ++x) {
                    // A thin line between columns and between rows.
                    bool edge = x == cell_width - 1 || (y == cell_height - 1 && cell_height > 6);
                    im.at(e * cell_width + x, i * cell_height + y) =
                        edge ? rgb{128, 128, 128} : rgb{g, g, g};
                }
        }
    return im;
}

image histogram_picture(const std::vector<long> &counts, int width, int height) {
    const rgb paper{255, 255, 255}, bar{70, 100, 160}, line{200, 60, 30};
    image im(width, height, paper);
    long total = 0, top = 1;
    for (long c : counts) {
        total += c;
        top = std::max(top, c);
    }
    const int n = static_cast<int>(counts.size());
    const double flat = n > 0 ? static_cast<double>(total) / n : 0.0;
    const double scale = (height - 2) / std::max(static_cast<double>(top), 1.25 * flat);
    for (int b = 0; b < n; ++b) {
        int x0 = b * width / n, x1 = (b + 1) * width / n - 1;
        int h = static_cast<int>(std::lround(counts[b] * scale));
        for (int x = x0; x < x1; ++x)
            for (int y = height - h; y < height; ++y) im.at(x, y) = bar;
    }
    // The level every bar would have if all p values were uniform: dashed.
    int y = height - 1 - static_cast<int>(std::lround(flat * scale));
    for (int x = 0; x < width && y >= 0; ++x)
        if ((x / 6) % 2 == 0) im.at(x, y) = line, im.at(x, std::max(0, y - 1)) = line;
    return im;
}

}  // namespace report
