// Smoothness of the data estimated from the standardised residuals of the
// design, for the degrees of freedom of the smoothed variance ratio ("smoothness
// estimated" in the analysis file).  Internal to the driver.
#ifndef FMRI_REM_SMOOTHNESS_H
#define FMRI_REM_SMOOTHNESS_H

// Full width at half maximum (mm) along x, y, z of the standardised
// least-squares residuals of the design, over the voxels where every file
// has a finite effect and a non-zero error; *maps_used tells how many files'
// residual maps entered.  0, or 1 after an error message.
int estimate_residual_smoothness(double fwhm[3], int *maps_used);

// Correlation of neighbouring values along x, y and z, pooled over the maps
// (each nx*ny*nz, x fastest) and over the pairs of voxels that are both
// inside (1 along an axis without such pairs); returns the number of pairs
// over the three axes.
int neighbour_correlations(const float *const *maps, int nmaps, const unsigned char *inside, int nx,
                           int ny, int nz, double correlation[3]);

// Full width at half maximum of a Gaussian field whose values at
// voxel_size apart correlate by correlation: 0 for a correlation of 0 or
// less, infinite for 1 or more.
double fwhm_from_neighbour_correlation(double correlation, double voxel_size);

// Factor by which smoothing the variance ratio with ratio_fwhm multiplies
// its degrees of freedom, for data of the given smoothness and voxel size:
// the product over the axes of sqrt(2 f^2 / (w^2 + d^2) + 1).
double smoothed_dof_boost(const double fwhm[3], const float voxel[3], double ratio_fwhm);

#endif
