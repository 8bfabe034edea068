// A simulated study with planted blobs through fmri-rem and fmri-rem-report:
// clusters at the blobs, pictures of the sizes given, a well-formed page, and
// bad input gives one error line and no page.
#include <gtest/gtest.h>
#include <png.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <map>
#include <set>
#include <sstream>

#include "bridge.h"
#include "../holds.h"
#include "test_support.h"

namespace {

using test_support::file_exists;
using test_support::read_file;
using test_support::run_command;
using test_support::shell_quote;
using test_support::TempDir;

const std::string kReport = FMRI_REM_REPORT_BIN;

// 21 x 21 x 11 voxels of 3 mm, strong effects over little noise: the simulator puts its blobs at
// fractions (0.3, 0.4, 0.5), (0.7, 0.6, 0.5) and (0.5, 0.25, 0.4) of (n - 1), whole voxels here.
constexpr int kNx = 21, kNy = 21, kNz = 11;
const int kBlobA[3] = {6, 8, 5};    // both groups, positive
const int kBlobB[3] = {14, 12, 5};  // group p only, positive
const int kBlobC[3] = {10, 5, 4};   // group c only, negative

// The rows of a cluster table under its header line, every field a number.
std::vector<std::vector<double>> parse_tsv(const std::string &text) {
    std::istringstream lines(text.substr(text.find('\n') + 1));
    std::vector<std::vector<double>> rows;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        rows.emplace_back();
        for (double x; fields >> x;) rows.back().push_back(x);
        EXPECT_TRUE(fields.eof() && rows.back().size() == 11) << line;
    }
    return rows;
}

// The peak within one voxel of the centre along every axis.
bool near(const std::vector<double> &row, const int centre[3]) {
    for (int a = 0; a < 3; ++a)
        if (std::fabs(row[1 + a] - centre[a]) > 1.0) return false;
    return true;
}

// Width and height of a PNG in base64, decoded in full by libpng; -1 on failure.
std::pair<int, int> decode_png(const std::string &base64) {
    TempDir d;
    test_support::write_file(d.file("b64"), base64);
    png_image im{};
    im.version = PNG_IMAGE_VERSION;
    if (run_command("base64 -d b64 > png", d.path()).status != 0 ||
        !png_image_begin_read_from_file(&im, d.file("png").c_str()))
        return {-1, -1};
    im.format = PNG_FORMAT_RGB;
    std::vector<unsigned char> pixels(PNG_IMAGE_SIZE(im));
    if (!png_image_finish_read(&im, nullptr, pixels.data(), 0, nullptr)) return {-1, -1};
    return {static_cast<int>(im.width), static_cast<int>(im.height)};
}

// Every element closed in order; void elements stand alone.
std::string check_tags(const std::string &html) {
    static const std::set<std::string> void_elements = {"meta", "img", "br", "hr", "link", "input"};
    std::vector<std::string> open;
    size_t pos = 0;
    while ((pos = html.find('<', pos)) != std::string::npos) {
        size_t end = html.find('>', pos);
        if (end == std::string::npos) return "a tag is not closed";
        std::string tag = html.substr(pos + 1, end - pos - 1);
        pos = end + 1;
        if (tag.rfind("!DOCTYPE", 0) == 0) continue;
        if (std::count(tag.begin(), tag.end(), '"') % 2 != 0) return "odd quotes in <" + tag + ">";
        const bool closing = tag[0] == '/';
        const std::string name = tag.substr(closing, tag.find_first_of(" \t\n") - closing);
        if (closing && (open.empty() || open.back() != name)) return "</" + name + "> unmatched";
        if (closing) open.pop_back();
        if (!closing && !void_elements.count(name)) open.push_back(name);
    }
    return open.empty() ? "" : "<" + open.back() + "> is never closed";
}

TEST(ReportRun, BlobsClustersPicturesPageAndBadInput) {
    TempDir dir;
    test_support::CommandResult r = run_command(
        shell_quote(FMRI_REM_SIMULATE_BIN) +
            " -o study --size 21 21 11 --seed 3 --prefix ../study/ --effect 2 --between 0.3 "
            "--within 0.3 && mkdir results",
        dir.path());
    ASSERT_EQ(r.status, 0) << r.err;
    r = test_support::run_fmri_rem({"../study/analysis.rem"}, dir.file("results"));
    ASSERT_EQ(r.status, 0) << r.out;
    r = run_command(shell_quote(kReport) + " results", dir.path());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_TRUE(holds(r.out, "Report: results/report.html\n"));

    std::map<std::string, std::vector<std::vector<double>>> tables;
    for (const char *label : {"p", "c", "pMinusc"}) {
        SCOPED_TRACE(label);
        const auto rows = parse_tsv(
            read_file(dir.file(std::string("results/contrast-") + label + "_clusters.tsv")));
        ASSERT_FALSE(rows.empty());
        // Rows by cluster, clusters by size.
        for (size_t k = 1; k < rows.size(); ++k) {
            EXPECT_GE(rows[k][0], rows[k - 1][0]);
            EXPECT_LE(rows[k][9], rows[k - 1][9]);
        }
        // Voxels in clusters, by sign, equal a count of the voxels whose T
        // passes p <= 0.001 (two-sided) at the header's degrees of freedom.
        const std::string name = std::string(label) == "pMinusc" ? "p-c" : label;
        const std::string hdr = read_file(dir.file("results/T-" + name + ".hdr"));
        const bridge::p_values pv(1, std::atoi(hdr.c_str() + hdr.find("freedom") + 7), 0);
        long counted[2] = {}, clustered[2] = {};  // positive, negative
        for (float x : test_support::read_floats(dir.file("results/T-" + name + ".bfloat"))) {
            const float v = static_cast<float>(pv.signed_logp(x));
            counted[0] += v >= 3.0f;
            counted[1] += v <= -3.0f;
        }
        for (size_t k = 0; k < rows.size(); ++k)
            if (k == 0 || rows[k][0] != rows[k - 1][0])
                clustered[rows[k][7] < 0] += static_cast<long>(rows[k][9]);
        EXPECT_EQ(clustered[0], counted[0]);
        EXPECT_EQ(clustered[1], counted[1]);
        tables[label] = rows;
    }
    // The largest cluster of p peaks at blob A or B; c has a negative cluster at
    // blob C, its largest negative one; p-c peaks at B or C (where c is negative).
    EXPECT_TRUE(near(tables["p"][0], kBlobA) || near(tables["p"][0], kBlobB));
    const auto negative = std::find_if(tables["c"].begin(), tables["c"].end(),
                                       [](const std::vector<double> &row) { return row[7] < 0; });
    EXPECT_TRUE(negative != tables["c"].end() && near(*negative, kBlobC));
    const auto &d1 = tables["pMinusc"][0];
    EXPECT_TRUE(d1[7] > 0 && (near(d1, kBlobB) || near(d1, kBlobC)));

    // The page: well formed, nothing fetched, every picture a PNG of the size given.
    const std::string html = read_file(dir.file("results/report.html"));
    EXPECT_EQ(check_tags(html), "");
    EXPECT_EQ(html.find("<script"), std::string::npos);
    EXPECT_EQ(html.find("http"), std::string::npos);
    int pictures = 0, slices = 0, sides = 0;
    for (size_t pos = 0; (pos = html.find("<img ", pos)) != std::string::npos; ++pos) {
        const std::string tag = html.substr(pos, html.find('>', pos) - pos);
        auto attribute = [&](const std::string &name) {
            size_t at = tag.find(" " + name + "=\"");
            if (at == std::string::npos) return std::string();
            at += name.size() + 3;
            return tag.substr(at, tag.find('"', at) - at);
        };
        const std::string src = attribute("src"), prefix = "data:image/png;base64,";
        ASSERT_EQ(src.rfind(prefix, 0), 0u) << tag.substr(0, 80);
        ++pictures;
        int w = std::stoi(attribute("width")), h = std::stoi(attribute("height"));
        std::string alt = attribute("alt");
        EXPECT_EQ(decode_png(src.substr(prefix.size())), std::make_pair(w, h)) << alt;
        // Slices of 21 x 21 voxels of 3 mm are square; side views have y across, z up.
        const bool slice = alt.rfind("slice", 0) == 0, side = alt.rfind("side", 0) == 0;
        slices += slice;
        sides += side;
        EXPECT_TRUE(!slice || (w == h && w % kNx == 0)) << alt;
        EXPECT_TRUE(!side || (w % kNy == 0 && w / kNy * kNz == h)) << alt;
    }
    EXPECT_GE(pictures, 3 * 9 + 3 * 3 + 2);
    EXPECT_GE(slices, 3 * 9);
    EXPECT_EQ(sides, 3);

    // Bad input: one error line, no page and no temporary file left.
    const std::string d = dir.path();
    run_command(
        "mkdir -p empty grid && printf 'x 5\\ny 5\\nz 5\\nt 1\\n' > grid/bg.hdr && "
        "head -c 500 /dev/zero > grid/bg.bfloat",
        d);
    const struct {
        std::string args, message, folder;
    } cases[] = {
        {"empty", "Error: no results in empty", "empty"},
        {"--threshold abc results", "Error: the threshold 'abc' is not a number", "results"},
        {"--min-cluster 2.5 results", "Error: the smallest cluster '2.5'", "results"},
        {"-b grid/bg.bfloat results",
         "Error: the background image grid/bg.bfloat is not on the grid", "results"},
    };
    run_command("rm -f results/report.html", d);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.args);
        r = run_command(shell_quote(kReport) + " " + c.args, d);
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err.rfind(c.message, 0), 0u) << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
        EXPECT_FALSE(file_exists(d + "/" + c.folder + "/report.html"));
        EXPECT_EQ(run_command("ls -a " + c.folder + " | grep -c tmp", d).out, "0\n");
    }
}

}  // namespace
