// Loading of the signal files: every file's header and degrees of freedom,
// the checks that all files agree with the first one, and both frames of
// data (effect and its standard error).
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "driver.h"
#include "io.h"
#include "rem.h"
#include "util.h"

file_list_entry file_list_root;
int resels = 0;

namespace {

// Copies what the analysis needs from a volume header into a list node.
void copy_header(const volume_header &header, int dof, file_list_entry *entry) {
    entry->nx = header.nx;
    entry->ny = header.ny;
    entry->nz = header.nz;
    entry->nt = header.nt;
    entry->byte_order = header.byte_order;
    entry->storage_type = header.storage_type;
    for (int a = 0; a < 3; ++a) {
        entry->resolution[a] = header.resolution[a];
        entry->origin[a] = header.origin[a];
        entry->direction[a] = header.direction[a];
    }
    entry->dof = dof;
}

bool same_resolution(const file_list_entry *a, const file_list_entry *b) {
    for (int k = 0; k < 3; ++k) {
        if (!(a->resolution[k] == b->resolution[k])) return false;
    }
    return true;
}

// Reads one frame of n floats; false on a short read.
bool read_frame(FILE *file, uint32_t n, float **frame) {
    *frame = float_vector(n);
    return std::fread(*frame, sizeof(float), n, file) == n;
}

}  // namespace

int read_degrees_of_freedom(file_list_entry *entry, int *dof) {
    static char header_name[2 * DRIVER_NAME_LENGTH];
    static char line[2 * DRIVER_NAME_LENGTH];
    static char keyword[2 * DRIVER_NAME_LENGTH];
    int type = 0;

    *dof = 0;
    if (replace_extension(entry->name, &type, "hdr", header_name) != 0) return 1;
    FILE *file = std::fopen(header_name, "r");
    if (file == nullptr) {
        std::printf("Error: cannot open file %s.\n", header_name);
        return 1;
    }
    while (get_line_with_comment(file, line) != 0) {
        if (std::sscanf(line, "%s", keyword) != 1) continue;
        // The value starts at the first non-blank character one keyword
        // length into the line (the keyword itself for an indented line).
        const char *value = next_non_white(line + std::strlen(keyword));
        if (std::strcmp(keyword, "degrees-of-freedom") == 0) {
            std::sscanf(value, "%d", dof);
            std::fclose(file);
            return 0;
        }
    }
    std::fclose(file);
    std::printf("Error: the keyword 'degrees-of-freedom' was not found in %s\n", header_name);
    return 1;
}

int read_signal_files(void) {
    static volume_header header;

    // Headers and degrees of freedom.
    for (file_list_entry *entry = &file_list_root; entry != nullptr; entry = entry->next) {
        if (read_volume_header(entry->name, &header) != 0) return 1;
        int dof = 0;
        if (read_degrees_of_freedom(entry, &dof) != 0) return 1;
        copy_header(header, dof, entry);
    }

    // Every file must agree with the first one.
    const file_list_entry *root = &file_list_root;
    int count = 0;
    for (file_list_entry *entry = &file_list_root; entry != nullptr; entry = entry->next) {
        ++count;
        if (entry->nx != root->nx || entry->ny != root->ny || entry->nz != root->nz) {
            std::printf("The dimensions of file %s (%d,%d,%d) are not the same as for file %s "
                        "(%d,%d,%d)\n",
                        entry->name, entry->nx, entry->ny, entry->nz, root->name, root->nx,
                        root->ny, root->nz);
            return 1;
        }
        if (entry->nt != 2) {
            std::printf("File %s has %d time points, not 2.\n", entry->name, entry->nt);
            return 1;
        }
        if (entry->storage_type != STORAGE_BFLOAT) {
            std::printf("File %s is not a `bfloat' file as assumed.\n", entry->name);
            return 1;
        }
        if (!same_resolution(entry, root)) {
            // The origins are shown, although the resolutions were compared.
            std::printf("WARNING: The resolution of file %s (%g,%g,%g) differs from file %s "
                        "(%g,%g,%g)\n",
                        entry->name, entry->origin[0], entry->origin[1], entry->origin[2],
                        root->name, root->origin[0], root->origin[1], root->origin[2]);
        }
    }

    // The maps are indexed with 32-bit integers: refuse volumes they cannot hold.
    int64_t nvoxels = static_cast<int64_t>(root->nx) * root->ny * root->nz;
    if (root->nx <= 0 || root->ny <= 0 || root->nz <= 0 ||
        nvoxels * (count > 2 ? count : 2) > INT32_MAX) {
        std::printf("Error: the dimensions of file %s (%d,%d,%d) are not supported.\n",
                    root->name, root->nx, root->ny, root->nz);
        return 1;
    }

    std::printf("Input files: %d samples of dimension (x,y,z) = (%d,%d,%d).\n", count, root->nx,
                root->ny, root->nz);

    resels = REM_input.multiple_comparisons != 0 ? REM_input.multiple_comparisons : 1;

    // Both frames of every file, in the machine's byte order.
    uint32_t n = static_cast<uint32_t>(nvoxels);
    for (file_list_entry *entry = &file_list_root; entry != nullptr; entry = entry->next) {
        FILE *file = std::fopen(entry->name, "rb");
        if (file == nullptr) {
            std::printf("Error: cannot open file %s.\n", entry->name);
            return 1;
        }
        if (!read_frame(file, n, &entry->effect) || !read_frame(file, n, &entry->effect_stderr)) {
            std::printf("Error reading the floating point data from file %s\n", entry->name);
            std::fclose(file);
            return 1;
        }
        std::fclose(file);
    }

    set_output_geometry(root->nx, root->ny, root->nz, root->resolution, root->origin,
                        root->direction, REM_input.nifti_output);
    return 0;
}
