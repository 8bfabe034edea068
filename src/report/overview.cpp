// The overview picture: per condition the three projections of the
// thresholded map, with captions drawn in a small bitmap font, so that the
// picture explains itself outside the page (for example in the README).
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>

#include "report_internal.h"

namespace report {

namespace {

// 5 x 7 glyphs, one row per number, the leftmost pixel in bit 4.
const std::map<char, std::array<uint8_t, 7>> &font() {
    static const std::map<char, std::array<uint8_t, 7>> glyphs = {
        {'A', {14, 17, 17, 31, 17, 17, 17}}, {'B', {30, 17, 17, 30, 17, 17, 30}},
        {'C', {14, 17, 16, 16, 16, 17, 14}}, {'D', {30, 17, 17, 17, 17, 17, 30}},
        {'E', {31, 16, 16, 30, 16, 16, 31}}, {'F', {31, 16, 16, 30, 16, 16, 16}},
        {'G', {14, 17, 16, 23, 17, 17, 15}}, {'H', {17, 17, 17, 31, 17, 17, 17}},
        {'I', {14, 4, 4, 4, 4, 4, 14}},      {'J', {7, 2, 2, 2, 2, 18, 12}},
        {'K', {17, 18, 20, 24, 20, 18, 17}}, {'L', {16, 16, 16, 16, 16, 16, 31}},
        {'M', {17, 27, 21, 21, 17, 17, 17}}, {'N', {17, 17, 25, 21, 19, 17, 17}},
        {'O', {14, 17, 17, 17, 17, 17, 14}}, {'P', {30, 17, 17, 30, 16, 16, 16}},
        {'Q', {14, 17, 17, 17, 21, 18, 13}}, {'R', {30, 17, 17, 30, 20, 18, 17}},
        {'S', {15, 16, 16, 14, 1, 1, 30}},   {'T', {31, 4, 4, 4, 4, 4, 4}},
        {'U', {17, 17, 17, 17, 17, 17, 14}}, {'V', {17, 17, 17, 17, 17, 10, 4}},
        {'W', {17, 17, 17, 21, 21, 21, 10}}, {'X', {17, 17, 10, 4, 10, 17, 17}},
        {'Y', {17, 17, 10, 4, 4, 4, 4}},     {'Z', {31, 1, 2, 4, 8, 16, 31}},
        {'0', {14, 17, 19, 21, 25, 17, 14}}, {'1', {4, 12, 4, 4, 4, 4, 14}},
        {'2', {14, 17, 1, 2, 4, 8, 31}},     {'3', {31, 2, 4, 2, 1, 17, 14}},
        {'4', {2, 6, 10, 18, 31, 2, 2}},     {'5', {31, 16, 30, 1, 1, 17, 14}},
        {'6', {6, 8, 16, 30, 17, 17, 14}},   {'7', {31, 1, 2, 4, 8, 8, 8}},
        {'8', {14, 17, 17, 14, 17, 17, 14}}, {'9', {14, 17, 17, 15, 1, 2, 12}},
        {'-', {0, 0, 0, 31, 0, 0, 0}},       {'.', {0, 0, 0, 0, 0, 12, 12}},
        {',', {0, 0, 0, 0, 12, 4, 8}},       {':', {0, 12, 12, 0, 12, 12, 0}},
        {'|', {4, 4, 4, 4, 4, 4, 4}},        {'>', {8, 4, 2, 1, 2, 4, 8}},
        {'<', {2, 4, 8, 16, 8, 4, 2}},       {'=', {0, 0, 31, 0, 31, 0, 0}},
        {'(', {2, 4, 8, 8, 8, 4, 2}},        {')', {8, 4, 2, 2, 2, 4, 8}},
        {'/', {0, 1, 2, 4, 8, 16, 0}},       {'+', {0, 4, 4, 31, 4, 4, 0}},
        {' ', {0, 0, 0, 0, 0, 0, 0}},        {'a', {0, 0, 14, 1, 15, 17, 15}},
        {'b', {16, 16, 22, 25, 17, 17, 30}}, {'c', {0, 0, 14, 16, 16, 17, 14}},
        {'d', {1, 1, 13, 19, 17, 17, 15}},   {'e', {0, 0, 14, 17, 31, 16, 14}},
        {'f', {6, 9, 8, 28, 8, 8, 8}},       {'g', {0, 0, 15, 17, 15, 1, 14}},
        {'h', {16, 16, 22, 25, 17, 17, 17}}, {'i', {4, 0, 12, 4, 4, 4, 14}},
        {'j', {2, 0, 6, 2, 2, 18, 12}},      {'k', {16, 16, 18, 20, 24, 20, 18}},
        {'l', {12, 4, 4, 4, 4, 4, 14}},      {'m', {0, 0, 26, 21, 21, 17, 17}},
        {'n', {0, 0, 22, 25, 17, 17, 17}},   {'o', {0, 0, 14, 17, 17, 17, 14}},
        {'p', {0, 0, 30, 17, 30, 16, 16}},   {'q', {0, 0, 15, 17, 15, 1, 1}},
        {'r', {0, 0, 22, 25, 16, 16, 16}},   {'s', {0, 0, 14, 16, 14, 1, 30}},
        {'t', {8, 8, 28, 8, 8, 9, 6}},       {'u', {0, 0, 17, 17, 17, 19, 13}},
        {'v', {0, 0, 17, 17, 17, 10, 4}},    {'w', {0, 0, 17, 17, 21, 21, 10}},
        {'x', {0, 0, 17, 10, 4, 10, 17}},    {'y', {0, 0, 17, 17, 15, 1, 14}},
        {'z', {0, 0, 31, 2, 4, 8, 31}},
    };
    return glyphs;
}

constexpr int kScale = 2, kAdvance = 6 * kScale, kLine = 11 * kScale;

void draw_text(image &im, int x, int y, const std::string &text, rgb ink) {
    for (char c : text) {
        auto g = font().find(c);
        if (g != font().end())
            for (int row = 0; row < 7; ++row)
                for (int col = 0; col < 5; ++col)
                    if (g->second[row] & (16 >> col))
                        for (int dy = 0; dy < kScale; ++dy)
                            for (int dx = 0; dx < kScale; ++dx) {
                                int px = x + col * kScale + dx, py = y + row * kScale + dy;
                                if (px >= 0 && py >= 0 && px < im.width && py < im.height)
                                    im.at(px, py) = ink;
                            }
        x += kAdvance;
    }
}

void paste(image &onto, const image &im, int x, int y) {
    for (int r = 0; r < im.height; ++r)
        for (int c = 0; c < im.width; ++c)
            if (x + c < onto.width && y + r < onto.height)
                onto.at(x + c, y + r) = im.pixels[static_cast<size_t>(r) * im.width + c];
}

}  // namespace

image overview_picture(const options &o, const results &r) {
    const view_axes v = view_of(r.geometry);
    const double ppm = pixels_per_mm(r, v, 200.0);
    const int gap = 14, margin = 12;
    const rgb paper{255, 255, 255}, ink{20, 20, 20};
    std::vector<std::vector<image>> rows;
    std::vector<std::string> titles;
    int width = 0, height = margin + 2 * kLine;
    for (const condition_maps &c : r.conditions) {
        statistic_overlay s;
        s.logp = c.logp.data();
        s.shown = &c.cluster_of;
        s.threshold = o.threshold;
        double largest = 0.0;
        for (size_t i = 0; i < r.size(); ++i)
            if (c.cluster_of[i] != 0) largest = std::max(largest, std::fabs(double(c.logp[i])));
        s.largest = largest > o.threshold ? largest : o.threshold + 1.0;
        std::vector<image> views;
        int w = 2 * margin, h = 0;
        for (int along = 0; along < 3; ++along) {
            views.push_back(statistic_projection(r, v, along, s, ppm));
            w += views.back().width + (along ? gap : 0);
            h = std::max(h, views.back().height);
        }
        width = std::max(width, w);
        height += 2 * kLine + h + gap;
        char title[256];
        std::snprintf(title, sizeof title, "condition %s   (largest -log10 p: %.1f)",
                      c.title.c_str(), s.largest);
        titles.push_back(title);
        rows.push_back(views);
    }
    const int bar = 150;
    width = std::max(width, 2 * margin + 2 * bar + 40 * kScale);
    height += 2 * kLine + margin;
    image im(width, height, paper);
    int y = margin;
    char head[128];
    std::snprintf(head, sizeof head, "fmri-rem-report: voxels with p < %g",
                  std::pow(10.0, -o.threshold));
    if (o.min_cluster > 1)
        std::snprintf(head + std::strlen(head), sizeof head - std::strlen(head),
                      " in clusters of %ld or more", o.min_cluster);
    draw_text(im, margin, y, head, ink);
    y += 2 * kLine;
    const char *captions[3] = {"side", "front", "top"};
    for (size_t k = 0; k < rows.size(); ++k) {
        draw_text(im, margin, y, titles[k], ink);
        y += kLine;
        int x = margin, h = 0;
        for (int along = 0; along < 3; ++along) {
            draw_text(im, x, y, captions[along], rgb{90, 90, 90});
            paste(im, rows[k][along], x, y + kLine);
            h = std::max(h, rows[k][along].height);
            x += rows[k][along].width + gap;
        }
        y += kLine + h + gap;
    }
    // The colour bars: negative on the left, positive on the right.
    int x = margin;
    draw_text(im, x, y, "T < 0", ink);
    paste(im, colour_bar(-1, bar, kLine - 6), x + 6 * kAdvance, y);
    x += 6 * kAdvance + bar + 2 * kAdvance;
    draw_text(im, x, y, "T > 0", ink);
    paste(im, colour_bar(1, bar, kLine - 6), x + 6 * kAdvance, y);
    return im;
}

}  // namespace report
