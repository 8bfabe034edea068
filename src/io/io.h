// Volume headers: the header record and format detection, the native text
// ("vistra") header, NIfTI-1 reading and writing, FreeSurfer slice-stack
// headers, the voxel-to-space transforms, and the opener of result volumes.
//
// Every function returns 0 on success and 1 on failure after printing its
// own message, unless stated otherwise.
#ifndef FMRI_REM_IO_H
#define FMRI_REM_IO_H

#include <nifti1_io.h>  // nifti_1_header, mat44
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

// Longest file name handled, including the terminating NUL.
#define IO_NAME_LENGTH 1024

// Storage codes of a data file (storage_type, header_storage_type,
// get_extension).
enum {
    STORAGE_UNKNOWN = -1,      // extension not recognised
    STORAGE_BSHORT = 1,        // 16-bit signed integer, ".bshort"
    STORAGE_BFLOAT = 2,        // 32-bit IEEE float, ".bfloat"
    STORAGE_BLONG = 3,         // 32-bit signed integer, ".blong"
    STORAGE_USHORT = 4,        // 16-bit unsigned integer, ".ushort"
    STORAGE_UCHAR = 5,         // 8-bit unsigned integer (only through a header)
    STORAGE_NIFTI_SINGLE = 6,  // NIfTI-1 single file, ".nii"
    STORAGE_NIFTI_PAIR = 7,    // NIfTI-1 pair, ".img" data with ".hdr" header
    STORAGE_FREESURFER = 8     // FreeSurfer slice stack, name ending in "_"
};

// Everything read from one volume's header.  Plain record; the caller owns
// the storage and read_volume_header fills it in place.
typedef struct {
    char file_name[IO_NAME_LENGTH];  // name as given to read_volume_header
    int nx;                          // voxels along x (columns)
    int ny;                          // voxels along y (rows)
    int nz;                          // voxels along z (slices)
    float resolution[3];             // voxel size along x, y, z
    float origin[3];                 // position of the first voxel
    float direction[3];              // sign of each axis: 1 or -1
    float field_of_view[3];          // resolution times voxel count per axis
    float time_resolution;           // time between frames
    int nt;                          // number of frames
    int nxy;                         // nx * ny
    int nxyz;                        // nxy * nz
    int nxyzt;                       // nxyz * nt: values in the data file
    int byte_order;                  // 1 = least significant byte first, 0 = most
    mat44 voxel_to_space;            // (i, j, k, 1) -> space coordinates
    mat44 space_to_voxel;            // inverse of voxel_to_space
    int oblique;                     // 1 if the rotation has off-diagonal terms
    int storage_type;                // storage code of the data file
    int header_storage_type;         // storage code declared inside the header
    int data_type;                   // 0 magnitude, 1 complex, 2 magnitude-phase
    int degrees_of_freedom;          // of a statistic stored in the volume
    float data_offset;               // byte offset of the first voxel (NIfTI)
    float scale_slope;               // NIfTI scl_slope
    float scale_intercept;           // NIfTI scl_inter
    float qfac;                      // NIfTI pixdim[0]
    float quatern_b;                 // NIfTI quatern_b
    float quatern_c;                 // NIfTI quatern_c
    float quatern_d;                 // NIfTI quatern_d
    int registration;                // -1 paxinos-rat, 1 PW-rat, 0 none
} volume_header;

// ---- format detection and shared utilities (volume_header.cpp) ----

// Fills header from the header of the volume called name, choosing the
// reader by the file name: a trailing "_" is a FreeSurfer stem, ".nii" and
// ".img" are NIfTI-1, any other extension a native text header, and a name
// without extension in its last path component a native volume whose header
// is name + ".hdr".  name may be modified (a trailing newline after the
// extension is removed, see get_extension).  Names of 1024 or more characters
// are rejected.
int read_volume_header(char *name, volume_header *header);

// Writes the storage code of the text after the last "." of name to *type
// (-1 when not recognised) and returns 0; returns 1 (type untouched) when
// name has no ".".  A newline ending the extension is overwritten by a NUL
// in name.  extension is not used.
int get_extension(char *name, int *type, char *extension);

// Copies name into result (a buffer of IO_NAME_LENGTH characters) with the
// text after the last "." replaced by new_extension (given without the
// dot); the code of the old extension goes to *type as for get_extension.
// Returns 1 when name has no extension or the result would not fit.
int replace_extension(char *name, int *type, const char *new_extension, char *result);

// 1 on a machine that stores the least significant byte first, else 0.
int machine_byte_order(void);

// Reverse the byte order of the 2 or 4 bytes at p, in place.
void swap_16(void *p);
void swap_32(void *p);

// ---- native text header (vistra_header.cpp) ----

// name is the data file's name (its extension is replaced by "hdr") or an
// extension-less name to which ".hdr" has been appended.
int read_vistra_header(char *name, volume_header *header);

// Decodes one non-blank header line: 0 when understood, 1 on any error,
// -1 for an "info" keyword (end of the header).
int decode_vistra_header_keyword(const char *line, volume_header *header);

// ---- NIfTI-1 (nifti_header.cpp) ----

// header->storage_type must already be 6 (".nii") or 7 (".img").
int read_nifti_header(char *name, volume_header *header);

// Writes stem + ".nii" with the geometry set by set_output_geometry, frames
// frames and, when with_dof_extension is non-zero, the degrees-of-freedom
// extension holding dof.  *stream is left open after the header, ready for
// the voxel data.
int write_nifti_header(int with_dof_extension, int frames, int dof, const char *stem,
                       FILE **stream);

// ---- FreeSurfer (freesurfer_header.cpp) ----

// name is the stem followed by "_"; reads stem.bhdr, name000.hdr and probes
// name000.bshort / name000.bfloat.
int read_freesurfer_header(char *name, volume_header *header);

// Decodes one non-blank ".bhdr" line into header or into corners (sixteen
// floats: top-left r a s, top-right r a s, bottom-right r a s, normal r a s,
// te, tr, ti, flip angle).  0 for a known keyword, 1 otherwise.
int decode_freesurfer_header_keyword(const char *line, volume_header *header, float *corners);

// ---- spatial transforms (transform.cpp) ----

// Diagonal size*sign per axis, translation column shift, identity otherwise.
mat44 scale_and_shift_to_mat44(float size_x, float size_y, float size_z, float shift_x,
                               float shift_y, float shift_z, float sign_x, float sign_y,
                               float sign_z);

// Rows 0..2 from the three NIfTI srow arrays of four floats; row 3 is 0 0 0 1.
mat44 general_affine_to_mat44(const float *row_x, const float *row_y, const float *row_z);

// Inverse of m.  A singular m prints "failed on row %d" and ends the process
// with exit status 1.
mat44 invert_mat44(mat44 m);

// ---- result volumes (output_file.cpp) ----

// Records the geometry that every result volume takes (that of the first
// signal file) and whether NIfTI-1 files are written instead of native
// headers.  The driver calls it once, when the signal files are read and
// before the first open_output_file; resolution, origin and direction are
// three floats each and are copied.  open_output_file refuses to open
// anything until it has been called.
void set_output_geometry(int nx, int ny, int nz, const float *resolution, const float *origin,
                         const float *direction, int nifti_output);

// Writes the header of result volume stem (stem + ".hdr", or stem + ".nii"
// when NIfTI output is selected) with frames frames and dof degrees of
// freedom, and opens the data file (stem + ".bfloat") into *stream,
// positioned for the first value.  with_dof_extension only affects NIfTI.
// 1 after a message when a file cannot be opened, or when the geometry has
// not been set yet.
int open_output_file(int with_dof_extension, int frames, int dof, const char *stem, FILE **stream);

#ifdef __cplusplus
}
#endif

#endif
