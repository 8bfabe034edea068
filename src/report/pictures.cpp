// Pictures: PNG encoding through libpng, data URIs, and the colour maps.
#include <png.h>

#include <algorithm>
#include <cmath>

#include "report_internal.h"

namespace report {

namespace {

void append_to_string(png_structp png, png_bytep data, png_size_t length) {
    static_cast<std::string *>(png_get_io_ptr(png))->append(reinterpret_cast<char *>(data), length);
}

void flush_nothing(png_structp) {}

uint8_t to_byte(double linear) {
    // sRGB transfer curve, then 0..255.
    double c = linear <= 0.0031308 ? 12.92 * linear : 1.055 * std::pow(linear, 1 / 2.4) - 0.055;
    return static_cast<uint8_t>(std::lround(std::clamp(c, 0.0, 1.0) * 255.0));
}

// CIELAB (D65) to sRGB, channels clipped to the gamut.
rgb from_lab(double l, double a, double b) {
    double fy = (l + 16.0) / 116.0, fx = fy + a / 500.0, fz = fy - b / 200.0;
    auto inverse = [](double t) {
        return t > 6.0 / 29.0 ? t * t * t : 3 * 36.0 / 841.0 * (t - 4.0 / 29.0);
    };
    double x = 0.95047 * inverse(fx), y = inverse(fy), z = 1.08883 * inverse(fz);
    double r = 3.2406 * x - 1.5372 * y - 0.4986 * z;
    double g = -0.9689 * x + 1.8758 * y + 0.0415 * z;
    double bl = 0.0557 * x - 0.2040 * y + 1.0570 * z;
    return rgb{to_byte(r), to_byte(g), to_byte(bl)};
}

struct lab {
    double l, a, b;
};

// Linear interpolation through evenly spaced control points, s in [0, 1].
lab along(const lab *points, int count, double s) {
    s = std::clamp(s, 0.0, 1.0) * (count - 1);
    int k = std::min(static_cast<int>(s), count - 2);
    double u = s - k;
    const lab &p = points[k], &q = points[k + 1];
    return lab{p.l + u * (q.l - p.l), p.a + u * (q.a - p.a), p.b + u * (q.b - p.b)};
}

}  // namespace

bool encode_png(const image &im, std::string *out) {
    out->clear();
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    if (png == nullptr) return false;
    png_infop info = png_create_info_struct(png);
    if (info == nullptr || setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        return false;
    }
    png_set_write_fn(png, out, append_to_string, flush_nothing);
    png_set_compression_level(png, 9);
    png_set_IHDR(png, info, im.width, im.height, 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    for (int y = 0; y < im.height; ++y) {
        const rgb *row = im.pixels.data() + static_cast<size_t>(y) * im.width;
        png_write_row(png, reinterpret_cast<png_const_bytep>(row));
    }
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    return true;
}

std::string base64(const std::string &bytes) {
    static const char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string s;
    s.reserve((bytes.size() + 2) / 3 * 4);
    for (size_t i = 0; i < bytes.size(); i += 3) {
        uint32_t v = static_cast<uint8_t>(bytes[i]) << 16;
        if (i + 1 < bytes.size()) v |= static_cast<uint8_t>(bytes[i + 1]) << 8;
        if (i + 2 < bytes.size()) v |= static_cast<uint8_t>(bytes[i + 2]);
        s += digits[(v >> 18) & 63];
        s += digits[(v >> 12) & 63];
        s += i + 1 < bytes.size() ? digits[(v >> 6) & 63] : '=';
        s += i + 2 < bytes.size() ? digits[v & 63] : '=';
    }
    return s;
}

// Positive: dark red through orange to pale yellow; negative: dark blue
// through mid blue to pale cyan.  CIELAB lightness rises evenly from 40 at
// the threshold to 95 at the largest value on both sides, so grey print keeps
// the order of strength and every shown voxel is lighter than the background
// (at most 38); the sign is told by hue, blue against red-yellow, the pair
// that all common forms of colour blindness keep apart.
rgb signed_colour(int sign, double s) {
    static const lab positive[] = {{40, 62, 50}, {67.5, 38, 72}, {95, -6, 58}};
    static const lab negative[] = {{40, 22, -62}, {67.5, -12, -44}, {95, -14, -10}};
    lab c = along(sign > 0 ? positive : negative, 3, s);
    return from_lab(c.l, c.a, c.b);
}

// Viridis-like: dark violet, blue, green, yellow; lightness rising evenly.
rgb sequential_colour(double s) {
    static const lab points[] = {
        {15, 45, -40}, {35, 15, -40}, {53, -30, -5}, {72, -50, 45}, {92, -10, 85}};
    lab c = along(points, 5, s);
    return from_lab(c.l, c.a, c.b);
}

rgb background_grey(double s) {
    lab c{6 + 32 * std::clamp(s, 0.0, 1.0), 0, 0};
    return from_lab(c.l, c.a, c.b);
}

view_axes view_of(const bridge::geometry &g) {
    view_axes v;
    bool used[3] = {false, false, false};
    for (int w = 0; w < 3; ++w) {
        int best = -1;
        for (int a = 0; a < 3; ++a)
            if (!used[a] && (best < 0 || std::fabs(g.affine[w][a]) > std::fabs(g.affine[w][best])))
                best = a;
        used[best] = true;
        v.axis[w] = best;
        v.flip[w] = g.affine[w][best] < 0;
    }
    for (int a = 0; a < 3; ++a) {
        double s = 0.0;
        for (int w = 0; w < 3; ++w) s += g.affine[w][a] * g.affine[w][a];
        v.mm[a] = s > 0 ? std::sqrt(s) : 1.0;
    }
    return v;
}

std::string img_tag(const image &im, const std::string &alt, const std::string &css_class) {
    std::string png;
    encode_png(im, &png);
    std::string tag = "<img src=\"data:image/png;base64," + base64(png) + "\" width=\"" +
                      std::to_string(im.width) + "\" height=\"" + std::to_string(im.height) +
                      "\" alt=\"" + html_escape(alt) + "\"";
    if (!css_class.empty()) tag += " class=\"" + css_class + "\"";
    return tag + ">";
}

}  // namespace report
