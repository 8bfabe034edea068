// Where the voxel passes get the signal values from.  The data of a signal
// file are either held in memory (read_signal_files reads every file so) or
// read from the file as the passes go, a chunk of voxels at a time, so that
// the program's memory does not grow with the study.  The values are the
// same bytes either way.  Internal to the driver.
#ifndef FMRI_REM_SIGNAL_DATA_H
#define FMRI_REM_SIGNAL_DATA_H

#include <vector>

#include "driver.h"

// Loads the signal files as read_signal_files does; with read_on_demand, a
// regular data file that is long enough is kept open and read as the passes
// go instead.  Any other file (a pipe, say), every file once no more can be
// kept open, and a file that a result written before the second pass
// ("basis.dat", "sigma2") would overwrite, is read into memory at once.
int load_signal_files(int read_on_demand);

// Reads the data of every file kept open into memory and closes it; 0, or 1
// after an error message.
int hold_signal_data_in_memory(void);

// 0 while every file read on demand has the size and modification time it
// had when it was opened, else 1 after an error message: the values read on
// demand would not be those of the file as it was loaded.
int check_signal_files_unchanged(void);

// The effect and error values of every signal file over one chunk of voxels
// at a time, from memory or from the files.
class signal_chunks {
  public:
    signal_chunks(file_list_entry *const *entries, int nfiles);

    // Voxels per chunk: about 1 MB of values per chunk when they are read
    // from the files, more when they are all in memory.
    int chunk_voxels() const { return chunk_; }

    // Values of voxels first .. first+count-1 (count at most chunk_voxels());
    // false after an error message.
    bool fetch(int first, int count);

    // Values of file k at a voxel of the chunk fetched last.
    float effect(int k, int voxel) const { return effect_[k][voxel - first_]; }
    float error(int k, int voxel) const { return error_[k][voxel - first_]; }

  private:
    file_list_entry *const *entries_;
    int nfiles_;
    int chunk_;
    int first_ = 0;
    std::vector<const float *> effect_;
    std::vector<const float *> error_;
    std::vector<float> buffer_;
};

#endif
