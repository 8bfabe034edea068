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
    int reml_method; /* header line "reml": REM_REML_CLASSIC (default) or REM_REML_CONVERGED */
} rem_input;

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
    int **condition_contrast[REM_MAX_CONDITIONS];
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

// ---- control file (control_file.cpp) ----
int REM_read_control_file(const char *path);
int REMInternal_decode_keyword(const char *line);
int REMInternal_read_control_file_no_overlapping_events(FILE *file);
int REMInternal_read_control_file_overlapping_events(FILE *file);
void REMInternal_describe_rem_format(void);

// ---- design matrix (design.cpp) ----
void REMInternal_define_design_matrix(void);

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

// The first pass with the converged estimate: sigma2_fe exactly as
// REM_REML_iterate gives it, sigma2_re the converged estimate (as float).
// Same arguments, messages and results as REM_REML_iterate, and
// REM_CONVERGED_CAPPED for a voxel that reached the iteration cap.  The
// workspace (a copy of the design and the scratch) belongs to one thread;
// it follows a design rebuilt after it was created.
typedef struct rem_converged_workspace rem_converged_workspace;
rem_converged_workspace *rem_converged_workspace_create(void);
void rem_converged_workspace_free(rem_converged_workspace *ws);
int rem_converged_first_pass(rem_converged_workspace *ws, int n, const float *effect,
                             const float *error, const int *dof, float *sigma2_fe,
                             float *sigma2_re);

// ---- final fit and F test (fit.cpp) ----
int REM_fit_final(float sigma2_re, int n, const float *effect, const float *error, float *fitted,
                  float *event_sum);
int REM_calculate_F(int n, int resels, int condition, int dof, float *t_value, float *p_raw,
                    float *p_corrected, float *effect_size, float *effect_error);
int REM_get_DOF(void);

// ======================================================================
// Fast per-voxel kernel (fast_reml.cpp, fast_kernels.cpp).
//
// The same estimate, fit and test as REM_REML_iterate, REM_fit_final and
// REM_calculate_F, bit for bit, but re-entrant: the design is read from REM
// (read only) and everything else lives in a workspace that belongs to one
// thread; the fast route allocates nothing per voxel.  A voxel whose values
// it cannot take (values that are not finite, a zero variance, ...) is
// handed to REM_REML_iterate or REM_fit_final themselves, one thread at a
// time; those write the model's fit matrices.  Create the workspace after
// the design has been built (it follows a rebuilt design by itself).
// ======================================================================
typedef struct rem_workspace rem_workspace;

rem_workspace *rem_workspace_create(void);
void rem_workspace_free(rem_workspace *ws);

// Same arguments, results and messages as REM_REML_iterate.
int rem_fast_reml(rem_workspace *ws, int n, const float *effect, const float *error, const int *dof,
                  float *sigma2_fe, float *sigma2_re);
// Same as REM_fit_final; beta and normal_inverse are kept in the workspace.
int rem_fast_fit_final(rem_workspace *ws, float sigma2_re, int n, const float *effect,
                       const float *error, float *fitted, float *event_sum);
// Same as REM_calculate_F, on the workspace's last fit.
int rem_fast_calculate_F(rem_workspace *ws, int n, int resels, int condition, int dof,
                         float *t_value, float *p_raw, float *p_corrected, float *effect_size,
                         float *effect_error);

// The last fit's amplitudes (k values) and normal_inverse (k x k, rows first).
const float *rem_workspace_beta(const rem_workspace *ws);
const float *rem_workspace_normal_inverse(const rem_workspace *ws);
// 1: every voxel is handed to the plain operations, as otherwise only those
// where the fast route's shortcuts do not apply.
void rem_workspace_set_general_only(rem_workspace *ws, int general_only);
// Number of REML or fit calls handed to the plain operations.
long rem_workspace_general_count(const rem_workspace *ws);
// Name of the vector instruction set in use ("avx512", "avx2" or "sse2"); the
// best one the processor has is chosen at start.  Selecting another (before
// any thread runs the kernel) returns 0, or 1 when the processor lacks it.
// All give the same bits: each lane does the same separate multiply and add.
const char *rem_fast_instruction_set(void);
int rem_fast_select_instruction_set(const char *name);

#ifdef __cplusplus
}
#endif

#endif
