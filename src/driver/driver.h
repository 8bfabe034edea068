// The program: the signal file list, the voxelwise random-effects analysis
// with its result maps, the smoothing of the variance ratio, and the result
// files.
//
// Functions return 0 on success and 1 on failure after printing their own
// message, unless stated otherwise.
#ifndef FMRI_REM_DRIVER_H
#define FMRI_REM_DRIVER_H

#include "util.h"  // fcomplex

#ifdef __cplusplus
extern "C" {
#endif

// Longest signal file name, including the terminating NUL.
#define DRIVER_NAME_LENGTH 1024

// One signal file: an effect volume and its standard error (two frames of
// 32-bit floats), with the header values the analysis needs.
typedef struct file_list_entry {
    char name[DRIVER_NAME_LENGTH];  // path of the data file
    int nx;                         // voxels along x
    int ny;                         // voxels along y
    int nz;                         // voxels along z
    int nt;                         // frames; must be 2
    int byte_order;                 // as stated by the header; not applied
    int storage_type;               // storage code of the data file; must be 2
    float resolution[3];            // voxel size in mm
    float origin[3];
    float direction[3];
    int dof;                       // degrees of freedom of the file's own analysis
    float *effect;                 // first frame, nx*ny*nz values
    float *effect_stderr;          // second frame, nx*ny*nz values
    struct file_list_entry *next;  // null ends the list
} file_list_entry;

// First node of the signal file list; its geometry is that of every output.
extern file_list_entry file_list_root;

// Resolution elements for the correction of multiple comparisons (1 when no
// correction is asked for).
extern int resels;

// Result maps over the N = nx*ny*nz voxels of the first signal file.
extern float *Sigma2_FE_map;   // N: fixed-effects variance
extern float *Sigma2_RE_map;   // N: random-effects variance (smoothed after regularisation)
extern float **P_map;          // conditions x N: signed -log10 p
extern float **T_map;          // conditions x N: test statistic
extern float **S_map;          // conditions x N: effect size
extern float **dS_map;         // conditions x N: error of the effect size
extern float *Residue_series;  // files x N, only when the residue series is requested

// ---- signal files (signal_files.cpp) ----

// Reads the headers, degrees of freedom and both frames of every file in
// the list, checks that they agree with the first one, sets resels and
// records the output geometry.
int read_signal_files(void);

// Reads the "degrees-of-freedom" value of the text header beside entry's
// data file into *dof.
int read_degrees_of_freedom(file_list_entry *entry, int *dof);

// ---- voxelwise analysis (analysis.cpp) ----

// Degrees of freedom of the smoothed random-effects variance; prints three
// lines and returns the length of the last one.
int compute_effective_dof(int *dof);

// Both voxel passes: REML variances (written to "sigma2"), smoothing of the
// variance ratio, final fit and the test of every condition.
int analyze_random_effects(int residue_requested, int nconditions, int dof);

// ---- variance-ratio smoothing (smoothing.cpp) ----

// A 4-D stack of real or complex values, x fastest, then y, z, t.
typedef struct {
    int nx;
    int ny;
    int nz;
    float resolution[3];
    float origin[3];
    float direction[3];
    float field_of_view[3];
    float time_resolution;
    int nt;
    int nxy;
    int nxyz;
    int nxyzt;
    int nvalues;     // nxyz, or 2*nxyz for a complex stack
    int is_complex;  // bookkeeping: 1 when data holds fcomplex values
    void *data;      // float[nvalues] or fcomplex[...]
} data_stack;

// Replaces Sigma2_RE_map by the fixed variance times the smoothed ratio of
// total to fixed variance, less one (made non-negative).
int regularize_random_effects(void);

// Describes a stack and allocates its data (complex when is_complex != 0).
int create_simple_data_stack(data_stack *stack, int nx, int ny, int nz, int nt, float dx, float dy,
                             float dz, int is_complex);

// Smooths (sharpen == 0) or sharpens the real data of stack with an isotropic
// Gaussian of full width at half maximum fwhm (mm), through k-space.
int smooth_or_sharpen_isotropic(int sharpen, float fwhm, data_stack *stack);

// Transforms every line of a complex stack along axis 1 (x), 2 (y) or 3 (z)
// in place; direction -1 or +1 (+1 divides by the line length).
int ft_1d(int axis, int direction, data_stack *stack);

// Rotates a line of n complex values by half its length (back = 0 or 1).
void swap_x(fcomplex *line, int n, int back);

// Index of element (x, y, z, t); a bad index ends the process.
int index4d_stack(int x, int y, int z, int t, data_stack *stack);

float compute_amplitude(float re, float im);
float compute_phase(float re, float im);

// ---- result files (result_files.cpp) ----

// Writes P-, T- and S- volumes per condition and, when requested, the
// residue series of nfiles frames.
int write_output_files(int residue_requested, int nfiles, int nconditions, int dof);

#ifdef __cplusplus
}
#endif

#endif
