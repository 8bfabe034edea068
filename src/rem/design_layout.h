// The layout with a design matrix of the user's own: a "design" header line
// names the columns by event characters, and every file line after
// "measurements" gives the path and one value per column.  Internal to the
// model module.
#ifndef FMRI_REM_DESIGN_LAYOUT_H
#define FMRI_REM_DESIGN_LAYOUT_H

#include <stdio.h>

// From the control file reader (control_file.cpp), for the layout's file
// list: the next line that holds a word (1; 0 at the end of the file, -1
// after a message), with the same buffers and line count as the reader's
// own; a file line's path (0, or 1 after the message for one file too
// many); and the current line number and path for messages.
int rem_control_read_word_line(FILE *file, char *line, char *word, const char **rest);
int rem_control_add_file(const char *path);
int rem_control_line_number(void);
const char *rem_control_path(void);

// The "design" header line after its keyword: its event characters become
// the events (one column each, in order) and the layout is chosen.  0, or -2
// after the one line that says what is wrong.
int REMInternal_decode_design_line(const char *rest);

// A header line of the design layout before it is decoded as a keyword: 1
// for the "measurements" line that ends the header, 0 for any other line,
// -1 after the message for an event line, which this layout has none of.
int REMInternal_design_header_line(const char *line);

// The file list after "measurements": 0, or 1 after the message (a line
// without exactly one finite number per column, an event line, no file, a
// column of zeros, no degrees of freedom left for the variance).  At the end
// of the header without "measurements" the reader calls it with a null file,
// which fails with its message.
int REMInternal_read_control_file_design_layout(FILE *file);

// The value of file i in column j as read (0 <= i < nfiles, 0 <= j < nevents).
float rem_design_layout_value(int i, int j);

#endif
