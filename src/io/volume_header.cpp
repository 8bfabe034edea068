// The volume header record: format detection from the file name, the
// derived fields, and the file-name and byte-order utilities shared by the
// header readers.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "io.h"
#include "io_internal.h"
#include "util.h"

namespace io_internal {

bool is_blank_line(const char *line) {
    for (const char *p = line; *p != '\0'; ++p) {
        if (*p != ' ' && *p != '\t' && *p != '\n' && *p != '\r' && *p != '\v' && *p != '\f')
            return false;
    }
    return true;
}

static bool is_space(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

const char *split_statement(const char *line, char *keyword, size_t keyword_size) {
    const char *start = line;
    while (is_space(*start)) ++start;
    const char *end = start;
    while (*end != '\0' && !is_space(*end)) ++end;
    size_t length = static_cast<size_t>(end - start);
    if (length >= keyword_size) length = keyword_size - 1;
    memcpy(keyword, start, length);
    keyword[length] = '\0';
    return next_non_white(end);
}

bool join_name(const char *prefix, size_t prefix_length, const char *suffix, char *result,
               size_t result_size) {
    size_t suffix_length = strlen(suffix);
    if (prefix_length + suffix_length >= result_size) {
        result[0] = '\0';
        return false;
    }
    memmove(result, prefix, prefix_length);
    memcpy(result + prefix_length, suffix, suffix_length + 1);
    return true;
}

bool dimensions_found(const volume_header *header, const char *path, bool require_positive) {
    static const char *const names[4] = {"x", "y", "z", "t"};
    const int dimensions[4] = {header->nx, header->ny, header->nz, header->nt};
    for (int i = 0; i < 4; ++i) {
        if (dimensions[i] == 0 || (require_positive && dimensions[i] < 1)) {
            printf("Error: Value for %s dimension not found in header file '%s'\n", names[i], path);
            return false;
        }
    }
    return true;
}

mat44 scale_and_shift(const float *resolution, const float *origin, const float *direction) {
    return scale_and_shift_to_mat44(resolution[0], resolution[1], resolution[2], origin[0],
                                    origin[1], origin[2], direction[0], direction[1], direction[2]);
}

}  // namespace io_internal

extern "C" {

int machine_byte_order(void) {
    uint16_t one = 1;
    unsigned char first;
    memcpy(&first, &one, 1);
    return first == 1 ? 1 : 0;
}

void swap_16(void *p) {
    unsigned char *b = static_cast<unsigned char *>(p);
    unsigned char t = b[0];
    b[0] = b[1];
    b[1] = t;
}

void swap_32(void *p) {
    unsigned char *b = static_cast<unsigned char *>(p);
    unsigned char t = b[0];
    b[0] = b[3];
    b[3] = t;
    t = b[1];
    b[1] = b[2];
    b[2] = t;
}

int get_extension(char *name, int *type, char *extension) {
    (void)extension;
    char *dot = strrchr(name, '.');
    if (dot == nullptr) {
        printf("The file name has no extension!\n");
        return 1;
    }
    char *text = dot + 1;
    size_t length = strlen(text);
    // Names taken straight from a text line still carry their newline.
    if (length > 0 && text[length - 1] == '\n') text[length - 1] = '\0';

    static const struct {
        const char *extension;
        int code;
    } known[] = {
        {"bshort", STORAGE_BSHORT}, {"blong", STORAGE_BLONG},      {"bfloat", STORAGE_BFLOAT},
        {"ushort", STORAGE_USHORT}, {"nii", STORAGE_NIFTI_SINGLE}, {"img", STORAGE_NIFTI_PAIR},
    };
    *type = STORAGE_UNKNOWN;
    for (const auto &k : known) {
        if (strcmp(text, k.extension) == 0) {
            *type = k.code;
            break;
        }
    }
    return 0;
}

int replace_extension(char *name, int *type, const char *new_extension, char *result) {
    if (get_extension(name, type, nullptr) != 0) return 1;
    const char *dot = strrchr(name, '.');
    if (dot == nullptr) {
        printf("Programming error in replace_extension.");
        exit(1);
    }
    size_t kept = static_cast<size_t>(dot - name) + 1;
    if (!io_internal::join_name(name, kept, new_extension, result, IO_NAME_LENGTH)) {
        printf("Error: the file name %.*s%s is too long (at most %d characters).\n",
               static_cast<int>(kept), name, new_extension, IO_NAME_LENGTH - 1);
        return 1;
    }
    return 0;
}

int read_volume_header(char *name, volume_header *header) {
    size_t length = strlen(name);
    if (length >= IO_NAME_LENGTH) {
        printf("Error: the file name %.60s... is too long (%zu characters, at most %d).\n", name,
               length, IO_NAME_LENGTH - 1);
        return 1;
    }

    memcpy(header->file_name, name, length + 1);
    header->nx = header->ny = header->nz = header->nt = 0;
    header->data_type = header->registration = header->oblique = header->degrees_of_freedom = 0;
    for (int i = 0; i < 3; ++i) {
        header->resolution[i] = 1.0f;
        header->origin[i] = 0.0f;
        header->direction[i] = 1.0f;
    }
    header->byte_order = machine_byte_order();
    header->time_resolution = header->data_offset = header->scale_slope = 0.0f;
    header->scale_intercept = header->qfac = 0.0f;
    header->quatern_b = header->quatern_c = header->quatern_d = 0.0f;

    const char *dot = strrchr(name, '.');
    const char *slash = strrchr(name, '/');

    if (length > 0 && name[length - 1] == '_') {
        if (read_freesurfer_header(name, header) != 0) return 1;
    } else if (dot != nullptr && (slash == nullptr || dot > slash)) {
        int code;
        if (get_extension(name, &code, nullptr) != 0) return 1;
        if (code == STORAGE_NIFTI_SINGLE || code == STORAGE_NIFTI_PAIR) {
            header->storage_type = code;
            if (read_nifti_header(name, header) != 0) return 1;
        } else {
            header->storage_type = code;
            header->header_storage_type = code;
            if (read_vistra_header(name, header) != 0) return 1;
        }
    } else {
        char header_name[IO_NAME_LENGTH];
        header->header_storage_type = -1;
        if (!io_internal::join_name(name, length, ".hdr", header_name, sizeof header_name)) {
            printf("Error: the file name %.60s....hdr is too long (at most %d characters).\n", name,
                   IO_NAME_LENGTH - 1);
            return 1;
        }
        if (read_vistra_header(header_name, header) != 0) return 1;
        if (header->header_storage_type > 0) {
            header->storage_type = header->header_storage_type;
        } else {
            printf("Error: the file type is not recognized,\n");
            printf("so it was assumed to be an vistra file without an extension.\n");
            printf("However, the storage type was not read from file %s\n", header_name);
            printf("Valid types end in .nii, .img, .bshort, .bfloat, .blong, or _'\n");
            return 1;
        }
    }

    // The readers insist on non-zero dimensions; negative ones and volumes
    // whose value count does not fit the 32-bit counts are rejected here.
    if (header->nx < 1 || header->ny < 1 || header->nz < 1 || header->nt < 1) {
        printf("Error: invalid dimensions (%d,%d,%d,%d) in the header of %s\n", header->nx,
               header->ny, header->nz, header->nt, name);
        return 1;
    }
    const int factors[3] = {header->ny, header->nz, header->nt};
    int64_t count = header->nx;
    bool too_large = false;
    for (int factor : factors) {
        count *= factor;  // below 2^31 times 2^31: cannot overflow
        if (count > INT32_MAX) {
            too_large = true;
            break;
        }
    }
    if (too_large) {
        printf("Error: the volume %s is too large: %d x %d x %d voxels and %d frames\n", name,
               header->nx, header->ny, header->nz, header->nt);
        return 1;
    }

    header->space_to_voxel = invert_mat44(header->voxel_to_space);
    header->field_of_view[0] = header->resolution[0] * static_cast<float>(header->nx);
    header->field_of_view[1] = header->resolution[1] * static_cast<float>(header->ny);
    header->field_of_view[2] = header->resolution[2] * static_cast<float>(header->nz);
    header->nxy = header->nx * header->ny;
    header->nxyz = header->nxy * header->nz;
    header->nxyzt = header->nxyz * header->nt;
    return 0;
}

}  // extern "C"
