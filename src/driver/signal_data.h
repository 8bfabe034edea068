// Signal data read on demand.  The fast voxel passes need, for a run of
// voxels at a time, the effect and error values of every signal file; when
// the files are opened with read_signal_files_streamed() those values are
// read from the files as the passes go, instead of being held in memory for
// the whole run, so the program's memory no longer grows with the study.
// The values are the same bytes either way.
#ifndef FMRI_REM_SIGNAL_DATA_H
#define FMRI_REM_SIGNAL_DATA_H

#include "driver.h"

// As read_signal_files(), but a regular data file that is long enough is
// kept open and read on demand; any other file (a pipe, say) is read into
// memory as usual, and so is every file once no more can be kept open.
int read_signal_files_streamed(void);

// 1 while some file's data are read on demand.
int signal_data_streamed(void);

// Values first .. first+count-1 of frame 0 (effect) or 1 (standard error) of
// entry: a pointer into the entry's own data when they are in memory, or
// buffer (count floats) filled from the file.  Null after an error message.
const float *signal_values(const file_list_entry *entry, int frame, int first, int count,
                           float *buffer);

// Reads every file's data into memory and closes the files; 0, or 1 after
// an error message.
int load_streamed_signal_data(void);

// Before result files named stem, or stem + an extension of volume files,
// are written: when one of them is one of the open signal files (through a
// link, say), which writing would overwrite, the data are read into memory
// first.  0, or 1 after an error message.
int keep_signal_data_from(const char *stem);

// 0 while every open signal file has the size and modification time it had
// when it was opened, else 1 after an error message: the values read on
// demand would not be those of the file as it was loaded.
int check_streamed_signal_files(void);

#endif
