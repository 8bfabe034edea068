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

    // The maps are indexed with 32-bit integers: refuse volumes they cannot hold.
    int64_t nvoxels = static_cast<int64_t>(root->nx) * root->ny * root->nz;
    if (root->nx <= 0 || root->ny <= 0 || root->nz <= 0 ||
        nvoxels * (count > 2 ? count : 2) > INT32_MAX) {
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

// A signal file kept open, with what identifies its contents.
struct open_signal_file {
    file_list_entry *entry;
    int fd;
    dev_t device;
    ino_t inode;
    off_t size;
    struct timespec modified;
};

// The files read on demand, in list order, and the voxels of a frame.
std::vector<open_signal_file> open_files;
uint32_t frame_voxels = 0;

const open_signal_file *find_open_file(const file_list_entry *entry) {
    // The passes ask for the files in list order: look from the last hit on.
    static size_t last = 0;
    const size_t count = open_files.size();
    for (size_t j = 0; j < count; ++j) {
        size_t at = (last + j) % count;
        if (open_files[at].entry == entry) {
            last = at + 1;
            return &open_files[at];
        }
    }
    return nullptr;
}

// Reads count floats at float offset first of the file; false on a short
// read or an error.
bool read_values(int fd, uint64_t first, uint32_t count, float *values) {
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

}  // namespace

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
    int result = 0;
    for (open_signal_file &file : open_files) {
        if (result == 0) {
            file.entry->effect = float_vector(frame_voxels);
            file.entry->effect_stderr = float_vector(frame_voxels);
            if (!read_values(file.fd, 0, frame_voxels, file.entry->effect) ||
                !read_values(file.fd, frame_voxels, frame_voxels, file.entry->effect_stderr)) {
                std::printf("Error reading the floating point data from file %s\n",
                            file.entry->name);
                result = 1;
            }
        }
        ::close(file.fd);
    }
    open_files.clear();
    return result;
}

namespace {

// Values first .. first+count-1 of frame 0 (effect) or 1 (standard error) of
// entry: a pointer into the entry's own data when they are in memory, or
// buffer (count floats) filled from the file.  Null after an error message.
const float *signal_values(const file_list_entry *entry, int frame, int first, int count,
                           float *buffer) {
    const float *frame_data = frame == 0 ? entry->effect : entry->effect_stderr;
    if (frame_data != nullptr) return frame_data + first;
    const open_signal_file *file = find_open_file(entry);
    if (file == nullptr ||
        !read_values(file->fd, static_cast<uint64_t>(frame) * frame_voxels + first,
                     static_cast<uint32_t>(count), buffer)) {
        std::printf("Error reading the floating point data from file %s\n", entry->name);
        return nullptr;
    }
    return buffer;
}

}  // namespace

int load_signal_files(int read_on_demand) {
    if (!read_on_demand) return read_signal_files();
    uint32_t n = 0;
    if (read_signal_headers(&n) != 0) return 1;
    frame_voxels = n;
    const off_t needed = static_cast<off_t>(2) * n * static_cast<off_t>(sizeof(float));
    // Descriptors left free for the result files and the libraries.
    const int spare = 16;
    struct rlimit limit;
    const rlim_t most_open = ::getrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : 0;
    bool keep_open = true;
    for (file_list_entry *entry = &file_list_root; entry != nullptr; entry = entry->next) {
        if (keep_open) {
            int fd = ::open(entry->name, O_RDONLY | O_CLOEXEC);
            if (fd >= 0 && most_open != RLIM_INFINITY &&
                static_cast<rlim_t>(fd) + spare >= most_open) {
                ::close(fd);
                fd = -1;
                errno = EMFILE;
            }
            if (fd < 0 && (errno == EMFILE || errno == ENFILE)) {
                // No more files can be open at once: hold the data in memory.
                if (hold_signal_data_in_memory() != 0) return 1;
                keep_open = false;
            } else if (fd < 0) {
                std::printf("Error: cannot open file %s.\n", entry->name);
                return 1;
            } else {
                struct stat status;
                if (::fstat(fd, &status) == 0 && S_ISREG(status.st_mode) &&
                    !overwritten_by_results(status)) {
                    if (status.st_size < needed) {
                        std::printf("Error reading the floating point data from file %s\n",
                                    entry->name);
                        ::close(fd);
                        return 1;
                    }
                    // Ask for the data to be read ahead while the headers are
                    // still being dealt with.
                    ::posix_fadvise(fd, 0, needed, POSIX_FADV_WILLNEED);
                    open_files.push_back(
                        {entry, fd, status.st_dev, status.st_ino, status.st_size, status.st_mtim});
                    continue;
                }
                ::close(fd);
            }
        }
        if (load_signal_data(entry, n) != 0) return 1;
    }
    record_output_geometry();
    return 0;
}

int check_signal_files_unchanged(void) {
    for (const open_signal_file &file : open_files) {
        struct stat status;
        if (::fstat(file.fd, &status) != 0 || status.st_size != file.size ||
            status.st_mtim.tv_sec != file.modified.tv_sec ||
            status.st_mtim.tv_nsec != file.modified.tv_nsec) {
            std::printf("Error: the signal file %s changed during the analysis.\n",
                        file.entry->name);
            return 1;
        }
    }
    return 0;
}

namespace {

// Voxels per chunk when the values are in memory, and bytes of values read
// from the files per chunk otherwise: the chunk shrinks as the files grow in
// number.
const int kChunk = 4096;
const int kChunkBytes = 1 << 20;

}  // namespace

signal_chunks::signal_chunks(file_list_entry *const *entries, int nfiles)
    : entries_(entries),
      nfiles_(nfiles),
      chunk_(kChunk),
      effect_(static_cast<size_t>(nfiles)),
      error_(static_cast<size_t>(nfiles)) {
    if (open_files.empty()) return;
    int voxels = kChunkBytes / (2 * static_cast<int>(sizeof(float)) * (nfiles > 0 ? nfiles : 1));
    if (voxels < 64) voxels = 64;
    chunk_ = voxels < kChunk ? voxels : kChunk;
    buffer_.resize(2 * static_cast<size_t>(nfiles) * static_cast<size_t>(chunk_));
}

bool signal_chunks::fetch(int first, int count) {
    float *buffer = buffer_.empty() ? nullptr : buffer_.data();
    const size_t chunk = static_cast<size_t>(chunk_);
    for (int k = 0; k < nfiles_; ++k) {
        const size_t at = 2 * static_cast<size_t>(k) * chunk;
        effect_[k] = signal_values(entries_[k], 0, first, count, buffer ? buffer + at : nullptr);
        if (effect_[k] == nullptr) return false;
        error_[k] =
            signal_values(entries_[k], 1, first, count, buffer ? buffer + at + chunk : nullptr);
        if (error_[k] == nullptr) return false;
    }
    first_ = first;
    return true;
}
