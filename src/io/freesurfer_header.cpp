// FreeSurfer slice stacks: the ".bhdr" keyword header, the byte order in
// the first slice's ".hdr" and the slice type from the first slice file.
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "io.h"
#include "io_internal.h"
#include "util.h"

namespace {

// Positions in the working record of the reader.
enum {
    TOP_LEFT = 0,
    TOP_RIGHT = 3,
    BOTTOM_RIGHT = 6,
    NORMAL = 9,
    IMAGE_TE = 12,
    IMAGE_TR = 13,
    IMAGE_TI = 14,
    FLIP_ANGLE = 15,
    CORNER_VALUES = 16
};

// Length of the step (to - from) / count, each component rounded to float.
float step_length(const float *from, const float *to, int count) {
    float step[3];
    for (int k = 0; k < 3; ++k) step[k] = (to[k] - from[k]) / static_cast<float>(count);
    float sum = step[0] * step[0] + step[1] * step[1] + step[2] * step[2];
    return static_cast<float>(sqrt(static_cast<double>(sum)));
}

bool file_opens(const char *name) {
    FILE *file = fopen(name, "r");
    if (file == nullptr) return false;
    fclose(file);
    return true;
}

}  // namespace

extern "C" {

int decode_freesurfer_header_keyword(const char *line, volume_header *header, float *corners) {
    char keyword[IO_NAME_LENGTH];
    const char *value = io_internal::split_statement(line, keyword, sizeof keyword);

    static const struct {
        const char *keyword;
        int field;  // -1..-4: nx, ny, nz, nt; -5: z resolution; else corner index
    } table[] = {
        {"cols:", -1},
        {"rows:", -2},
        {"nslices:", -3},
        {"n_time_points:", -4},
        {"slice_thick:", -5},
        {"top_left_r:", TOP_LEFT},
        {"top_left_a:", TOP_LEFT + 1},
        {"top_left_s:", TOP_LEFT + 2},
        {"top_right_r:", TOP_RIGHT},
        {"top_right_a:", TOP_RIGHT + 1},
        {"top_right_s:", TOP_RIGHT + 2},
        {"bottom_right_r:", BOTTOM_RIGHT},
        {"bottom_right_a:", BOTTOM_RIGHT + 1},
        {"bottom_right_s:", BOTTOM_RIGHT + 2},
        {"normal_r:", NORMAL},
        {"normal_a:", NORMAL + 1},
        {"normal_s:", NORMAL + 2},
        {"image_te:", IMAGE_TE},
        {"image_tr:", IMAGE_TR},
        {"image_ti:", IMAGE_TI},
        {"flip_angle:", FLIP_ANGLE},
    };
    int *const dimensions[4] = {&header->nx, &header->ny, &header->nz, &header->nt};

    for (const auto &entry : table) {
        if (strcmp(keyword, entry.keyword) != 0) continue;
        // Values are taken without checking that a number was found.
        if (entry.field <= -1 && entry.field >= -4)
            sscanf(value, "%d", dimensions[-entry.field - 1]);
        else if (entry.field == -5)
            sscanf(value, "%f", &header->resolution[2]);
        else
            sscanf(value, "%f", &corners[entry.field]);
        return 0;
    }
    return 1;
}

int read_freesurfer_header(char *name, volume_header *header) {
    header->storage_type = STORAGE_FREESURFER;
    size_t length = strlen(name);
    if (length == 0 || name[length - 1] != '_') {
        printf("Programming error: file name should end with '_' in read_freesurfer_header\n");
        exit(1);
    }

    char bhdr_name[IO_NAME_LENGTH];
    char companion_name[IO_NAME_LENGTH];
    char bshort_name[IO_NAME_LENGTH];
    char bfloat_name[IO_NAME_LENGTH];
    if (!io_internal::join_name(name, length - 1, ".bhdr", bhdr_name, sizeof bhdr_name) ||
        !io_internal::join_name(name, length, "000.hdr", companion_name, sizeof companion_name) ||
        !io_internal::join_name(name, length, "000.bshort", bshort_name, sizeof bshort_name) ||
        !io_internal::join_name(name, length, "000.bfloat", bfloat_name, sizeof bfloat_name)) {
        printf(
            "Error: the file name %.60s... is too long (at most %d characters with its "
            "extension).\n",
            name, IO_NAME_LENGTH - 1);
        return 1;
    }

    FILE *file = fopen(bhdr_name, "r");
    if (file == nullptr) {
        printf("Error: cannot open freesurfer bhdr file %s.\n", bhdr_name);
        return 1;
    }
    float corners[CORNER_VALUES] = {0.0f};
    const bool read = io_internal::read_statements(file, bhdr_name, [&](const char *line) {
        return decode_freesurfer_header_keyword(line, header, corners);
    });
    fclose(file);
    if (!read) return 1;

    if (!io_internal::dimensions_found(header, bhdr_name, false)) return 1;

    header->resolution[0] = step_length(&corners[TOP_LEFT], &corners[TOP_RIGHT], header->nx);
    header->resolution[1] = step_length(&corners[TOP_RIGHT], &corners[BOTTOM_RIGHT], header->ny);

    file = fopen(companion_name, "r");
    if (file == nullptr) {
        printf("Error: cannot open freesurfer file %s.\n", companion_name);
        return 1;
    }
    int values[4];
    if (fscanf(file, "%d %d %d %d", &values[0], &values[1], &values[2], &values[3]) == 4)
        header->byte_order = values[3];
    fclose(file);

    if (file_opens(bshort_name)) {
        header->header_storage_type = STORAGE_BSHORT;
    } else if (file_opens(bfloat_name)) {
        header->header_storage_type = STORAGE_BFLOAT;
    } else {
        printf("\nError: cannot open file %s as bshort or bfloat.\n", name);
        return 1;
    }

    header->voxel_to_space =
        io_internal::scale_and_shift(header->resolution, header->origin, header->direction);
    return 0;
}

}  // extern "C"
