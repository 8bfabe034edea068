// Opening result volumes: the header (native text, or NIfTI-1 on request)
// and the raw float data stream.
#include <stdio.h>
#include <string.h>

#include "io.h"
#include "io_internal.h"

namespace io_internal {

output_geometry output = {0, 0, 0, {1.0f, 1.0f, 1.0f}, {0.0f, 0.0f, 0.0f}, {1.0f, 1.0f, 1.0f},
                          0, 0};

bool output_name(const char *stem, const char *extension, char *name) {
    if (join_name(stem, strlen(stem), extension, name, IO_NAME_LENGTH)) return true;
    printf("Error: the output file name %.60s...%s is too long (at most %d characters)\n", stem,
           extension, IO_NAME_LENGTH - 1);
    return false;
}

}  // namespace io_internal

extern "C" {

void set_output_geometry(int nx, int ny, int nz, const float *resolution, const float *origin,
                         const float *direction, int nifti_output) {
    io_internal::output_geometry &g = io_internal::output;
    g.nx = nx;
    g.ny = ny;
    g.nz = nz;
    for (int i = 0; i < 3; ++i) {
        g.resolution[i] = resolution[i];
        g.origin[i] = origin[i];
        g.direction[i] = direction[i];
    }
    g.nifti_output = nifti_output;
    g.set = 1;
}

int open_output_file(int with_dof_extension, int frames, int dof, const char *stem, FILE **stream) {
    const io_internal::output_geometry &g = io_internal::output;
    if (!g.set) {
        printf("Programming error: the output geometry is not known before %s is opened.\n", stem);
        *stream = nullptr;
        return 1;
    }
    if (g.nifti_output) {
        // Failures of the NIfTI writer are reported by it and not passed
        // on, except when no data stream could be opened at all.
        write_nifti_header(with_dof_extension, frames, dof, stem, stream);
        return *stream == nullptr ? 1 : 0;
    }

    char name[IO_NAME_LENGTH];
    if (!io_internal::output_name(stem, ".hdr", name)) return 1;
    FILE *header = fopen(name, "w");
    if (header == nullptr) {
        printf("Error: cannot open the output file %s\n", name);
        return 1;
    }
    fprintf(header, "x %d\ny %d\nz %d\nt %d\nbyte-order %d\n", g.nx, g.ny, g.nz, frames, 1);
    fprintf(header, "resolution %g %g %g\n", static_cast<double>(g.resolution[0]),
            static_cast<double>(g.resolution[1]), static_cast<double>(g.resolution[2]));
    fprintf(header, "origin %g %g %g\n", static_cast<double>(g.origin[0]),
            static_cast<double>(g.origin[1]), static_cast<double>(g.origin[2]));
    fprintf(header, "direction %g %g %g\n", static_cast<double>(g.direction[0]),
            static_cast<double>(g.direction[1]), static_cast<double>(g.direction[2]));
    fprintf(header, "degrees-of-freedom %d\n", dof);
    fclose(header);

    if (!io_internal::output_name(stem, ".bfloat", name)) return 1;
    *stream = fopen(name, "wb");
    if (*stream == nullptr) {
        printf("Error: cannot open the output file %s\n", name);
        return 1;
    }
    return 0;
}

}  // extern "C"
