// The report page: one HTML file with every picture inside it.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "report_internal.h"

namespace report {

namespace {

std::string number(double x) {
    return format_text("%g", x);
}

// A path as the reader best finds it: absolute and without "..".
std::string display_path(const std::string &path) {
    char *full = realpath(path.c_str(), nullptr);
    if (full == nullptr) return path;
    std::string s = full;
    std::free(full);
    return s;
}

const char *kStyle = R"(
body { font-family: "DejaVu Sans", Arial, sans-serif; max-width: 1120px; margin: 1.5em auto;
       padding: 0 1em; color: #1a1a1a; line-height: 1.45; }
h1 { margin-bottom: 0.2em; } h2 { border-bottom: 2px solid #ccc; margin-top: 2em; }
code, pre { font-family: "DejaVu Sans Mono", monospace; font-size: 0.9em; }
pre { background: #f4f4f4; padding: 0.6em; overflow-x: auto; }
table { border-collapse: collapse; margin: 0.6em 0; }
th, td { border: 1px solid #ccc; padding: 0.2em 0.6em; text-align: left; vertical-align: top; }
td.n { text-align: right; font-variant-numeric: tabular-nums; }
tr.sub td { color: #555; border-top-style: dotted; }
.note { color: #444; font-size: 0.92em; }
.tiles { display: flex; flex-wrap: wrap; gap: 4px; background: #111; padding: 4px; }
.tiles figure, .views figure { margin: 0; }
.tiles figcaption { color: #ddd; font-size: 0.75em; text-align: center; }
.views { display: flex; flex-wrap: wrap; gap: 14px; align-items: flex-end; }
.views figcaption, .bar figcaption { font-size: 0.85em; text-align: center; }
.bar { display: flex; gap: 10px; align-items: flex-start; margin: 0.5em 0; }
.ends { display: flex; justify-content: space-between; font-size: 0.8em; }
.design { display: grid; grid-template-columns: auto auto; column-gap: 6px; justify-content: start; }
.design .cols { display: flex; font-size: 0.85em; }
.design .cols span { text-align: center; }
.design .rows { font-size: 11px; text-align: right; }
.design .rows div { white-space: nowrap; overflow: hidden; }
.plus { color: #a01818; font-weight: bold; } .minus { color: #1848a0; font-weight: bold; }
img { image-rendering: pixelated; }
)";

// "event p" or "event p (patients)".
std::string event_name(const run_facts &f, char c) {
    const std::string name = f.header.event_name(c);
    return std::string("event ") + c +
           (name.size() == 1 && name[0] == c ? "" : " (" + html_escape(name) + ")");
}

// "p - 2 c", "0.5 p + 0.5 c", "p" for one row of a contrast, with the
// events' names where the analysis file gives them.
std::string row_text(const std::vector<double> &row, const run_facts &f) {
    std::string s;
    for (size_t e = 0; e < row.size(); ++e) {
        if (row[e] == 0) continue;
        if (!s.empty())
            s += row[e] > 0 ? " + " : " &minus; ";
        else if (row[e] < 0)
            s += "&minus;";
        if (std::fabs(row[e]) != 1) s += number(std::fabs(row[e])) + " ";
        s += html_escape(f.header.event_name(f.events[e]));
    }
    return s.empty() ? "0" : s;
}

std::string p_kind(const run_facts &f) {
    if (f.multiple_comparisons != 0)
        return "p corrected for multiple comparisons over " +
               std::to_string(f.multiple_comparisons) +
               " resolution elements (the analysis file's <code>multiple-comparisons</code>)";
    return "raw p, not corrected for multiple comparisons";
}

std::string run_section(const options &o, const results &r) {
    const run_facts &f = r.facts;
    std::string h = "<h2 id=\"run\">The run</h2>\n<table>\n";
    auto row = [&](const std::string &name, const std::string &value) {
        h += "<tr><th>" + name + "</th><td>" + value + "</td></tr>\n";
    };
    row("Results folder", "<code>" + html_escape(display_path(o.results_dir)) + "</code>");
    row("Analysis file", f.analysis_path.empty()
                             ? "not found (it is named in <code>.vistra</code> or given with "
                               "<code>--analysis</code>)"
                             : "<code>" + html_escape(display_path(f.analysis_path)) + "</code>");
    // A column of zeros and ones is an event (a group): the files it holds
    // are counted.  Any other column is a covariate: its range is shown.
    std::string per_event;
    bool all_events = true;
    for (size_t e = 0; e < f.events.size(); ++e) {
        double low = HUGE_VAL, high = -HUGE_VAL;
        bool indicator = true;
        for (const auto &values : f.design) {
            low = std::min(low, values[e]);
            high = std::max(high, values[e]);
            indicator = indicator && (values[e] == 0.0 || values[e] == 1.0);
        }
        per_event += (e ? ", " : "") + event_name(f, f.events[e]) + ": ";
        if (indicator) {
            per_event += std::to_string(f.files_per_event[e]);
        } else {
            per_event += "covariate from " + number(low) + " to " + number(high);
            all_events = false;
        }
    }
    row(all_events ? "Files per event" : "Design columns",
        per_event + " (" + std::to_string(f.design.size()) + " files in all)");
    const view_axes v = view_of(r.geometry);
    row("Voxels",
        format_text("%ld in the volume (%d &times; %d &times; %d voxels of %s &times; %s "
                    "&times; %s mm); %ld analysed, %ld left out (outside the brain, or some "
                    "file had a standard error of 0 there)",
                    f.voxels, r.dims[0], r.dims[1], r.dims[2], number(v.mm[0]).c_str(),
                    number(v.mm[1]).c_str(), number(v.mm[2]).c_str(), f.analysed,
                    f.voxels - f.analysed));
    row("Smoothing",
        f.smoothing_known
            ? format_text("%s mm FWHM in the single-subject analyses; %s mm FWHM for the "
                          "ratio of total to within-subject variance",
                          number(f.prior_smoothing).c_str(), number(f.ratio_smoothing).c_str())
            : "unknown (no analysis file)");
    row("Degrees of freedom",
        (f.fixed_dof >= 0 ? "fixed " + std::to_string(f.fixed_dof) + " (the files' own, summed)"
                          : std::string("fixed unknown (a signal file's header is missing)")) +
            "; random " + std::to_string(f.random_dof) + " (files minus events); smoothed " +
            std::to_string(f.smoothed_dof) +
            " (what the smoothed variance is worth: the tests use it)");
    row("p values",
        "computed here from T and its degrees of freedom in double precision, as "
        "<code>fmri-rem-export</code> writes them: two-sided p of the t test for a condition of "
        "one row, the upper tail of F = T<sup>2</sup> for one of several rows; " +
            p_kind(f) +
            ". fmri-rem's own <code>P-</code> maps keep their own rules (a doubled and folded p "
            "for several rows, a corrected p from the three-dimensional term alone) and are "
            "not used.");
    row("Threshold",
        format_text(
            "&minus;log<sub>10</sub> p &ge; %s, that is p &le; %s; clusters of at least %ld "
            "voxel%s",
            number(o.threshold).c_str(), number(std::pow(10.0, -o.threshold)).c_str(),
            o.min_cluster, o.min_cluster == 1 ? "" : "s"));
    row("Coordinates",
        "mm through the affine of " +
            (r.geometry.from_header ? std::string("the result header (voxel size, origin and "
                                                  "direction of <code>sigma2.hdr</code>)")
                                    : "<code>" + html_escape(r.geometry.source) + "</code>") +
            "; voxel indices i, j, k count from 0");
    std::time_t now = std::time(nullptr);
    char today[64];
    std::strftime(today, sizeof today, "%Y-%m-%d %H:%M UTC", std::gmtime(&now));
    row("Program", std::string("fmri-rem ") + version() + "; results written " +
                       html_escape(f.results_time) + "; this page made " + today);
    h += "</table>\n";
    if (!f.analysis_text.empty())
        h += "<details><summary>The analysis file's text</summary>\n<pre>" +
             html_escape(f.analysis_text) + "</pre></details>\n";
    return h;
}

std::string design_section(const results &r) {
    const run_facts &f = r.facts;
    const int rows = static_cast<int>(f.design.size());
    const int cell_w = 56, cell_h = std::max(4, std::min(16, 480 / std::max(rows, 1)));
    const int every = (12 + cell_h - 1) / cell_h;
    std::string h = "<h2 id=\"design\">The design</h2>\n";
    h +=
        "<p>The design matrix (<code>basis.dat</code>): one row per file, one column per event; "
        "each column on its own grey scale from its smallest value (black) to its largest (white), "
        "0 included, so a group column of 0 and 1 is black and white.</p>\n";
    h += "<div class=\"design\"><div></div><div class=\"cols\">";
    for (char e : f.events)
        h += format_text("<span style=\"width:%dpx\" title=\"", cell_w) +
             html_escape(f.header.event_name(e)) + "\">event " + e + "</span>";
    h += "</div>\n<div class=\"rows\">";
    for (int i = 0; i < rows; ++i) {
        std::string name = i < static_cast<int>(f.files.size()) ? f.files[i] : "file";
        std::string base = name.substr(name.rfind('/') + 1);
        h += format_text("<div style=\"height:%dpx;line-height:%dpx\">", cell_h, cell_h) +
             (i % every == 0 ? html_escape(std::to_string(i) + " " + base) : "") + "</div>";
    }
    h += "</div>\n" + img_tag(design_picture(f, cell_w, cell_h), "design matrix") + "</div>\n";

    h += "<p>The conditions: each is tested with an F test of its contrast rows; with one row "
         "T is the signed square root of F and the test is a two-sided t test.</p>\n<table><tr>"
         "<th>Condition</th><th>Test</th><th>Contrast</th>";
    for (char e : f.events) h += "<th>" + event_name(f, e) + "</th>";
    h += "</tr>\n";
    for (const condition_maps &c : r.conditions) {
        for (size_t k = 0; k < c.contrast.size(); ++k) {
            h += "<tr>";
            if (k == 0)
                h += format_text("<td rowspan=\"%zu\"><a href=\"#c-", c.contrast.size()) +
                     html_escape(c.label) + "\"><code>" + html_escape(c.title) +
                     "</code></a></td>" + format_text("<td rowspan=\"%zu\">", c.contrast.size()) +
                     test_text(c) + "</td>";
            h += "<td>" + row_text(c.contrast[k], f) +
                 (k == 0 && c.contrast.size() > 1 ? " (jointly with the rows below)" : "") +
                 "</td>";
            for (double x : c.contrast[k]) h += "<td class=\"n\">" + number(x) + "</td>";
            h += "</tr>\n";
        }
    }
    return h + "</table>\n";
}

}  // namespace

std::string html_escape(const std::string &text) {
    std::string s;
    for (char c : text) {
        switch (c) {
            case '&':
                s += "&amp;";
                break;
            case '<':
                s += "&lt;";
                break;
            case '>':
                s += "&gt;";
                break;
            case '"':
                s += "&quot;";
                break;
            default:
                s += c;
        }
    }
    return s;
}

std::string page_html(const options &o, const results &r) {
    std::string h = "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n";
    h += "<title>fmri-rem report: " + html_escape(display_path(o.results_dir)) +
         "</title>\n<style>" + kStyle + "</style>\n</head>\n<body>\n";
    h += "<h1>Group analysis report</h1>\n";
    h += "<p>What fmri-rem found in <code>" + html_escape(display_path(o.results_dir)) +
         "</code>. For each condition (a test of the events' effects) the page shows where the "
         "test passes the threshold: <span class=\"plus\">red to yellow</span> where the "
         "condition's effect is positive, <span class=\"minus\">blue to pale cyan</span> where "
         "it is negative, lighter where it is stronger, over a dark grey picture of the brain. "
         "Below each picture a table lists the clusters (connected groups of such voxels) and "
         "their peaks; the same table is written beside the results as "
         "<code>contrast-&lt;label&gt;_clusters.tsv</code>. The diagnostics at the end help to "
         "judge whether the analysis is sound.</p>\n<p>Contents: <a href=\"#run\">the run</a> "
         "&middot; <a href=\"#design\">the design</a>";
    for (const condition_maps &c : r.conditions)
        h += " &middot; <a href=\"#c-" + html_escape(c.label) + "\">condition <code>" +
             html_escape(c.title) + "</code></a>";
    h += " &middot; <a href=\"#diagnostics\">diagnostics</a></p>\n";
    h += run_section(o, r);
    h += design_section(r);
    for (const condition_maps &c : r.conditions) h += condition_section(o, r, c);
    h += diagnostics_section(o, r);
    h += "<h2 id=\"colours\">About the colours</h2>\n<p class=\"note\">The statistic's colours "
         "run, on each side, from a dark saturated colour at the threshold to a pale one at "
         "the largest value: CIELAB lightness rises evenly from 40 to 95, so a grey print still "
         "shows which voxels are stronger, and every coloured voxel is lighter than any part of "
         "the background (whose lightness stays below 38). The sign is told by hue: red to "
         "yellow for positive, blue to cyan for negative, a pair that red-green colour "
         "blindness (the common kinds) leaves distinct. The variance maps use a map from dark "
         "violet through blue and green to yellow, also of evenly rising "
         "lightness.</p>\n</body>\n</html>\n";
    return h;
}

}  // namespace report
