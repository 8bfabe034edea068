// NIfTI-1 through the reference library: one volume of a first-level map in
// (any datatype, scaling applied), statistical maps out (float32 or uint8,
// gzip-compressed, the affine in both qform and sform); and the normal
// quantile of the z maps.
#include <nifti1_io.h>
#include <znzlib.h>

#include <boost/math/distributions/normal.hpp>
#include <cmath>
#include <cstring>
#include <memory>

#include "bridge_internal.h"
#include "first_level.h"

namespace bridge {

namespace {

bool ends_with(const std::string &s, const std::string &end) {
    return s.size() >= end.size() && s.compare(s.size() - end.size(), end.size(), end) == 0;
}

// NIfTI-2 headers open with 540 where NIfTI-1 has 348; this library reads
// only the latter, so say what the file is rather than that it is broken.
void reject_nifti2(const std::string &path) {
    std::string header = path;
    if (ends_with(path, ".img")) header = path.substr(0, path.size() - 3) + "hdr";
    if (ends_with(path, ".img.gz")) header = path.substr(0, path.size() - 6) + "hdr.gz";
    znzFile f = znzopen(header.c_str(), "rb", nifti_is_gzfile(header.c_str()));
    if (znz_isnull(f)) return;
    int32_t size = 0;
    bool read = znzread(&size, 1, sizeof size, f) == sizeof size;
    znzclose(f);
    if (read && (size == 540 || size == 0x1C020000))
        throw failure(path + " is a NIfTI-2 file; save it as NIfTI-1 (348-byte header)");
}

struct nim_free {
    void operator()(nifti_image *nim) const { nifti_image_free(nim); }
};
using nim_ptr = std::unique_ptr<nifti_image, nim_free>;

template <typename T>
void convert(const void *data, size_t n, std::vector<double> *out) {
    const T *v = static_cast<const T *>(data);
    for (size_t i = 0; i < n; ++i) (*out)[i] = static_cast<double>(v[i]);
}

void to_doubles(int datatype, const void *data, size_t n, const std::string &path,
                std::vector<double> *out) {
    out->resize(n);
    switch (datatype) {
        case NIFTI_TYPE_UINT8:
            convert<uint8_t>(data, n, out);
            break;
        case NIFTI_TYPE_INT8:
            convert<int8_t>(data, n, out);
            break;
        case NIFTI_TYPE_INT16:
            convert<int16_t>(data, n, out);
            break;
        case NIFTI_TYPE_UINT16:
            convert<uint16_t>(data, n, out);
            break;
        case NIFTI_TYPE_INT32:
            convert<int32_t>(data, n, out);
            break;
        case NIFTI_TYPE_UINT32:
            convert<uint32_t>(data, n, out);
            break;
        case NIFTI_TYPE_INT64:
            convert<int64_t>(data, n, out);
            break;
        case NIFTI_TYPE_UINT64:
            convert<uint64_t>(data, n, out);
            break;
        case NIFTI_TYPE_FLOAT32:
            convert<float>(data, n, out);
            break;
        case NIFTI_TYPE_FLOAT64:
            convert<double>(data, n, out);
            break;
        default:
            throw failure(path + " holds " + nifti_datatype_string(datatype) +
                          " values; only real numbers can be read");
    }
}

}  // namespace

image read_image(const std::string &path, int volume) {
    if (!is_file(path))
        throw failure("cannot read " + path + (is_dir(path) ? ": a folder" : ": no such file"));
    if (ends_with(path, ".HEAD") || ends_with(path, ".BRIK") || ends_with(path, ".BRIK.gz"))
        throw failure(path + " is an AFNI dataset; convert it with 3dAFNItoNIFTI");
    reject_nifti2(path);
    // Once (the import reads on several threads; the level is the library's global).
    static const bool quiet = (nifti_set_debug_level(0), true);
    (void)quiet;
    nim_ptr head(nifti_image_read(path.c_str(), 0));
    if (!head) throw failure("cannot read " + path + " as a NIfTI-1 image");
    nifti_image *h = head.get();
    // Volumes run along the fourth dimension, or along the fifth when the fourth is 1: AFNI
    // writes the sub-bricks of a bucket (not a time series) that way, as x y z 1 n.
    const int along_t = h->ndim >= 4 && h->nt > 1 ? h->nt : 1;
    const int along_u = h->ndim >= 5 && h->nu > 1 ? h->nu : 1;
    if ((along_t > 1 && along_u > 1) || (h->ndim >= 6 && h->nv > 1) || (h->ndim >= 7 && h->nw > 1))
        throw failure(path + " has more than four dimensions");
    image im;
    im.dims[0] = h->nx;
    im.dims[1] = h->ny > 0 ? h->ny : 1;
    im.dims[2] = h->nz > 0 ? h->nz : 1;
    im.frames = along_t > 1 ? along_t : along_u;
    if (volume < 0 && im.frames > 1)
        throw failure(path + " is 4-D (" + std::to_string(im.frames) +
                      " volumes): give the volume (0-based) as " + path +
                      "[n] or in a column `volume'");
    if (volume >= im.frames)
        throw failure(path + " has " + std::to_string(im.frames) + " volume(s); volume " +
                      std::to_string(volume) + " does not exist" +
                      (im.frames == 1 ? " (a 3-D file: give a volume only to 4-D maps, e.g. in "
                                        "effect_volume rather than in volume, which applies "
                                        "to every map of its row)"
                                      : ""));
    const mat44 &m = h->sform_code > 0 ? h->sto_xyz : h->qto_xyz;
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c) im.affine[r][c] = m.m[r][c];
    im.qform_code = h->qform_code;
    im.sform_code = h->sform_code;
    double slope = h->scl_slope, inter = h->scl_inter;
    if (h->nifti_type == NIFTI_FTYPE_ANALYZE) {
        const analyze_layout a = read_analyze_layout(h->fname, path, im.dims);
        std::memcpy(im.affine, a.affine, sizeof im.affine);
        slope = a.slope;
        inter = a.inter;
        im.analyze = true;
    }

    // The voxels are read here: the library's loader would turn NaN and
    // infinite values into 0, and those mark missing voxels.
    const size_t n = static_cast<size_t>(im.dims[0]) * im.dims[1] * im.dims[2];
    const size_t bytes = n * static_cast<size_t>(h->nbyper);
    std::vector<unsigned char> raw(bytes);
    znzFile f = znzopen(h->iname, "rb", nifti_is_gzfile(h->iname));
    bool ok = !znz_isnull(f);
    if (ok) {
        ok = znzseek(f,
                     static_cast<long>(h->iname_offset) +
                         static_cast<long>(bytes) * (volume > 0 ? volume : 0),
                     SEEK_SET) >= 0 &&
             znzread(raw.data(), 1, bytes, f) == bytes;
        znzclose(f);
    }
    if (!ok) throw failure("cannot read the data of " + path + " (file cut short?)");
    if (h->byteorder != nifti_short_order() && h->swapsize > 1)
        nifti_swap_Nbytes(bytes / h->swapsize, h->swapsize, raw.data());
    to_doubles(h->datatype, raw.data(), n, path, &im.values);
    if (slope != 0.0 && std::isfinite(slope))
        for (double &v : im.values) v = v * slope + (std::isfinite(inter) ? inter : 0.0);
    return im;
}

double affine_difference(const double a[4][4], const double b[4][4]) {
    double d = 0;
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c) d = std::fmax(d, std::fabs(a[r][c] - b[r][c]));
    return d;
}

void write_map(const std::string &path, const geometry &g, const map_header &mh,
               const std::vector<float> &data, const std::vector<uint8_t> &analysed) {
    const size_t n = static_cast<size_t>(g.dims[0]) * g.dims[1] * g.dims[2];
    int dims[8] = {mh.frames > 1 ? 4 : 3, g.dims[0], g.dims[1], g.dims[2], mh.frames, 1, 1, 1};
    nifti_set_debug_level(0);
    nim_ptr nim(nifti_make_new_nim(dims, mh.uint8 ? NIFTI_TYPE_UINT8 : NIFTI_TYPE_FLOAT32, 1));
    if (!nim) throw failure("out of memory for " + path);
    nifti_image *h = nim.get();

    // The affine in both forms, each with the input's code (the other one's,
    // or 2 = aligned to an anatomy, when the input gave none).
    mat44 a;
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c) a.m[r][c] = static_cast<float>(g.affine[r][c]);
    h->sto_xyz = a;
    h->sto_ijk = nifti_mat44_inverse(a);
    int q = g.qform_code > 0 ? g.qform_code : g.sform_code > 0 ? g.sform_code : 2;
    int s = g.sform_code > 0 ? g.sform_code : q;
    h->qform_code = q;
    h->sform_code = s;
    float dx, dy, dz, qfac;
    nifti_mat44_to_quatern(a, &h->quatern_b, &h->quatern_c, &h->quatern_d, &h->qoffset_x,
                           &h->qoffset_y, &h->qoffset_z, &dx, &dy, &dz, &qfac);
    h->qfac = qfac;
    h->dx = h->pixdim[1] = dx;
    h->dy = h->pixdim[2] = dy;
    h->dz = h->pixdim[3] = dz;
    h->qto_xyz = nifti_quatern_to_mat44(h->quatern_b, h->quatern_c, h->quatern_d, h->qoffset_x,
                                        h->qoffset_y, h->qoffset_z, dx, dy, dz, qfac);
    h->qto_ijk = nifti_mat44_inverse(h->qto_xyz);
    h->xyz_units = NIFTI_UNITS_MM;
    h->intent_code = mh.intent_code;
    h->intent_p1 = static_cast<float>(mh.intent_p1);
    h->intent_p2 = static_cast<float>(mh.intent_p2);
    std::strncpy(h->intent_name, mh.intent_name.c_str(), sizeof h->intent_name - 1);
    std::strncpy(h->descrip, mh.descrip.c_str(), sizeof h->descrip - 1);

    float lo = 0, hi = 0;
    bool first = true;
    for (size_t k = 0; k < data.size(); ++k) {
        if (!analysed.empty() && !analysed[k % n]) continue;
        if (first || data[k] < lo) lo = data[k];
        if (first || data[k] > hi) hi = data[k];
        first = false;
    }
    h->cal_min = mh.uint8 ? 0.0f : lo;
    h->cal_max = mh.uint8 ? 1.0f : hi;
    if (mh.uint8) {
        uint8_t *out = static_cast<uint8_t *>(h->data);
        for (size_t k = 0; k < data.size(); ++k) out[k] = data[k] != 0.0f ? 1 : 0;
    } else {
        std::memcpy(h->data, data.data(), data.size() * sizeof(float));
    }

    if (nifti_set_filenames(h, path.c_str(), 0, 1) != 0)
        throw failure("cannot name the output " + path);
    std::remove(path.c_str());
    nifti_image_write(h);
    if (file_size(path) <= 0) {
        std::remove(path.c_str());
        throw failure("cannot write " + path);
    }
}

double z_from_log10p(double log10p) {
    const double L = std::fabs(log10p);
    if (L == 0) return 0;
    using boost::math::complement;
    using boost::math::quantile;
    if (L < 300) {
        using fast = boost::math::policies::policy<boost::math::policies::promote_double<false>>;
        const double half = 0.5 * std::pow(10.0, -L);
        return quantile(complement(boost::math::normal_distribution<double, fast>(), half));
    }
    // Below the range of double: the same quantile in long double, and the
    // asymptotic expansion of the tail past that.
    const long double half = 0.5L * std::pow(10.0L, -static_cast<long double>(L));
    if (half > 0)
        return static_cast<double>(
            quantile(complement(boost::math::normal_distribution<long double>(), half)));
    const double t = 2.0 * (L * std::log(10.0) + std::log(2.0));
    return std::sqrt(t - std::log(t) - std::log(2.0 * M_PI));
}

}  // namespace bridge
