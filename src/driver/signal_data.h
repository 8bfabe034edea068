// Where the voxel passes get the signal values from.  The data of a signal
// file are either held in memory (read_signal_files reads every file so) or
// read from the file as the passes go, a chunk of voxels at a time, so that
// the program's memory does not grow with the study.  The values are the
// same bytes either way.  Internal to the driver.
#ifndef FMRI_REM_SIGNAL_DATA_H
#define FMRI_REM_SIGNAL_DATA_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include <sys/stat.h>
#include <sys/types.h>

#include "driver.h"

// Loads the signal files as read_signal_files does; with read_on_demand, a
// regular data file that is long enough is read as the passes go instead,
// a chunk of voxels at a time (see signal_chunks).  Any other file (a
// pipe, say), and a file that a result written before the second pass
// ("basis.dat", "sigma2") would overwrite, is read into memory at once.
int load_signal_files(int read_on_demand);

// Reads the data of every file read on demand into memory; 0, or 1 after an
// error message.
int hold_signal_data_in_memory(void);

// 0 while every file read on demand is the file (device and inode), of the
// size and modification time, that was loaded, else 1 after an error
// message: the values read on demand would not be those of the file as it
// was loaded.
int check_signal_files_unchanged(void);

// A file read on demand and what identifies its contents.
struct streamed_signal_file {
    file_list_entry *entry;
    dev_t device;
    ino_t inode;
    off_t size;
    struct timespec modified;
};

// The files read on demand, in list order, and the voxels of their frames.
const std::vector<streamed_signal_file> &streamed_signal_files(void);
uint32_t streamed_frame_voxels(void);

// Whether status (of the file as opened now) is that of file as loaded.
bool same_signal_file(const streamed_signal_file &file, const struct stat &status);

// Reads count floats at float offset first of the file open on fd; false on
// a short read or an error.
bool read_signal_values(int fd, uint64_t first, uint32_t count, float *values);

// A block of floats for the chunk sources.  Blocks given back are kept for
// the run's next chunk source, so that the passes of a run map the pages of
// their buffers once, not once per pass (a page fault costs more than the
// values it maps on some virtual machines), and a block's values are not set
// on taking it: every value of a chunk is written before it is read.
class chunk_buffer {
  public:
    chunk_buffer() = default;
    ~chunk_buffer();
    chunk_buffer(const chunk_buffer &) = delete;
    chunk_buffer &operator=(const chunk_buffer &) = delete;
    // At least floats values (any earlier block is given back first).
    void take(size_t floats);
    float *data() const { return data_; }

  private:
    float *data_ = nullptr;
    size_t floats_ = 0;
};

// The effect and error values of every signal file over one chunk of voxels
// at a time, from memory or from the files, held voxel by voxel: the values
// of one voxel are next to each other, in file order.
//
// The chunk shrinks as the files grow in number, so that its values take at
// most about kBufferBytes whatever the number of files.  The files read on
// demand are opened in batches of at most kBatch (fewer when the limit of
// open files is lower), their segments of the chunk read in file order into
// a staging block and transposed into the chunk; the kernel is asked to read
// the next chunk's segments ahead while the voxels of this one are analysed.
// With absolute_errors the error values are held without their signs.
// Where the limit of open files allows a descriptor per file (it is raised
// up to its hard limit for that), each file is opened once, at its first
// chunk, and kept open until the object goes: the results are the same,
// without an open and a close of every file for every chunk.  Once every file
// has its descriptor, a chunk is read by up to two threads (readers), each
// reading and transposing its own half of the files: the copying out of the
// page cache is most of the work of a pass whose data are there.
//
// With ahead, a second buffer takes the chunk asked for by fetch_ahead: a
// thread of its own reads and transposes it while the caller analyses the
// chunk fetched last, and the next fetch of that chunk waits for it and
// prints its error message, if any, as a fetch on the spot would.  The
// thread touches only this object's buffers and copies, the entries and
// their files, so a run that exits meanwhile cannot be disturbed by it.
class signal_chunks {
  public:
    static const size_t kBufferBytes = size_t(96) << 20;
    static const int kMaxChunk = 16384;
    static const int kBatch = 64;

    signal_chunks(file_list_entry *const *entries, int nfiles, bool ahead = false, int readers = 1,
                  bool absolute_errors = false);
    ~signal_chunks();
    signal_chunks(const signal_chunks &) = delete;
    signal_chunks &operator=(const signal_chunks &) = delete;

    // Voxels per chunk.
    int chunk_voxels() const { return chunk_; }

    // Values of voxels first .. first+count-1 (count at most chunk_voxels());
    // false after an error message.
    bool fetch(int first, int count);

    // Starts reading voxels first .. first+count-1 for the next fetch (with
    // ahead, else nothing); the values of the chunk fetched last stay.
    void fetch_ahead(int first, int count);

    // Stops the reading ahead, if any, and waits for its thread to end; the
    // chunk it was reading is then read by its fetch.
    void stop_reading_ahead();

    // The nfiles effect and error values of a voxel of the chunk fetched last.
    const float *effects(int voxel) const {
        return current_ + static_cast<size_t>(voxel - first_) * 2 * nfiles_;
    }
    const float *errors(int voxel) const { return effects(voxel) + nfiles_; }
    float effect(int k, int voxel) const { return effects(voxel)[k]; }
    float error(int k, int voxel) const { return errors(voxel)[k]; }

  private:
    // A chunk being read: where to, and what went wrong.
    struct chunk_read {
        float *values;
        int first, count;
        bool advised;         // the kernel was asked for its segments already
        std::string message;  // the error message, printed by fetch
    };
    bool read_chunk(chunk_read &read);
    bool read_files(chunk_read &read, size_t k0, size_t k1, float *staging);
    bool read_batch(chunk_read &read, size_t k0, size_t k1, float *staging);
    void wait_for_reader();

    file_list_entry *const *entries_;
    size_t nfiles_;
    bool absolute_;  // the error values held without their signs
    int chunk_;
    int batch_;
    int first_ = 0;
    const float *current_ = nullptr;  // the chunk fetched last
    // Per file, the file read on demand as loaded (a copy: the thread may
    // outlive the list at exit), or an entry of null when held in memory.
    std::vector<streamed_signal_file> streamed_;
    chunk_buffer values_[2];   // chunk x 2 x nfiles; the second with ahead
    int back_ = 1;             // the buffer fetch_ahead reads into
    chunk_buffer staging_[2];  // batch x 2 x chunk; the second with two readers
    bool keep_open_ = false;   // each file's descriptor kept from its first chunk on
    bool all_kept_ = false;    // every file read on demand has its kept descriptor
    int readers_ = 1;          // threads that read a chunk, each its share of the files
    std::vector<int> kept_;    // per file: its kept descriptor, or -1
    int advised_first_ = -1;   // the chunk whose segments were asked for
    bool ahead_;
    std::thread reader_;
    chunk_read pending_{};  // what the thread reads
    bool pending_ok_ = false;
    std::atomic<bool> cancel_{false};
};

#endif
