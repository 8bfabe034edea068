// Random-effects model: the control file contents (REM_input), the model
// (REM), the control file reader, the design matrix, the conditions, the
// reports, REML variance estimation, the final fit and the F test.
#ifndef FMRI_REM_REM_H
#define FMRI_REM_REM_H

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
} rem_input;

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
    float *beta;                      /* k */
    float **design;                   /* n x k */
    float **v_inverse;                /* n x n */
    float **v_inverse_design;         /* n x k */
    float **normal_matrix;            /* k x k */
    float **normal_inverse;           /* k x k */
    float **design_t_v_inverse;       /* k x n */
    float **estimator;                /* k x n */
    float **hat;                      /* n x n */
    float **identity;                 /* n x n */
    float **residue_forming;          /* n x n */
    float **residue_forming_squared;  /* n x n */
    float **fixed_variance;           /* n x n */
    float **fixed_variance_squared;   /* n x n */
    float **work;                     /* n x n */
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

// ---- final fit and F test (fit.cpp) ----
int REM_fit_final(float sigma2_re, int n, const float *effect, const float *error, float *fitted,
                  float *event_sum);
int REM_calculate_F(int n, int resels, int condition, int dof, float *t_value, float *p_raw,
                    float *p_corrected, float *effect_size, float *effect_error);
int REM_get_DOF(void);

#ifdef __cplusplus
}
#endif

#endif
