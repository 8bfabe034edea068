// The parts of the page per condition (thresholded slices, projections and
// the cluster table) and the diagnostics (variance maps, p histograms).
#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>

#include "report_internal.h"

namespace report {

namespace {

// At most this many axial slices in a mosaic, and clusters in a page table.
constexpr int kMostSlices = 24;
constexpr size_t kMostClusters = 25;

std::string bar_figure(const image &bar, const std::string &left, const std::string &right,
                       const std::string &caption) {
    return "<figure style=\"margin:0;width:" + std::to_string(bar.width) +
           "px\"><div class=\"ends\"><span>" + left + "</span><span>" + right + "</span></div>" +
           img_tag(bar, caption) + "<figcaption>" + caption + "</figcaption></figure>";
}

std::string cluster_table(const condition_maps &c) {
    if (c.clusters.empty()) return "<p><strong>No cluster passes the threshold.</strong></p>\n";
    std::string h =
        "<table><tr><th>Cluster</th><th>Sign</th><th>Voxels</th><th>Volume (mm&sup3;)</th>"
        "<th>Peak x, y, z (mm)</th><th>Voxel i, j, k</th><th>" +
        std::string(c.rows > 1 ? "F" : "T") + "</th><th>&minus;log<sub>10</sub> p</th></tr>\n";
    for (size_t k = 0; k < c.clusters.size() && k < kMostClusters; ++k) {
        const cluster &cl = c.clusters[k];
        for (size_t q = 0; q < cl.peaks.size(); ++q) {
            const peak &p = cl.peaks[q];
            if (q == 0)
                h += format_text(
                    "<tr><td class=\"n\">%zu</td><td>%s</td><td class=\"n\">%ld</td>"
                    "<td class=\"n\">%.0f</td>",
                    k + 1,
                    cl.sign > 0 ? "<span class=\"plus\">+</span>"
                                : "<span class=\"minus\">&minus;</span>",
                    cl.voxels, cl.volume_mm3);
            else
                h += "<tr class=\"sub\"><td colspan=\"4\">&nbsp;&nbsp;further peak</td>";
            h += format_text(
                "<td class=\"n\">%.1f, %.1f, %.1f</td><td class=\"n\">%d, %d, %d</td>"
                "<td class=\"n\">%.2f</td><td class=\"n\">%.2f</td></tr>\n",
                p.mm[0], p.mm[1], p.mm[2], p.ijk[0], p.ijk[1], p.ijk[2],
                c.rows > 1 ? static_cast<double>(p.t) * p.t : static_cast<double>(p.t),
                static_cast<double>(p.logp));
        }
    }
    h += "</table>\n";
    h += "<p class=\"note\">Clusters of one or two voxels are mostly noise at this threshold; "
         "<code>--min-cluster</code> leaves them out.</p>\n";
    if (c.clusters.size() > kMostClusters)
        h += format_text("<p class=\"note\">%zu smaller clusters are in the TSV file only.</p>\n",
                         c.clusters.size() - kMostClusters);
    return h;
}

}  // namespace

std::string condition_section(const options &o, const results &r, const condition_maps &c) {
    const view_axes v = view_of(r.geometry);
    const size_t n = r.size();
    statistic_overlay s;
    s.logp = c.logp.data();
    s.shown = &c.cluster_of;
    s.threshold = o.threshold;
    double largest = 0.0;
    long positive = 0, negative = 0;
    for (size_t i = 0; i < n; ++i) {
        if (c.cluster_of[i] == 0) continue;
        largest = std::max(largest, std::fabs(static_cast<double>(c.logp[i])));
        (c.logp[i] > 0 ? positive : negative) += 1;
    }
    s.largest = largest > o.threshold ? largest : o.threshold + 1.0;
    long npos = 0, nneg = 0;
    for (const cluster &cl : c.clusters) (cl.sign > 0 ? npos : nneg) += 1;

    std::string h = "<h2 id=\"c-" + html_escape(c.label) + "\">Condition <code>" +
                    html_escape(c.title) + "</code>" +
                    (c.title != c.name ? " (<code>" + html_escape(c.name) + "</code>)" : "") +
                    "</h2>\n";
    std::string rows;
    for (size_t k = 0; k < c.contrast.size(); ++k) {
        std::string row;
        for (size_t e = 0; e < c.contrast[k].size(); ++e) {
            const double x = c.contrast[k][e];
            if (x == 0) continue;
            if (!row.empty())
                row += x > 0 ? " + " : " &minus; ";
            else if (x < 0)
                row += "&minus;";
            if (std::fabs(x) != 1) row += format_text("%g ", std::fabs(x));
            row += html_escape(r.facts.header.event_name(r.facts.events[e]));
        }
        rows += (k ? "; " : "") + (row.empty() ? std::string("0") : row);
    }
    h += "<p>Tests " + rows +
         (c.rows > 1 ? " jointly: " + test_text(c) +
                           ". An F test has no sign: every voxel past "
                           "the threshold is shown in red to yellow"
                     : ": " + test_text(c) +
                           "; red to yellow where it is above 0, blue where "
                           "below") +
         format_text(
             ". %ld voxels pass &minus;log<sub>10</sub> p &ge; %g in clusters of at least %ld: "
             "%ld positive in %ld cluster%s, %ld negative in %ld cluster%s. Files: <code>T-",
             positive + negative, o.threshold, o.min_cluster, positive, npos, npos == 1 ? "" : "s",
             negative, nneg, nneg == 1 ? "" : "s") +
         html_escape(c.name) +
         ".bfloat</code> (p is computed from T); clusters in "
         "<code>contrast-" +
         html_escape(c.label) + "_clusters.tsv</code>.</p>\n";

    // Colour bar.
    std::string low = format_text("%.1f", o.threshold), high = format_text("%.1f", s.largest);
    h += "<div class=\"bar\">" +
         (c.rows > 1 ? std::string()
                     : bar_figure(colour_bar(-1, 200, 14), "&minus;" + high, "&minus;" + low,
                                  "negative T (&minus;log<sub>10</sub> p &ge; " + low + ")")) +
         bar_figure(colour_bar(1, 200, 14), low, high,
                    std::string(c.rows > 1 ? "F" : "positive T") +
                        " (&minus;log<sub>10</sub> p &ge; " + low + ")") +
         "</div>\n";

    // Axial slices, bottom first.
    const double ppm = pixels_per_mm(r, v, 150.0);
    const grey_range g = grey_range_of(r.background, r.analysed);
    h += "<p class=\"note\">Axial slices seen from above, from the bottom of the volume to the "
         "top: world x to the right, y towards the top of each picture (in the RAS space of "
         "NIfTI, the subject's right on the right and the front at the top). Background: " +
         html_escape(r.background_name) + ".</p>\n<div class=\"tiles\">";
    for (int slice : slices_to_show(r, v, kMostSlices))
        h += "<figure>" +
             img_tag(statistic_slice(r, v, slice, g, s, ppm),
                     format_text("slice %d of condition ", slice) + c.name) +
             format_text("<figcaption>z = %.0f mm</figcaption></figure>", slice_mm(r, v, slice));
    h += "</div>\n";

    // Projections.
    const double mip = pixels_per_mm(r, v, 230.0);
    const char *names[3] = {"side (along x): front to the right, top up",
                            "front (along y): right to the right, top up",
                            "top (along z): right to the right, front up"};
    h += "<p class=\"note\">Maximum-intensity projections: each pixel shows the strongest voxel "
         "along its line of sight over the brain's silhouette.</p>\n<div class=\"views\">";
    for (int along = 0; along < 3; ++along)
        h += "<figure>" + img_tag(statistic_projection(r, v, along, s, mip), names[along]) +
             "<figcaption>" + names[along] + "</figcaption></figure>";
    h += "</div>\n";
    return h + cluster_table(c);
}

std::string test_text(const condition_maps &c) {
    std::string t = c.rows == 1 ? format_text("t test, %d dof, two-sided p", c.dof)
                                : format_text("F test, %d and %d dof, p from the upper tail of F",
                                              c.rows, c.dof);
    if (!c.corrected) return t + ", uncorrected";
    if (!std::isfinite(c.corrected_from))
        return t +
               ", corrected (the Euler-characteristic formula never decreases at these "
               "degrees of freedom: every corrected p is 1)";
    return t + format_text(", corrected (1 where |T| &lt; %.3g)", c.corrected_from);
}

std::string diagnostics_section(const options &o, const results &r) {
    const view_axes v = view_of(r.geometry);
    const size_t n = r.size();
    std::string h = "<h2 id=\"diagnostics\">Diagnostics</h2>\n";

    // The between-subject variance before and after smoothing, on one scale.
    std::vector<float> inside;
    for (size_t i = 0; i < n; ++i)
        if (r.analysed[i] && std::isfinite(r.between[i])) inside.push_back(r.between[i]);
    std::sort(inside.begin(), inside.end());
    double high = inside.empty() ? 1.0 : inside[inside.size() * 98 / 100];
    if (!(high > 0)) high = 1.0;
    const double ppm = pixels_per_mm(r, v, 110.0);
    const std::vector<int> slices = slices_to_show(r, v, kMostSlices);
    h += "<p>The between-subject variance (&sigma;<sup>2</sup><sub>RE</sub>, from "
         "<code>sigma2</code>) as REML estimated it at each voxel, and after the smoothing of "
         "the variance ratio that the tests use. The raw map is noisy (it rests on few files); "
         "the smoothed one should follow it without its grain. Both on one scale:</p>\n";
    h += "<div class=\"bar\">" +
         bar_figure(sequential_bar(240, 14), "0", format_text("%.3g", high),
                    "variance (the top is the 98th percentile of the raw map; above it, yellow)") +
         "</div>\n";
    const std::vector<float> *maps[2] = {&r.between, &r.smoothed};
    const char *titles[2] = {"before smoothing (REML)", "after smoothing"};
    for (int m = 0; m < (r.has_smoothed ? 2 : 1); ++m) {
        h += std::string("<p><strong>") + titles[m] + "</strong></p>\n<div class=\"tiles\">";
        for (int slice : slices)
            h +=
                "<figure>" +
                img_tag(value_slice(r, v, slice, *maps[m], high, ppm),
                        std::string("between-subject variance ") + titles[m]) +
                format_text("<figcaption>z = %.0f mm</figcaption></figure>", slice_mm(r, v, slice));
        h += "</div>\n";
    }
    if (!r.has_smoothed)
        h += "<p class=\"note\">The ratio smoothing was 0: there is no smoothed map.</p>\n";

    // p histograms.
    h += "<p>The uncorrected p values of each condition over the analysed voxels, in 20 bins from "
         "0 (left) "
         "to 1 (right). Where nothing happens, p is uniform and the bars stand at the dashed "
         "line; real effects add a peak at the left. A slope or a bump elsewhere hints that the "
         "model does not fit the data.";
    if (r.facts.multiple_comparisons != 0)
        h += " They are uncorrected even though the maps above show corrected p, which pile up "
             "at 1 and say nothing about the fit.";
    h += "</p>\n<div class=\"views\">";
    for (const condition_maps &c : r.conditions) {
        std::vector<long> counts(20, 0);
        for (size_t i = 0; i < n; ++i) {
            if (!r.analysed[i] || !std::isfinite(c.raw_log10p[i])) continue;
            double p = std::pow(10.0, static_cast<double>(c.raw_log10p[i]));
            counts[std::min(19, static_cast<int>(p * 20))] += 1;
        }
        h += "<figure style=\"width:240px\">" +
             img_tag(histogram_picture(counts, 240, 110), "p histogram of " + c.title) +
             "<div class=\"ends\"><span>0</span><span>p</span><span>1</span></div><figcaption>"
             "condition <code>" +
             html_escape(c.title) + "</code></figcaption></figure>";
    }
    return h + "</div>\n";
}

}  // namespace report
