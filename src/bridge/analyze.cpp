// Analyze 7.5 images: where they lie in space and how their values are
// scaled, as SPM2 and nibabel read them.
#include <nifti1_io.h>
#include <znzlib.h>

#include <cmath>
#include <cstdint>
#include <cstring>

#include "first_level.h"

namespace bridge {

namespace {

// Byte offsets in the 348-byte Analyze 7.5 header.
const int kSizeofHdr = 0, kPixdim = 76, kSlope = 112, kInter = 116, kCalMax = 124, kCalMin = 128,
          kGlMax = 140, kGlMin = 144, kOrient = 252, kOriginator = 253;

struct raw_header {
    unsigned char bytes[348];
    bool swap = false;
    template <typename T>
    T get(int offset) const {
        unsigned char b[sizeof(T)];
        std::memcpy(b, bytes + offset, sizeof(T));
        if (swap)
            for (size_t k = 0; k < sizeof(T) / 2; ++k) std::swap(b[k], b[sizeof(T) - 1 - k]);
        T v;
        std::memcpy(&v, b, sizeof(T));
        return v;
    }
};

raw_header read_raw(const std::string &header_file, const std::string &shown) {
    raw_header h;
    znzFile f = znzopen(header_file.c_str(), "rb", nifti_is_gzfile(header_file.c_str()));
    bool ok = !znz_isnull(f);
    if (ok) {
        ok = znzread(h.bytes, 1, sizeof h.bytes, f) == sizeof h.bytes;
        znzclose(f);
    }
    if (!ok) throw failure("cannot read the Analyze header of " + shown);
    if (h.get<int32_t>(kSizeofHdr) != 348) h.swap = true;
    if (h.get<int32_t>(kSizeofHdr) != 348)
        throw failure(shown + " has no 348-byte Analyze 7.5 header");
    return h;
}

// The file name without .hdr/.img (and .gz), for the SPM .mat beside it.
std::string stem(const std::string &path) {
    std::string s = path;
    if (s.size() > 3 && s.compare(s.size() - 3, 3, ".gz") == 0) s.erase(s.size() - 3);
    if (s.size() > 4 &&
        (s.compare(s.size() - 4, 4, ".hdr") == 0 || s.compare(s.size() - 4, 4, ".img") == 0))
        s.erase(s.size() - 4);
    return s;
}

}  // namespace

analyze_layout read_analyze_layout(const std::string &header_file, const std::string &shown,
                                   const int dims[3]) {
    const std::string mat = stem(header_file) + ".mat";
    if (is_file(mat))
        throw failure(shown + " is an Analyze 7.5 image with an SPM " + mat +
                      " beside it, whose voxel-to-world matrix overrides the header's origin "
                      "and voxel sizes; convert the image to NIfTI (e.g. with SPM) or remove "
                      "the .mat if the header is right");
    const raw_header h = read_raw(header_file, shown);
    const int orient = h.bytes[kOrient];
    if (orient != 0)
        throw failure(shown + " is an Analyze 7.5 image whose orient field is " +
                      std::to_string(orient) +
                      " (not transverse unflipped), which SPM and nibabel ignore but other "
                      "readers apply; convert it to NIfTI");
    analyze_layout a;
    a.affine[3][3] = 1;
    double zoom[3], origin[3];
    int given = 0, inside = 0;
    for (int k = 0; k < 3; ++k) {
        zoom[k] = h.get<float>(kPixdim + 4 * (k + 1));
        if (!(zoom[k] > 0) || !std::isfinite(zoom[k]))
            throw failure(shown + " is an Analyze 7.5 image whose voxel size " +
                          std::to_string(k + 1) + " (pixdim) is not a positive number");
        const double o = h.get<int16_t>(kOriginator + 2 * k);
        origin[k] = o;
        given += o != 0;
        inside += o > -dims[k] && o < 2.0 * dims[k];
    }
    if (given > 0 && inside < 3)
        throw failure(shown + " is an Analyze 7.5 image whose origin (originator field " +
                      std::to_string(static_cast<int>(origin[0])) + " " +
                      std::to_string(static_cast<int>(origin[1])) + " " +
                      std::to_string(static_cast<int>(origin[2])) +
                      ") lies far outside its voxels; SPM and nibabel would place it "
                      "differently, so convert it to NIfTI");
    zoom[0] = -zoom[0];  // x flipped: stored right to left
    for (int k = 0; k < 3; ++k) {
        // The originator counts voxels from 1; without one, the centre is at 0 mm.
        const double o = given > 0 ? origin[k] - 1.0 : (dims[k] - 1) / 2.0;
        a.affine[k][k] = zoom[k];
        a.affine[k][3] = -o * zoom[k];
    }

    // Scaling as SPM2: funused1 is the slope and funused2 the offset; without
    // a slope, the one that maps glmin..glmax onto cal_min..cal_max.
    const double slope = h.get<float>(kSlope), inter = h.get<float>(kInter);
    const double cal_max = h.get<float>(kCalMax), cal_min = h.get<float>(kCalMin);
    const double gl_max = h.get<int32_t>(kGlMax), gl_min = h.get<int32_t>(kGlMin);
    if (slope != 0 && std::isfinite(slope)) {
        a.slope = slope;
        a.inter = std::isfinite(inter) ? inter : 0.0;
    } else if (gl_max != gl_min && cal_max != cal_min && std::isfinite(cal_max) &&
               std::isfinite(cal_min)) {
        a.slope = (cal_max - cal_min) / (gl_max - gl_min);
        a.inter = cal_min - a.slope * gl_min;
    }
    return a;
}

}  // namespace bridge
