// The chunk source of the voxel passes (see signal_data.h): the values of
// every signal file over a chunk of voxels, read from the files in batches
// or taken from memory, and held voxel by voxel.
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#ifdef __SSE__
#include <xmmintrin.h>
#endif
#include <fcntl.h>
#include <sys/mman.h>
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

// True when n more descriptors can be open at once, beside the spare ones;
// the soft limit of open files is raised towards the hard one for that.
bool room_for_descriptors(size_t n) {
    struct rlimit limit;
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return false;
    const rlim_t needed = static_cast<rlim_t>(n) + 4 * kSpareDescriptors;
    if (limit.rlim_cur == RLIM_INFINITY || limit.rlim_cur >= needed) return true;
    if (limit.rlim_max != RLIM_INFINITY && limit.rlim_max < needed) return false;
    limit.rlim_cur = needed;
    return ::setrlimit(RLIMIT_NOFILE, &limit) == 0;
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

// Copies voxels v0 .. v1-1 of the segments effect[b] and error[b] of width
// files into the rows of a chunk of nfiles files, row v0 (at its first
// file's column) at to; with absolute, the error values without their signs.
// Four files by four voxels at a time where the processor has the registers
// for it: the same values, fewer moves.
void transpose_tile(const float *const *effect, const float *const *error, size_t width, int v0,
                    int v1, size_t nfiles, bool absolute, float *to) {
    const size_t row = 2 * nfiles;
    size_t b = 0;
#ifdef __SSE__
    const __m128 sign = _mm_set1_ps(-0.0f);
    for (; b + 4 <= width; b += 4) {
        for (size_t frame = 0; frame < 2; ++frame) {
            const float *const *from = frame == 0 ? effect + b : error + b;
            const __m128 clear = frame == 1 && absolute ? sign : _mm_setzero_ps();
            float *at = to + b + frame * nfiles;
            int v = v0;
            for (; v + 4 <= v1; v += 4, at += 4 * row) {
                __m128 r0 = _mm_loadu_ps(from[0] + v), r1 = _mm_loadu_ps(from[1] + v);
                __m128 r2 = _mm_loadu_ps(from[2] + v), r3 = _mm_loadu_ps(from[3] + v);
                _MM_TRANSPOSE4_PS(r0, r1, r2, r3);
                r0 = _mm_andnot_ps(clear, r0);
                r1 = _mm_andnot_ps(clear, r1);
                r2 = _mm_andnot_ps(clear, r2);
                r3 = _mm_andnot_ps(clear, r3);
                _mm_storeu_ps(at, r0);
                _mm_storeu_ps(at + row, r1);
                _mm_storeu_ps(at + 2 * row, r2);
                _mm_storeu_ps(at + 3 * row, r3);
            }
            for (; v < v1; ++v, at += row)
                for (size_t j = 0; j < 4; ++j)
                    at[j] = frame == 1 && absolute ? std::fabs(from[j][v]) : from[j][v];
        }
    }
#endif
    for (; b < width; ++b) {
        const float *e = effect[b], *s = error[b];
        float *at = to + b;
        for (int v = v0; v < v1; ++v, at += row) {
            at[0] = e[v];
            at[nfiles] = absolute ? std::fabs(s[v]) : s[v];
        }
    }
}

// The blocks given back, for the next chunk source of the run.  The pool is
// never destroyed: a reader thread may still hold a block while the program
// exits, and the blocks stay reachable to the end.
struct spare_block_pool {
    std::mutex mutex;
    std::vector<std::pair<float *, size_t>> blocks;
};
spare_block_pool &spare_pool() {
    static spare_block_pool *pool = new spare_block_pool;
    return *pool;
}

void give_back(float *data, size_t floats) {
    spare_block_pool &pool = spare_pool();
    std::lock_guard<std::mutex> lock(pool.mutex);
    pool.blocks.emplace_back(data, floats);
}

// Blocks as large as this are laid on huge pages where the system offers
// them: a few faults map the whole block.
const size_t kHugePage = size_t(2) << 20;

}  // namespace

chunk_buffer::~chunk_buffer() {
    if (data_ != nullptr) give_back(data_, floats_);
}

void chunk_buffer::take(size_t floats) {
    if (data_ != nullptr) {
        give_back(data_, floats_);
        data_ = nullptr;
        floats_ = 0;
    }
    if (floats == 0) floats = 1;
    {
        // The smallest spare block that is large enough.
        spare_block_pool &pool = spare_pool();
        std::vector<std::pair<float *, size_t>> &spare_blocks = pool.blocks;
        std::lock_guard<std::mutex> lock(pool.mutex);
        auto best = spare_blocks.end();
        for (auto b = spare_blocks.begin(); b != spare_blocks.end(); ++b)
            if (b->second >= floats && (best == spare_blocks.end() || b->second < best->second))
                best = b;
        if (best != spare_blocks.end()) {
            data_ = best->first;
            floats_ = best->second;
            spare_blocks.erase(best);
            return;
        }
    }
    size_t bytes = floats * sizeof(float);
    void *block = nullptr;
    if (bytes >= kHugePage) {
        bytes = (bytes + kHugePage - 1) / kHugePage * kHugePage;
        block = std::aligned_alloc(kHugePage, bytes);
#ifdef MADV_HUGEPAGE
        if (block != nullptr) ::madvise(block, bytes, MADV_HUGEPAGE);
#endif
    } else {
        block = std::malloc(bytes);
    }
    if (block == nullptr) {
        std::printf(
            "Error: the chunk buffers of the signal data (%.0f MB) do not fit into memory.\n",
            static_cast<double>(bytes) / 1e6);
        std::exit(1);
    }
    data_ = static_cast<float *>(block);
    floats_ = bytes / sizeof(float);
}

signal_chunks::signal_chunks(file_list_entry *const *entries, int nfiles, bool ahead, int readers,
                             bool absolute_errors)
    : entries_(entries),
      nfiles_(nfiles > 0 ? static_cast<size_t>(nfiles) : 0),
      absolute_(absolute_errors),
      ahead_(ahead) {
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
    streamed_.assign(nfiles_, streamed_signal_file{});
    const std::vector<streamed_signal_file> &files = streamed_signal_files();
    size_t at = 0;
    for (size_t k = 0; k < nfiles_ && at < files.size(); ++k)
        if (files[at].entry == entries[k]) streamed_[k] = files[at++];
    keep_open_ = !files.empty() && room_for_descriptors(files.size());
    kept_.assign(nfiles_, -1);
    batch_ = files.empty() || keep_open_ ? kBatch : batch_size(kBatch);
    const size_t size = chunk * 2 * (nfiles_ > 0 ? nfiles_ : 1);
    values_[0].take(size);
    if (ahead_) values_[1].take(size);
    current_ = values_[0].data();
    readers_ = keep_open_ && readers > 1 && nfiles_ >= 2 * static_cast<size_t>(kBatch) ? 2 : 1;
    for (int r = 0; r < (files.empty() ? 0 : readers_); ++r)
        staging_[r].take(static_cast<size_t>(kBatch) * 2 * chunk);
}

signal_chunks::~signal_chunks() {
    stop_reading_ahead();
    for (int fd : kept_)
        if (fd >= 0) ::close(fd);
}

void signal_chunks::stop_reading_ahead() {
    cancel_ = true;
    wait_for_reader();
    cancel_ = false;
}

void signal_chunks::wait_for_reader() {
    if (reader_.joinable()) reader_.join();
}

bool signal_chunks::fetch(int first, int count) {
    if (reader_.joinable()) {
        wait_for_reader();
        if (pending_.first == first && pending_.count == count) {
            if (!pending_ok_) {
                std::fputs(pending_.message.c_str(), stdout);
                return false;
            }
            current_ = pending_.values;
            back_ = 1 - back_;
            first_ = first;
            return true;
        }
    }
    chunk_read read{values_[1 - back_].data(), first, count, false, std::string()};
    if (!read_chunk(read)) {
        std::fputs(read.message.c_str(), stdout);
        return false;
    }
    current_ = read.values;
    first_ = first;
    return true;
}

void signal_chunks::fetch_ahead(int first, int count) {
    if (!ahead_ || count <= 0) return;
    wait_for_reader();
    pending_.values = values_[back_].data();
    pending_.first = first;
    pending_.count = count;
    pending_.message.clear();
    pending_ok_ = false;
    try {
        reader_ = std::thread([this] { pending_ok_ = read_chunk(pending_); });
    } catch (const std::system_error &) {
        // No thread to be had: the fetch reads the chunk on the spot.
    }
}

bool signal_chunks::read_chunk(chunk_read &read) {
    // The chunk that follows the one read last was asked for as that was
    // read: the kernel need not be asked again.
    read.advised = read.first == advised_first_;
    advised_first_ = -1;
    if (readers_ == 2 && all_kept_ && keep_open_) {
        // Two halves of whole batches; the first half's message is the one a
        // reading in file order would have met first.
        const size_t batch = static_cast<size_t>(batch_);
        const size_t half = (nfiles_ / batch + 1) / 2 * batch;
        chunk_read second = read;
        bool second_ok = false;
        std::thread other;
        try {
            other = std::thread(
                [&] { second_ok = read_files(second, half, nfiles_, staging_[1].data()); });
        } catch (const std::system_error &) {
            second_ok = read_files(second, half, nfiles_, staging_[1].data());
        }
        const bool first_ok = read_files(read, 0, half, staging_[0].data());
        if (other.joinable()) other.join();
        if (first_ok && !second_ok) read.message = second.message;
        if (!first_ok || !second_ok) return false;
    } else if (!read_files(read, 0, nfiles_, staging_[0].data())) {
        return false;
    }
    all_kept_ = keep_open_;
    advised_first_ = read.first + read.count;
    return true;
}

bool signal_chunks::read_files(chunk_read &read, size_t k0, size_t k1, float *staging) {
    size_t k = k0;
    while (k < k1) {
        if (cancel_) return false;
        const size_t next = std::min(k1, k + static_cast<size_t>(batch_));
        if (!read_batch(read, k, next, staging)) return false;
        k = next;
    }
    return true;
}

bool signal_chunks::read_batch(chunk_read &read, size_t k0, size_t k1, float *staging) {
    const uint64_t voxels = streamed_frame_voxels();
    const size_t chunk = static_cast<size_t>(chunk_);
    const int first = read.first, count = read.count;
    const int next_first = first + count;
    const int next_count =
        static_cast<int>(std::min<int64_t>(chunk_, static_cast<int64_t>(voxels) - next_first));
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
        if (streamed_[k].entry == nullptr) {
            effect[b] = entry->effect + first;
            error[b] = entry->effect_stderr + first;
            continue;
        }
        if (kept_[k] >= 0) {  // checked when it was opened
            fds[b] = kept_[k];
            if (!read.advised) read_ahead(fds[b], voxels, first, count);
            continue;
        }
        int fd = cancel_ ? -1 : ::open(entry->name, O_RDONLY | O_CLOEXEC);
        if (fd < 0 && !cancel_ && (errno == EMFILE || errno == ENFILE) && keep_open_) {
            // Fewer descriptors than counted on: the files before this batch
            // are closed, and from now on every file is closed after its read.
            keep_open_ = false;
            for (size_t j = 0; j < k0; ++j)
                if (kept_[j] >= 0) {
                    ::close(kept_[j]);
                    kept_[j] = -1;
                }
            fd = ::open(entry->name, O_RDONLY | O_CLOEXEC);
        }
        if (fd < 0 && !cancel_ && (errno == EMFILE || errno == ENFILE) && k > k0) {
            opened = k;
            break;
        }
        struct stat status;
        if (cancel_) {
            // Stopped: nothing more to read, nothing to say.
        } else if (fd < 0) {
            read.message = std::string("Error: cannot open file ") + entry->name + ".\n";
        } else if (::fstat(fd, &status) != 0 || status.st_dev != streamed_[k].device ||
                   status.st_ino != streamed_[k].inode) {
            read.message = std::string("Error: the signal file ") + entry->name +
                           " changed during the analysis.\n";
        } else {
            fds[b] = fd;
            if (keep_open_) kept_[k] = fd;
            if (!read.advised) read_ahead(fd, voxels, first, count);
            continue;
        }
        if (fd >= 0) ::close(fd);
        for (size_t j = k0; j < k; ++j)
            if (fds[j - k0] >= 0 && kept_[j] < 0) ::close(fds[j - k0]);
        return false;
    }

    // Read the segments in file order, ask for the next chunk's, close.
    bool ok = true;
    for (size_t k = k0; k < opened; ++k) {
        const size_t b = k - k0;
        if (fds[b] < 0) continue;
        float *to = staging + 2 * b * chunk;
        if (ok && (!read_signal_values(fds[b], static_cast<uint64_t>(first), count, to) ||
                   !read_signal_values(fds[b], voxels + first, count, to + chunk))) {
            read.message = std::string("Error reading the floating point data from file ") +
                           entries_[k]->name + "\n";
            ok = false;
        }
        // A file kept open keeps the kernel's own read-ahead state, which
        // follows its segments chunk after chunk: advice per chunk would
        // only cost a system call per file and chunk (at 10,000 files they
        // took half the run's time).
        if (ok && kept_[k] < 0) read_ahead(fds[b], voxels, next_first, next_count);
        if (kept_[k] < 0) ::close(fds[b]);
        effect[b] = to;
        error[b] = to + chunk;
    }
    if (!ok) return false;

    // Into the chunk, voxel by voxel, in tiles of kTile voxels, so that both
    // the segments read and the voxels written stay in the cache.
    const size_t width = opened - k0;
    const int kTile = 16;
    for (int v0 = 0; v0 < count; v0 += kTile)
        transpose_tile(effect, error, width, v0, std::min(count, v0 + kTile), nfiles_, absolute_,
                       read.values + static_cast<size_t>(v0) * 2 * nfiles_ + k0);
    // The files after a shortened batch.
    return opened == k1 || read_batch(read, opened, k1, staging);
}
