// Regularisation of the random-effects variance: the ratio of total to
// fixed variance is smoothed with an isotropic Gaussian, applied in k-space
// through one-dimensional FFTs along each axis.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fftw3.h>

#include "driver.h"
#include "rem.h"
#include "util.h"

namespace {

// Square of 2.355 / (2 pi): turns a full width at half maximum into the
// width of the Gaussian in k-space.
const double kWidthFactor = 0.1404824543408127;

// Kernel factors along one axis of n samples of size d: the k-space
// Gaussian sampled half a sample off the centre of every bin.
void axis_kernel(int n, float d, float q, float *factor) {
    float a = d * d * static_cast<float>(n) * static_cast<float>(n) * q;
    for (int x = 0; x < n; ++x) {
        float k = static_cast<float>((x - n / 2) + 0.5);
        factor[x] = static_cast<float>(std::exp(static_cast<double>(k * k) / -2.0 / a));
    }
}

}  // namespace

int create_simple_data_stack(data_stack *stack, int nx, int ny, int nz, int nt, float dx, float dy,
                             float dz, int is_complex) {
    std::memset(stack, 0, sizeof(*stack));
    stack->nx = nx;
    stack->ny = ny;
    stack->nz = nz;
    stack->resolution[0] = dx;
    stack->resolution[1] = dy;
    stack->resolution[2] = dz;
    for (int a = 0; a < 3; ++a) {
        stack->origin[a] = 0.0f;
        stack->direction[a] = 1.0f;
    }
    stack->field_of_view[0] = static_cast<float>(nx) * dx;
    stack->field_of_view[1] = static_cast<float>(ny) * dy;
    stack->field_of_view[2] = static_cast<float>(nz) * dz;
    stack->time_resolution = 1.0f;
    stack->nt = nt;
    stack->nxy = nx * ny;
    stack->nxyz = stack->nxy * nz;
    stack->nxyzt = stack->nxyz * nt;
    stack->is_complex = is_complex != 0;
    stack->nvalues = is_complex ? 2 * stack->nxyz : stack->nxyz;
    // Room for every frame, so that a stack of several frames can be indexed.
    uint32_t count = static_cast<uint32_t>(stack->nvalues) * static_cast<uint32_t>(nt > 1 ? nt : 1);
    if (is_complex) {
        stack->data = fcomplex_vector(count);
    } else {
        stack->data = float_vector(count);
    }
    return 0;
}

int index4d_stack(int x, int y, int z, int t, data_stack *stack) {
    if (x >= 0 && x < stack->nx && y >= 0 && y < stack->ny && z >= 0 && z < stack->nz && t >= 0 &&
        t < stack->nt) {
        return t * stack->nxyz + z * stack->nxy + y * stack->nx + x;
    }
    std::printf("Programming error: index out of range in index4d_stack.\n");
    std::printf("(x,y,z,t) = (%d,%d,%d,%d)\n", x, y, z, t);
    std::exit(1);
}

void swap_x(fcomplex *line, int n, int back) {
    int h = n / 2;
    if (n % 2 == 0) {
        for (int k = 0; k < h; ++k) {
            fcomplex keep = line[k];
            line[k] = line[k + h];
            line[k + h] = keep;
        }
        return;
    }
    fcomplex *copy = fcomplex_vector(static_cast<uint32_t>(n));
    for (int k = 0; k < n; ++k) copy[k] = line[k];
    for (int k = 0; k < n; ++k) {
        int to = k + h + back;
        if (to >= n) to -= n;
        line[to] = copy[k];
    }
    free_fcomplex_vector(copy);
}

float compute_amplitude(float re, float im) {
    float sum = re * re + im * im;
    return static_cast<float>(std::sqrt(static_cast<double>(sum)));
}

float compute_phase(float re, float im) {
    if (re == 0.0f) {
        if (im == 0.0f) return 0.0f;
        return im > 0.0f ? 1.5707964f : -1.5707964f;
    }
    double ph = std::atan(static_cast<double>(im / re));
    if (re < 0.0f) ph += 3.141592654;
    if (ph > 3.141592654) ph -= 6.283185308;
    return static_cast<float>(ph);
}

namespace {

// FFTW_MEASURE chooses among equivalent algorithms by timing them, so two
// runs may transform with different roundings in their last bits.  When
// FMRI_REM_FFTW_WISDOM names a file, the plans are taken from it where it
// has them and written back to it, so that runs which share the file
// transform alike (the tests that compare runs bit for bit use it).
fftw_plan measured_plan(int n, fftw_complex *buffer, int sign) {
    const char *wisdom = std::getenv("FMRI_REM_FFTW_WISDOM");
    if (wisdom != nullptr && wisdom[0] != '\0') fftw_import_wisdom_from_filename(wisdom);
    fftw_plan plan = fftw_plan_dft_1d(n, buffer, buffer, sign, FFTW_MEASURE);
    if (wisdom != nullptr && wisdom[0] != '\0') fftw_export_wisdom_to_filename(wisdom);
    return plan;
}

}  // namespace

int ft_1d(int axis, int direction, data_stack *stack) {
    // Line length and the two axes the lines run over (outer, inner).
    int n = 0;
    int outer = 0;
    int inner = 0;
    switch (axis) {
        case 1:
            n = stack->nx;
            outer = stack->ny;
            inner = stack->nz;
            break;
        case 2:
            n = stack->ny;
            outer = stack->nx;
            inner = stack->nz;
            break;
        default:
            n = stack->nz;
            outer = stack->nx;
            inner = stack->ny;
            break;
    }
    const float scale = direction == 1 ? static_cast<float>(n) : 1.0f;
    const int sign = direction == 1 ? FFTW_FORWARD : FFTW_BACKWARD;

    fcomplex *data = static_cast<fcomplex *>(stack->data);
    fcomplex *line = fcomplex_vector(static_cast<uint32_t>(n));
    fftw_complex *buffer =
        static_cast<fftw_complex *>(fftw_malloc(sizeof(fftw_complex) * static_cast<size_t>(n)));
    fftw_plan plan = nullptr;

    for (int t = 0; t < stack->nt; ++t) {
        for (int a = 0; a < outer; ++a) {
            for (int b = 0; b < inner; ++b) {
                // Voxel of the line's element k.
                auto element = [&](int k) {
                    switch (axis) {
                        case 1:
                            return index4d_stack(k, a, b, t, stack);
                        case 2:
                            return index4d_stack(a, k, b, t, stack);
                        default:
                            return index4d_stack(a, b, k, t, stack);
                    }
                };
                for (int k = 0; k < n; ++k) line[k] = data[element(k)];
                // Planning may overwrite the buffer, so it happens before
                // the line is copied in.
                if (plan == nullptr) plan = measured_plan(n, buffer, sign);
                swap_x(line, n, 0);
                for (int k = 0; k < n; ++k) {
                    buffer[k][0] = static_cast<double>(line[k].r);
                    buffer[k][1] = static_cast<double>(line[k].i);
                }
                fftw_execute(plan);
                for (int k = 0; k < n; ++k) {
                    line[k].r = static_cast<float>(buffer[k][0]);
                    line[k].i = static_cast<float>(buffer[k][1]);
                }
                swap_x(line, n, 1);
                for (int k = 0; k < n; ++k) {
                    fcomplex &v = data[element(k)];
                    v.r = line[k].r / scale;
                    v.i = line[k].i / scale;
                }
            }
        }
    }

    free_fcomplex_vector(line);
    if (plan != nullptr) fftw_destroy_plan(plan);
    fftw_free(buffer);
    return 0;
}

int smooth_or_sharpen_isotropic(int sharpen, float fwhm, data_stack *stack) {
    // Complex copy of the real data.
    data_stack work = *stack;
    work.is_complex = 1;
    work.nvalues = 2 * stack->nxyz;
    const uint32_t count = static_cast<uint32_t>(stack->nxyzt);
    fcomplex *values = fcomplex_vector(count);
    work.data = values;
    const float *real = static_cast<const float *>(stack->data);
    for (uint32_t i = 0; i < count; ++i) {
        values[i].r = real[i];
        values[i].i = 0.0f;
    }

    ft_1d(1, -1, &work);
    ft_1d(2, -1, &work);
    ft_1d(3, -1, &work);

    const float q = static_cast<float>(kWidthFactor / fwhm / fwhm);
    float *gx = float_vector(static_cast<uint32_t>(work.nx));
    float *gy = float_vector(static_cast<uint32_t>(work.ny));
    float *gz = float_vector(static_cast<uint32_t>(work.nz));
    for (int t = 0; t < work.nt; ++t) {
        axis_kernel(work.nx, work.resolution[0], q, gx);
        axis_kernel(work.ny, work.resolution[1], q, gy);
        axis_kernel(work.nz, work.resolution[2], q, gz);
        for (int z = 0; z < work.nz; ++z) {
            for (int y = 0; y < work.ny; ++y) {
                for (int x = 0; x < work.nx; ++x) {
                    float g = gx[x] * gy[y] * gz[z];
                    if (sharpen != 0) g = 1 - g;
                    fcomplex &v = values[index4d_stack(x, y, z, t, &work)];
                    v.r = v.r * g;
                    v.i = v.i * g;
                }
            }
        }
    }
    free_float_vector(gx);
    free_float_vector(gy);
    free_float_vector(gz);

    ft_1d(1, 1, &work);
    ft_1d(2, 1, &work);
    ft_1d(3, 1, &work);

    // The result is the modulus of the back-transformed values.
    float *out = static_cast<float *>(stack->data);
    for (uint32_t i = 0; i < count; ++i) {
        float amp = compute_amplitude(values[i].r, values[i].i);
        if (amp < 0.0f)
            std::printf("amp[%d] = %g\n", static_cast<int>(i), static_cast<double>(amp));
        (void)compute_phase(values[i].r, values[i].i);
        out[i] = amp;
    }
    free_fcomplex_vector(values);
    return 0;
}

int regularize_random_effects(void) {
    data_stack stack;
    create_simple_data_stack(&stack, file_list_root.nx, file_list_root.ny, file_list_root.nz, 1,
                             file_list_root.resolution[0], file_list_root.resolution[1],
                             file_list_root.resolution[2], 0);
    float *ratio = static_cast<float *>(stack.data);
    const int nvoxels = stack.nxyz;
    for (int i = 0; i < nvoxels; ++i) {
        float fe = Sigma2_FE_map[i];
        if (fe != 0.0f) {
            ratio[i] = static_cast<float>(static_cast<double>(Sigma2_RE_map[i] / fe) + 1.0);
        } else {
            ratio[i] = 0.0f;
        }
    }
    std::printf("\nsmoothing variance ratio\n");
    smooth_or_sharpen_isotropic(0, REM_input.ratio_smoothing, &stack);
    if (REM_input.smoothness_method == REM_SMOOTHNESS_ESTIMATED) {
        // Smoothed over the analysed voxels only: the ratio is divided by the
        // smoothed share of analysed voxels around each voxel, so that the
        // zeros outside do not pull it down near the edge of the data.
        data_stack share;
        create_simple_data_stack(&share, stack.nx, stack.ny, stack.nz, 1, stack.resolution[0],
                                 stack.resolution[1], stack.resolution[2], 0);
        float *weight = static_cast<float *>(share.data);
        for (int i = 0; i < nvoxels; ++i) weight[i] = Sigma2_FE_map[i] != 0.0f ? 1.0f : 0.0f;
        smooth_or_sharpen_isotropic(0, REM_input.ratio_smoothing, &share);
        for (int i = 0; i < nvoxels; ++i)
            if (Sigma2_FE_map[i] != 0.0f && weight[i] > 0.0f) ratio[i] /= weight[i];
        free_float_vector(weight);
    }
    for (int i = 0; i < nvoxels; ++i) {
        float fe = Sigma2_FE_map[i];
        Sigma2_RE_map[i] = std::fabs(ratio[i] * fe - fe);
    }
    free_float_vector(ratio);
    return 0;
}
