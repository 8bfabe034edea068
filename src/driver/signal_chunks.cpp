// The chunk source of the voxel passes (see signal_data.h): the values of
// every signal file over a chunk of voxels, read from the files in batches
// or taken from memory, and held voxel by voxel.
#include <algorithm>
#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "signal_data.h"

namespace {

// Descriptors left free for the result files and the libraries.
const int kSpareDescriptors = 16;

// Files open at once while a chunk is read: kBatch, or fewer when the limit
// of open files is low (one at the least).
int batch_size(int most) {
    struct rlimit limit;
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return most;
    const rlim_t free = limit.rlim_cur > static_cast<rlim_t>(2 * kSpareDescriptors)
                            ? limit.rlim_cur - 2 * kSpareDescriptors
                            : 1;
    return free < static_cast<rlim_t>(most) ? static_cast<int>(free) : most;
}

// Asks the kernel to read both frames' segments [first, first+count) of a
// frame of voxels floats ahead.
void read_ahead(int fd, uint64_t voxels, int first, int count) {
    if (count <= 0) return;
    const off_t bytes = static_cast<off_t>(count) * static_cast<off_t>(sizeof(float));
    for (uint64_t frame = 0; frame < 2; ++frame) {
        const off_t at =
            static_cast<off_t>((frame * voxels + static_cast<uint64_t>(first)) * sizeof(float));
        ::posix_fadvise(fd, at, bytes, POSIX_FADV_WILLNEED);
    }
}

}  // namespace

signal_chunks::signal_chunks(file_list_entry *const *entries, int nfiles)
    : entries_(entries), nfiles_(nfiles > 0 ? static_cast<size_t>(nfiles) : 0) {
    // The chunk shrinks as the files grow in number; it need not be larger
    // than the volume.
    const int64_t voxels =
        nfiles > 0 ? static_cast<int64_t>(entries[0]->nx) * entries[0]->ny * entries[0]->nz : 1;
    const size_t per_voxel = 2 * sizeof(float) * (nfiles_ > 0 ? nfiles_ : 1);
    size_t chunk = kBufferBytes / per_voxel;
    chunk = std::max<size_t>(chunk, 16);
    chunk = std::min<size_t>(chunk, kMaxChunk);
    chunk = std::min<size_t>(chunk, static_cast<size_t>(voxels > 0 ? voxels : 1));
    chunk_ = static_cast<int>(chunk);

    // Which files are read on demand: a subsequence of the list, in order.
    streamed_.assign(nfiles_, nullptr);
    const std::vector<streamed_signal_file> &files = streamed_signal_files();
    size_t at = 0;
    for (size_t k = 0; k < nfiles_ && at < files.size(); ++k)
        if (files[at].entry == entries[k]) streamed_[k] = &files[at++];
    batch_ = files.empty() ? kBatch : batch_size(kBatch);
    values_.resize(chunk * 2 * (nfiles_ > 0 ? nfiles_ : 1));
    if (!files.empty()) staging_.resize(static_cast<size_t>(kBatch) * 2 * chunk);
}

bool signal_chunks::fetch(int first, int count) {
    const int64_t voxels = streamed_frame_voxels();
    next_first_ = first + count;
    next_count_ = static_cast<int>(std::min<int64_t>(chunk_, voxels - next_first_));
    size_t k = 0;
    while (k < nfiles_) {
        const size_t k1 = std::min(nfiles_, k + static_cast<size_t>(batch_));
        if (!read_batch(k, k1, first, count)) return false;
        k = k1;
    }
    first_ = first;
    return true;
}

bool signal_chunks::read_batch(size_t k0, size_t k1, int first, int count) {
    const uint64_t voxels = streamed_frame_voxels();
    const size_t chunk = static_cast<size_t>(chunk_);
    const float *effect[kBatch];
    const float *error[kBatch];
    int fds[kBatch];
    size_t opened = k1;  // files k0 .. opened-1 are open (or in memory)

    // Open the batch and ask for its segments; a limit of open files met on
    // the way shortens the batch.
    for (size_t k = k0; k < k1; ++k) {
        const size_t b = k - k0;
        fds[b] = -1;
        const file_list_entry *entry = entries_[k];
        if (streamed_[k] == nullptr) {
            effect[b] = entry->effect + first;
            error[b] = entry->effect_stderr + first;
            continue;
        }
        const int fd = ::open(entry->name, O_RDONLY | O_CLOEXEC);
        if (fd < 0 && (errno == EMFILE || errno == ENFILE) && k > k0) {
            opened = k;
            break;
        }
        struct stat status;
        if (fd < 0) {
            std::printf("Error: cannot open file %s.\n", entry->name);
        } else if (::fstat(fd, &status) != 0 || status.st_dev != streamed_[k]->device ||
                   status.st_ino != streamed_[k]->inode) {
            std::printf("Error: the signal file %s changed during the analysis.\n", entry->name);
        } else {
            fds[b] = fd;
            read_ahead(fd, voxels, first, count);
            continue;
        }
        if (fd >= 0) ::close(fd);
        for (size_t j = k0; j < k; ++j)
            if (fds[j - k0] >= 0) ::close(fds[j - k0]);
        return false;
    }

    // Read the segments in file order, ask for the next chunk's, close.
    bool ok = true;
    for (size_t k = k0; k < opened; ++k) {
        const size_t b = k - k0;
        if (fds[b] < 0) continue;
        float *to = staging_.data() + 2 * b * chunk;
        if (ok && (!read_signal_values(fds[b], static_cast<uint64_t>(first), count, to) ||
                   !read_signal_values(fds[b], voxels + first, count, to + chunk))) {
            std::printf("Error reading the floating point data from file %s\n", entries_[k]->name);
            ok = false;
        }
        if (ok) read_ahead(fds[b], voxels, next_first_, next_count_);
        ::close(fds[b]);
        effect[b] = to;
        error[b] = to + chunk;
    }
    if (!ok) return false;

    // Into the chunk, voxel by voxel, in tiles of kTile voxels, so that both
    // the segments read and the voxels written stay in the cache.
    const size_t width = opened - k0;
    const int kTile = 16;
    for (int v0 = 0; v0 < count; v0 += kTile) {
        const int v1 = std::min(count, v0 + kTile);
        float *to = values_.data() + static_cast<size_t>(v0) * 2 * nfiles_ + k0;
        for (size_t b = 0; b < width; ++b) {
            const float *e = effect[b], *s = error[b];
            float *at = to + b;
            for (int v = v0; v < v1; ++v, at += 2 * nfiles_) {
                at[0] = e[v];
                at[nfiles_] = s[v];
            }
        }
    }
    // The files after a shortened batch.
    return opened == k1 || read_batch(opened, k1, first, count);
}
