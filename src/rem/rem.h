// Random-effects model: the control file contents (REM_input), the model
// (REM), the control file reader, the design matrix, the conditions, the
// reports, REML variance estimation, the final fit and the F test.
#ifndef FMRI_REM_REM_H
#define FMRI_REM_REM_H

#include <stddef.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

// Capacities of the records.
#define REM_MAX_FILES 200
#define REM_MAX_EVENTS 100
#define REM_MAX_RANGES 100
#define REM_MAX_CONDITIONS 100
#define REM_NAME_LENGTH 1024 /* buffer size: at most 1023 characters of text */
// With "reml converged" the files are not limited to REM_MAX_FILES: the
// names and weights of the files beyond it live in the model's own storage
// (REM_file_name, REM_file_weight), up to this many files.
#define REM_MAX_CONVERGED_FILES 1000000

typedef struct {
    int nfiles;
    char file_name[REM_MAX_FILES][REM_NAME_LENGTH];
    float file_weight[REM_MAX_FILES];
    int multiple_comparisons;
    float prior_smoothing;
    float ratio_smoothing;
    int nifti_output;
    int weights_given;
    int overlapping_events;
    char conditions[REM_NAME_LENGTH];
    int reml_method;   /* header line "reml": REM_REML_CLASSIC (default) or REM_REML_CONVERGED */
    int design_layout; /* 1 after a "design" header line: the files carry the design's values */
    /* header line "smoothness": REM_SMOOTHNESS_STATED (default) or REM_SMOOTHNESS_ESTIMATED */
    int smoothness_method;
} rem_input;

/* Stated: the smoothed degrees of freedom follow from the first smoothing
   width and the voxel size.  Estimated: from the smoothness of the
   standardised residuals, and the ratio is smoothed over the analysed
   voxels only. */
#define REM_SMOOTHNESS_STATED 0
#define REM_SMOOTHNESS_ESTIMATED 1

#define REM_REML_CLASSIC 0
#define REM_REML_CONVERGED 1

typedef struct {
    int initialized;
    int nfiles;
    int nevents;
    int nbasis;
    int event_number[REM_MAX_EVENTS];
    int event_shape[REM_MAX_EVENTS]; /* 0 = square, 1 = ramp */
    int event_nranges[REM_MAX_EVENTS];
    int event_nfiles[REM_MAX_EVENTS];
    int range_start[REM_MAX_EVENTS][REM_MAX_RANGES];
    int range_stop[REM_MAX_EVENTS][REM_MAX_RANGES];
    int event_spare[REM_MAX_EVENTS];
    float *beta;                     /* k */
    float **design;                  /* n x k */
    float **v_inverse;               /* n x n */
    float **v_inverse_design;        /* n x k */
    float **normal_matrix;           /* k x k */
    float **normal_inverse;          /* k x k */
    float **design_t_v_inverse;      /* k x n */
    float **estimator;               /* k x n */
    float **hat;                     /* n x n */
    float **identity;                /* n x n */
    float **residue_forming;         /* n x n */
    float **residue_forming_squared; /* n x n */
    float **fixed_variance;          /* n x n */
    float **fixed_variance_squared;  /* n x n */
    float **work;                    /* n x n */
    int nconditions;
    int condition_nrows[REM_MAX_CONDITIONS];
    float **condition_contrast[REM_MAX_CONDITIONS]; /* per condition: rows x k coefficients */
    char condition_name[REM_MAX_CONDITIONS][REM_NAME_LENGTH];
} rem_model;

extern rem_input REM_input;
extern rem_model REM;

// ---- records and event characters (records.cpp) ----
int REM_EventNumberFromChar(char c);
int REM_EventCharFromInteger(int number, char *c);
char REM_EventChar(int number);
int REM_get_event_number(int index);
int REM_get_condition_string(int index, char *text);
// Name and weight of file index (0 <= index < nfiles): the records' arrays
// for the first REM_MAX_FILES files, the model's storage beyond them.
const char *REM_file_name(int index);
float REM_file_weight(int index);
// Stores them for file index (0 <= index < REM_MAX_CONVERGED_FILES, files
// stored in order); an index beyond the arrays needs "reml converged".
void REM_store_file(int index, const char *name, float weight);

// ---- control file (control_file.cpp) ----
int REM_read_control_file(const char *path);
// 0 for a header keyword, 1 for an event line, -1 for an unknown word or a
// keyword's error, -2 for an error of the "design" line (its one message
// says it all).
int REMInternal_decode_keyword(const char *line);
int REMInternal_read_control_file_no_overlapping_events(FILE *file);
int REMInternal_read_control_file_overlapping_events(FILE *file);
void REMInternal_describe_rem_format(void);

// ---- design matrix (design.cpp) ----
void REMInternal_define_design_matrix(void);
// 0 when the design can be estimated, or holds values that are not finite
// (which only draw a warning); else 1 after one line naming the events: an
// event that covers no file, or events whose columns are linearly dependent
// (in double precision, to a relative tolerance).
int REM_check_design(void);

// ---- conditions (conditions.cpp) ----
int REM_define_conditions(const char *text, int *count);

// ---- reports (reports.cpp) ----
void REM_describe_input(void);
void REM_describe_basis_functions(void);

// ---- REML estimation (reml.cpp) ----
void REMInternal_compute_residue_matrix(void);
int REM_REML_iterate(int n, const float *effect, const float *error, const int *dof,
                     float *sigma2_fe, float *sigma2_re);

// ---- converged REML estimate (converged_reml.cpp) ----
// The restricted maximum likelihood estimate of tau2 >= 0 for
// y = X beta + e, Cov(e) = diag(s_i^2) + tau2 I, iterated in double precision
// until a step changes it by less than 1e-10 (1 + tau2), tau2 counted in
// units of the mean s_i^2; a negative maximiser gives 0.  design holds X
// (n x k, rows first), effect y, error s (each s_i must be > 0).  scratch
// holds rem_converged_reml_scratch_size(n, k) doubles; nothing is allocated
// and no global is touched, so threads may call it at once.  Returns 0 when
// converged, REM_CONVERGED_CAPPED when it stopped after
// REM_CONVERGED_ITERATION_CAP evaluations (tau2 is then the last iterate),
// -1 when an error value is not > 0 or a value is not finite (tau2 = 0).
// iterations counts the evaluations of the score.
#define REM_CONVERGED_CAPPED 2
#define REM_CONVERGED_ITERATION_CAP 100
size_t rem_converged_reml_scratch_size(int n, int k);
int rem_converged_reml(int n, int k, const float *design, const float *effect, const float *error,
                       double *scratch, double *tau2, int *iterations);
// The same estimate for count voxels (effects[v] and errors[v], n values
// each), several iterated side by side in the lanes of vector instructions;
// tau2[v], iterations[v] and status[v] (the return value above) are each bit
// for bit what rem_converged_reml gives for voxel v.  scratch holds
// rem_converged_reml_many_scratch_size(n, k) doubles.
size_t rem_converged_reml_many_scratch_size(int n, int k);
void rem_converged_reml_many(int n, int k, const float *design, int count,
                             const float *const *effects, const float *const *errors,
                             double *scratch, double *tau2, int *iterations, int *status);

// ---- final fit and F test (fit.cpp) ----
int REM_fit_final(float sigma2_re, int n, const float *effect, const float *error, float *fitted,
                  float *event_sum);
int REM_calculate_F(int n, int resels, int condition, int dof, float *t_value, float *p_raw,
                    float *p_corrected, float *effect_size, float *effect_error);
int REM_get_DOF(void);

// ======================================================================
// Voxel kernels (workspace.cpp, reference_kernel.cpp, fast_kernel.cpp,
// f_test.cpp).
//
// The voxel passes read the model as read-only data (rem_model_view) and run
// each voxel on a workspace that belongs to one thread and holds everything
// a voxel writes.  Two kernels do the work behind one interface: the
// reference kernel is the model's arithmetic as defined by REM_REML_iterate,
// REM_fit_final and REM_calculate_F (which are thin wrappers of it on the
// global REM), and the fast kernel gives the same bits with exact shortcuts
// and vector instructions, handing a voxel that its shortcuts cannot take to
// the reference kernel on the same workspace.  Kernels never print, exit or
// allocate: they report a status per voxel and the caller decides.
// ======================================================================

// The model as the voxel passes see it: sizes, design and conditions, read
// only.  It points into REM, which must not change while it is in use.
typedef struct {
    int nfiles;             /* n */
    int nbasis;             /* k */
    float *const *design;   /* n x k */
    float *const *identity; /* n x n */
    int nconditions;
    const int *condition_nrows;        /* per condition: rows m */
    float **const *condition_contrast; /* per condition: m x k */
} rem_model_view;

// The checks that the model's operations start with, for callers that run
// the kernels: 0 when the model is ready for n files (and condition c);
// else 1 after the operation's message.  Another number of files than the
// model's ends the process, as REM_REML_iterate does.
int REM_check_model(int n);
int REM_check_condition(int n, int condition);

// The view of the model that REM holds now.
rem_model_view rem_current_model(void);

// Per-voxel results of a kernel.
enum {
    REM_VOXEL_DONE = 0,
    // An error value is not > 0: both variances 0.
    REM_VOXEL_UNUSABLE = -1,
    // The test's p value is undefined (see rem_workspace_ibeta_domain).
    REM_VOXEL_IBETA_DOMAIN_ERROR = 2,
    // The REML estimate repeats without settling: both variances 0.
    REM_VOXEL_UNSETTLED = 3,
    // The converged estimate stopped at its iteration cap: its last iterate.
    REM_VOXEL_CAPPED = 4
};

typedef struct rem_workspace rem_workspace;

// A workspace for voxels of model (which must outlive it); allocates all the
// storage a voxel needs, for both kernels.
rem_workspace *rem_workspace_create(const rem_model_view *model);
void rem_workspace_free(rem_workspace *ws);

// The test's result for one condition at one voxel.
typedef struct {
    float t_value;
    float p_raw;
    float p_corrected;
    float effect_size;
    float effect_error;
} rem_test_result;

typedef struct {
    const char *name; /* "reference" or "fast" */
    // First pass: the fixed-effects variance and the REML estimate of the
    // random-effects variance; REM_VOXEL_DONE, REM_VOXEL_UNUSABLE or
    // REM_VOXEL_UNSETTLED.
    int (*estimate)(rem_workspace *ws, const float *effect, const float *error, const int *dof,
                    float *sigma2_fe, float *sigma2_re);
    // Second pass: the fit with the random-effects variance held fixed;
    // fitted values and event sums, n each.  REM_VOXEL_DONE.
    int (*fit)(rem_workspace *ws, float sigma2_re, const float *effect, const float *error,
               float *fitted, float *event_sum);
    // The test of condition c on the last fit; REM_VOXEL_DONE or
    // REM_VOXEL_IBETA_DOMAIN_ERROR.
    int (*test)(rem_workspace *ws, int condition, int resels, int dof, rem_test_result *result);
    // The first pass over up to REM_CONVERGED_GROUP voxels at once, each with
    // estimate's results and status (result[v]); 0, or 1 for too many.
    // Null when the kernel has only the voxel-by-voxel estimate.
    int (*estimate_many)(rem_workspace *ws, int count, const float *const *effects,
                         const float *const *errors, const int *dof, float *sigma2_fe,
                         float *sigma2_re, int *result);
} rem_kernel;

// The most voxels that a kernel's estimate_many takes at once.
#define REM_CONVERGED_GROUP 16

// The first pass over up to REM_CONVERGED_GROUP voxels on kernel: its
// estimate_many where it has one, else its estimate voxel by voxel; each
// voxel's variances and status (result[v]) as estimate gives them.
void rem_estimate_group(const rem_kernel *kernel, rem_workspace *ws, int count,
                        const float *const *effects, const float *const *errors, const int *dof,
                        float *sigma2_fe, float *sigma2_re, int *result);

extern const rem_kernel rem_reference_kernel;
extern const rem_kernel rem_fast_kernel;
// With "reml converged": the converged estimate in the first pass
// (REM_VOXEL_CAPPED when it stopped at its cap), and the fit of the fast or
// of the reference kernel.
extern const rem_kernel rem_converged_kernel;
extern const rem_kernel rem_converged_reference_kernel;

// The arguments a and b of the incomplete beta function whose domain error a
// test reported last on this workspace.
void rem_workspace_ibeta_domain(const rem_workspace *ws, double *a, double *b);
// Number of estimates and fits that the fast kernel handed to the reference
// kernel on this workspace.
long rem_workspace_reference_count(const rem_workspace *ws);
// The last fit's amplitudes (k values) and normal_inverse (k x k rows).
const float *rem_workspace_beta(const rem_workspace *ws);
float *const *rem_workspace_normal_inverse(const rem_workspace *ws);

// Name of the vector instruction set of the fast kernel ("avx512", "avx2",
// "sse2" or "scalar"); the best one the processor has is chosen at start.
// Selecting another (before any thread runs the kernel) returns 0, or 1 when
// the processor lacks it.  All give the same bits: each lane does the same
// separate multiply and add.
const char *rem_fast_instruction_set(void);
int rem_fast_select_instruction_set(const char *name);

#ifdef __cplusplus
}
#endif

#endif
