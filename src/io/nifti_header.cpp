// NIfTI-1 headers: reading ".nii" files and ".img"/".hdr" pairs, and writing
// a ".nii" result header with the degrees-of-freedom extension.
#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "io.h"
#include "io_internal.h"

static_assert(sizeof(nifti_1_header) == 348, "the NIfTI-1 header is 348 bytes");

namespace {

// Extension code of the degrees-of-freedom extension.
const int32_t dof_extension_code = 20;
// vox_offset of every written file.
const float written_vox_offset = 368.0f;

// Reverses the bytes of every numeric field of a header written on a
// machine of the other byte order.
void swap_nifti_header(nifti_1_header *h) {
    swap_32(&h->sizeof_hdr);
    swap_32(&h->extents);
    swap_16(&h->session_error);
    for (int i = 0; i < 8; ++i) swap_16(&h->dim[i]);
    swap_32(&h->intent_p1);
    swap_32(&h->intent_p2);
    swap_32(&h->intent_p3);
    swap_16(&h->intent_code);
    swap_16(&h->datatype);
    swap_16(&h->bitpix);
    swap_16(&h->slice_start);
    for (int i = 0; i < 8; ++i) swap_32(&h->pixdim[i]);
    swap_32(&h->vox_offset);
    swap_32(&h->scl_slope);
    swap_32(&h->scl_inter);
    swap_16(&h->slice_end);
    swap_32(&h->cal_max);
    swap_32(&h->cal_min);
    swap_32(&h->slice_duration);
    swap_32(&h->toffset);
    swap_32(&h->glmax);
    swap_32(&h->glmin);
    swap_16(&h->qform_code);
    swap_16(&h->sform_code);
    swap_32(&h->quatern_b);
    swap_32(&h->quatern_c);
    swap_32(&h->quatern_d);
    swap_32(&h->qoffset_x);
    swap_32(&h->qoffset_y);
    swap_32(&h->qoffset_z);
    for (int i = 0; i < 4; ++i) {
        swap_32(&h->srow_x[i]);
        swap_32(&h->srow_y[i]);
        swap_32(&h->srow_z[i]);
    }
}

// The NIfTI datatypes that can be read, with their storage codes; complex
// data are pairs of floats.
const struct {
    short datatype;
    int storage;
    bool complex;
} datatypes[] = {{DT_UNSIGNED_CHAR, STORAGE_UCHAR, false}, {DT_SIGNED_SHORT, STORAGE_BSHORT, false},
                 {DT_UINT16, STORAGE_USHORT, false},       {DT_SIGNED_INT, STORAGE_BLONG, false},
                 {DT_FLOAT, STORAGE_BFLOAT, false},        {DT_COMPLEX, STORAGE_BFLOAT, true}};

}  // namespace

extern "C" {

int read_nifti_header(char *name, volume_header *header) {
    char path[IO_NAME_LENGTH];
    if (header->storage_type == STORAGE_NIFTI_PAIR) {
        int code;
        if (replace_extension(name, &code, "hdr", path) != 0) return 1;
    } else if (!io_internal::join_name(name, strlen(name), "", path, sizeof path)) {
        printf("Error: the file name %.60s... is too long (at most %d characters).\n", name,
               IO_NAME_LENGTH - 1);
        return 1;
    }

    FILE *file = fopen(path, "rb");
    if (file == nullptr) {
        printf("Error: cannot open Nifti file %s.\n", path);
        return 1;
    }

    nifti_1_header h;
    if (fread(&h, sizeof h, 1, file) != 1) {
        fprintf(stderr, "\nError reading header file %s\n", path);
        fclose(file);
        return 1;
    }

    // The extender's first byte tells whether an extension follows; only
    // the first extension is looked at.  Its numbers are taken as they lie.
    // A short extender is not an error: the bytes present count, and a file
    // that ends at the header has none.
    unsigned char extender[4] = {0, 0, 0, 0};
    (void)!fread(extender, 1, 4, file);
    if (extender[0] != 0) {
        int32_t esize;
        int32_t ecode;
        if (fread(&esize, sizeof esize, 1, file) != 1) {
            printf("Error: A NIFTI1 extension was indicated, but it is missing.\n");
            fclose(file);
            return 1;
        }
        if (fread(&ecode, sizeof ecode, 1, file) != 1) {
            printf("Error: A NIFTI1 extension was indicated, but the ecode is missing.\n");
            fclose(file);
            return 1;
        }
        if (ecode == dof_extension_code) {
            int32_t dof;
            if (fread(&dof, sizeof dof, 1, file) != 1) {
                printf("Error read degrees of freedom.\n");
                fclose(file);
                return 1;
            }
            header->degrees_of_freedom = dof;
        }
    }
    fclose(file);

    // dim[0] outside 1..7 means the header was written in the other byte
    // order.
    if (h.dim[0] < 1 || h.dim[0] > 7) swap_nifti_header(&h);

    header->nx = h.dim[1];
    header->ny = h.dim[2];
    header->nz = h.dim[3];
    if (h.dim[0] > 4) {
        printf("Error: tov does not currently handle data of dimensionality (%d) > 4.\n", h.dim[0]);
        return 1;
    }
    header->nt = h.dim[0] == 4 ? h.dim[4] : 1;

    for (int i = 0; i < 3; ++i) header->resolution[i] = h.pixdim[i + 1];
    header->time_resolution = h.pixdim[4];
    header->scale_slope = h.scl_slope;
    header->scale_intercept = h.scl_inter;
    header->qfac = h.pixdim[0];
    header->quatern_b = h.quatern_b;
    header->quatern_c = h.quatern_c;
    header->quatern_d = h.quatern_d;

    bool known = false;
    for (const auto &type : datatypes) {
        if (h.datatype != type.datatype) continue;
        known = true;
        header->header_storage_type = type.storage;
        if (type.complex) header->data_type = 1;
        break;
    }
    if (!known) {
        printf("Error: the Nifti data storage type %d is not supported.\n", h.datatype);
        return 1;
    }

    header->data_offset = h.vox_offset;

    if (!io_internal::dimensions_found(header, path, true)) return 1;

    int method;
    if (h.qform_code == 0) {
        method = 1;
        for (int i = 0; i < 3; ++i) header->origin[i] = 0.0f;
        header->voxel_to_space =
            io_internal::scale_and_shift(header->resolution, header->origin, header->direction);
    } else if (h.sform_code == 0) {
        method = 2;
        header->voxel_to_space =
            nifti_quatern_to_mat44(h.quatern_b, h.quatern_c, h.quatern_d, h.qoffset_x, h.qoffset_y,
                                   h.qoffset_z, h.pixdim[1], h.pixdim[2], h.pixdim[3], h.pixdim[0]);
    } else {
        method = 3;
        header->voxel_to_space = general_affine_to_mat44(h.srow_x, h.srow_y, h.srow_z);
    }

    const mat44 &m = header->voxel_to_space;
    for (int i = 0; i < 3; ++i) {
        header->origin[i] = m.m[i][3];
        header->direction[i] = m.m[i][i] > 0.0f ? 1.0f : -1.0f;
    }
    header->oblique = 0;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            if (i != j && (m.m[i][j] != 0.0f || isnan(m.m[i][j]))) header->oblique = 1;

    switch (method) {
        case 1:
            printf("The NIFTI header for file %s uses Method 1: the old analyze format\n", name);
            break;
        case 2:
            printf("The NIFTI header for file %s uses Method 2: quaternion rotations\n", name);
            break;
        default:
            printf(
                "The NIFTI header for file %s uses Method 3: affine transformation of voxel "
                "indices\n",
                name);
            break;
    }
    return 0;
}

int write_nifti_header(int with_dof_extension, int frames, int dof, const char *stem,
                       FILE **stream) {
    const io_internal::output_geometry &g = io_internal::output;
    *stream = nullptr;

    mat44 m = io_internal::scale_and_shift(g.resolution, g.origin, g.direction);
    float qb, qc, qd, qx, qy, qz, dx, dy, dz, qfac;
    nifti_mat44_to_quatern(m, &qb, &qc, &qd, &qx, &qy, &qz, &dx, &dy, &dz, &qfac);

    // Every field not set below, the text fields included, is zero.
    nifti_1_header h;
    memset(&h, 0, sizeof h);
    h.sizeof_hdr = 348;
    h.dim[0] = 4;
    h.dim[1] = static_cast<short>(g.nx);
    h.dim[2] = static_cast<short>(g.ny);
    h.dim[3] = static_cast<short>(g.nz);
    h.dim[4] = static_cast<short>(frames);
    h.dim[5] = 1;
    h.dim[6] = 1;
    h.dim[7] = 1;
    h.datatype = DT_FLOAT;
    h.bitpix = 32;
    h.pixdim[0] = qfac;
    h.pixdim[1] = g.resolution[0];
    h.pixdim[2] = g.resolution[1];
    h.pixdim[3] = g.resolution[2];
    h.vox_offset = written_vox_offset;
    h.xyzt_units = NIFTI_UNITS_MM;
    h.regular = 'r';
    h.qform_code = NIFTI_XFORM_SCANNER_ANAT;
    h.sform_code = 0;
    h.quatern_b = qb;
    h.quatern_c = qc;
    h.quatern_d = qd;
    h.qoffset_x = qx;
    h.qoffset_y = qy;
    h.qoffset_z = qz;
    h.srow_x[0] = g.resolution[0] * g.direction[0];
    h.srow_x[3] = g.origin[0];
    h.srow_y[1] = g.resolution[1] * g.direction[1];
    h.srow_y[3] = g.origin[1];
    h.srow_z[2] = g.resolution[2] * g.direction[2];
    h.srow_z[3] = g.origin[2];
    memcpy(h.magic, "n+1\0", 4);

    char name[IO_NAME_LENGTH];
    if (!io_internal::output_name(stem, ".nii", name)) return 1;
    *stream = fopen(name, "wb");
    if (*stream == nullptr) {
        printf("Error: cannot open the header file %s.\n", name);
        return 1;
    }
    if (fwrite(&h, sizeof h, 1, *stream) != 1) {
        printf("Error writing the NIFTI header into file %s\n", name);
        return 1;
    }
    unsigned char extender[4] = {static_cast<unsigned char>(with_dof_extension ? 1 : 0), 0, 0, 0};
    if (fwrite(extender, 1, 4, *stream) != 4) {
        fprintf(stderr, "\nError writing header file extension pad %s\n", name);
        return 1;
    }
    if (with_dof_extension) {
        const int32_t extension[4] = {16, dof_extension_code, dof, 0};
        if (fwrite(extension, sizeof extension[0], 4, *stream) != 4) {
            fprintf(stderr, "\nError writing nifti header extension for DOF %s\n", name);
            return 1;
        }
    }
    return 0;
}

}  // extern "C"
