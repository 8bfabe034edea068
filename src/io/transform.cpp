// Building and inverting the 4x4 voxel-to-space matrices.
#include <stdio.h>
#include <stdlib.h>

#include "io.h"
#include "util.h"

extern "C" {

mat44 scale_and_shift_to_mat44(float size_x, float size_y, float size_z, float shift_x,
                               float shift_y, float shift_z, float sign_x, float sign_y,
                               float sign_z) {
    mat44 m;
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) m.m[i][j] = i == j ? 1.0f : 0.0f;
    m.m[0][0] = static_cast<float>(static_cast<double>(size_x) * static_cast<double>(sign_x));
    m.m[1][1] = static_cast<float>(static_cast<double>(size_y) * static_cast<double>(sign_y));
    m.m[2][2] = static_cast<float>(static_cast<double>(size_z) * static_cast<double>(sign_z));
    m.m[0][3] = shift_x;
    m.m[1][3] = shift_y;
    m.m[2][3] = shift_z;
    return m;
}

mat44 general_affine_to_mat44(const float *row_x, const float *row_y, const float *row_z) {
    mat44 m;
    for (int j = 0; j < 4; ++j) {
        m.m[0][j] = row_x[j];
        m.m[1][j] = row_y[j];
        m.m[2][j] = row_z[j];
        m.m[3][j] = j == 3 ? 1.0f : 0.0f;
    }
    return m;
}

mat44 invert_mat44(mat44 m) {
    float **work = float_matrix(4, 4);
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) work[i][j] = m.m[i][j];

    int row = -1;
    if (rInvertSquareMatrix(4, work, &row) != 0) {
        free_float_matrix(work, 4);
        printf("failed on row %d\n", row);
        exit(1);
    }

    mat44 inverse;
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) inverse.m[i][j] = work[i][j];
    free_float_matrix(work, 4);
    return inverse;
}

}  // extern "C"
