// Loading of the signal files: every file's header and degrees of freedom,
// the checks that all files agree with the first one, and both frames of
// data (effect and its standard error), read into memory or, for the fast
// passes, read on demand from the files kept open.
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "driver.h"
#include "io.h"
#include "rem.h"
#include "signal_data.h"
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

namespace {

// Reads the headers and degrees of freedom of every file, checks that they
// agree with the first one, prints the input line and sets resels; *n is
// the number of voxels of a frame.
int read_signal_headers(uint32_t *n) {
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
            std::printf(
                "The dimensions of file %s (%d,%d,%d) are not the same as for file %s "
                "(%d,%d,%d)\n",
                entry->name, entry->nx, entry->ny, entry->nz, root->name, root->nx, root->ny,
                root->nz);
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
            std::printf(
                "WARNING: The resolution of file %s (%g,%g,%g) differs from file %s "
                "(%g,%g,%g)\n",
                entry->name, entry->origin[0], entry->origin[1], entry->origin[2], root->name,
                root->origin[0], root->origin[1], root->origin[2]);
        }
    }

    // The maps are indexed with 32-bit integers: refuse volumes they cannot
    // hold.  Up to the classic capacity so is the in-memory study; beyond it
    // (only with "reml converged") the voxels and files are counted apart,
    // and a residue series is checked where it is asked for.
    int64_t nvoxels = static_cast<int64_t>(root->nx) * root->ny * root->nz;
    const int64_t factor = count > REM_MAX_FILES ? 2 : (count > 2 ? count : 2);
    if (root->nx <= 0 || root->ny <= 0 || root->nz <= 0 || nvoxels * factor > INT32_MAX) {
        std::printf("Error: the dimensions of file %s (%d,%d,%d) are not supported.\n", root->name,
                    root->nx, root->ny, root->nz);
        return 1;
    }

    std::printf("Input files: %d samples of dimension (x,y,z) = (%d,%d,%d).\n", count, root->nx,
                root->ny, root->nz);

    resels = REM_input.multiple_comparisons != 0 ? REM_input.multiple_comparisons : 1;
    *n = static_cast<uint32_t>(nvoxels);
    return 0;
}

// Reads both frames of entry's data file, in the machine's byte order.
int load_signal_data(file_list_entry *entry, uint32_t n) {
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
    return 0;
}

void record_output_geometry() {
    const file_list_entry *root = &file_list_root;
    set_output_geometry(root->nx, root->ny, root->nz, root->resolution, root->origin,
                        root->direction, REM_input.nifti_output);
}

// The files read as the passes go, in list order, and the voxels of a frame.
std::vector<streamed_signal_file> streamed;
uint32_t frame_voxels = 0;

}  // namespace

bool read_signal_values(int fd, uint64_t first, uint32_t count, float *values) {
    char *to = reinterpret_cast<char *>(values);
    size_t left = static_cast<size_t>(count) * sizeof(float);
    off_t at = static_cast<off_t>(first * sizeof(float));
    while (left > 0) {
        ssize_t got = ::pread(fd, to, left, at);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        to += got;
        at += got;
        left -= static_cast<size_t>(got);
    }
    return true;
}

const std::vector<streamed_signal_file> &streamed_signal_files(void) {
    return streamed;
}

uint32_t streamed_frame_voxels(void) {
    return frame_voxels;
}

int read_signal_files(void) {
    uint32_t n = 0;
    if (read_signal_headers(&n) != 0) return 1;
    for (file_list_entry *entry = &file_list_root; entry != nullptr; entry = entry->next) {
        if (load_signal_data(entry, n) != 0) return 1;
    }
    record_output_geometry();
    return 0;
}

namespace {

// Whether the file open on fd is one that a result written before the second
// pass would overwrite (through a link, say): "basis.dat" or a "sigma2"
// volume in the working folder.
bool overwritten_by_results(const struct stat &file) {
    static const char *const results[] = {"basis.dat",     "sigma2",     "sigma2.hdr",
                                          "sigma2.bfloat", "sigma2.nii", "sigma2.img"};
    for (const char *name : results) {
        struct stat status;
        if (::stat(name, &status) == 0 && status.st_dev == file.st_dev &&
            status.st_ino == file.st_ino)
            return true;
    }
    return false;
}

}  // namespace

int hold_signal_data_in_memory(void) {
    for (streamed_signal_file &file : streamed) {
        if (load_signal_data(file.entry, frame_voxels) != 0) {
            streamed.clear();
            return 1;
        }
    }
    streamed.clear();
    return 0;
}

int load_signal_files(int read_on_demand) {
    if (!read_on_demand) return read_signal_files();
    uint32_t n = 0;
    if (read_signal_headers(&n) != 0) return 1;
    frame_voxels = n;
    streamed.clear();
    const off_t needed = static_cast<off_t>(2) * n * static_cast<off_t>(sizeof(float));
    // Each file is opened once here, to be identified and measured, and then
    // again for every chunk of voxels: no descriptor is held between chunks,
    // so the number of files is not limited by the number of open files.
    for (file_list_entry *entry = &file_list_root; entry != nullptr; entry = entry->next) {
        int fd = ::open(entry->name, O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            std::printf("Error: cannot open file %s.\n", entry->name);
            return 1;
        }
        struct stat status;
        if (::fstat(fd, &status) == 0 && S_ISREG(status.st_mode) &&
            !overwritten_by_results(status)) {
            ::close(fd);
            if (status.st_size < needed) {
                std::printf("Error reading the floating point data from file %s\n", entry->name);
                return 1;
            }
            streamed.push_back(
                {entry, status.st_dev, status.st_ino, status.st_size, status.st_mtim});
            continue;
        }
        // A pipe, say, or a file that a result would overwrite: read now.
        ::close(fd);
        if (load_signal_data(entry, n) != 0) return 1;
    }
    record_output_geometry();
    return 0;
}

bool same_signal_file(const streamed_signal_file &file, const struct stat &status) {
    return status.st_dev == file.device && status.st_ino == file.inode &&
           status.st_size == file.size && status.st_mtim.tv_sec == file.modified.tv_sec &&
           status.st_mtim.tv_nsec == file.modified.tv_nsec;
}

int check_signal_files_unchanged(void) {
    for (const streamed_signal_file &file : streamed) {
        struct stat status;
        if (::stat(file.entry->name, &status) != 0 || !same_signal_file(file, status)) {
            std::printf("Error: the signal file %s changed during the analysis.\n",
                        file.entry->name);
            return 1;
        }
    }
    return 0;
}
