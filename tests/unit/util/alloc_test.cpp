// Typed allocators and the fatal exit on exhausted memory.
#include "util.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstdint>

TEST(Alloc, ShapesAndEmptySizes) {
    float **m = float_matrix(3, 0);  // pointer array and three empty rows
    ASSERT_NE(m, nullptr);
    free_float_matrix(m, 3);
    free_int_matrix(int_matrix(0, 5), 0);  // only the pointer array

    // Rows are separate blocks: writing every element of every row of each
    // type must stay inside its own allocation (checked by the sanitizers).
    double **d = double_matrix(4, 7);
    int **k = int_matrix(2, 3);
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 7; ++j) d[i][j] = i * 7 + j;
    for (int i = 0; i < 2; ++i)
        for (int j = 0; j < 3; ++j) k[i][j] = i - j;
    EXPECT_EQ(d[3][6], 27.0);
    EXPECT_NE(d[0], d[1]);
    EXPECT_EQ(k[1][0], 1);
    free_double_matrix(d, 4);
    free_int_matrix(k, 2);

    fcomplex *c = fcomplex_vector(2);
    EXPECT_EQ(sizeof(fcomplex), 8u);
    c[1].r = 1.0f;
    c[1].i = -1.0f;
    EXPECT_EQ(reinterpret_cast<float *>(c)[2], 1.0f);  // real part first
    EXPECT_EQ(reinterpret_cast<float *>(c)[3], -1.0f);
    free_fcomplex_vector(c);
    free_float_vector(float_vector(0));
    free_double_vector(double_vector(1));
    free_int_vector(int_vector(1));
}

TEST(AllocDeathTest, AllocErrorWritesThreeLines) {
    EXPECT_EXIT(alloc_error("Allocation error in float_vector()."), testing::ExitedWithCode(1),
                "^Fatal Error:\nAllocation error in float_vector\\(\\)\\.\nProgram aborted\\.\n$");
}

#if defined(__SANITIZE_ADDRESS__)
#define FMRI_REM_UNDER_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define FMRI_REM_UNDER_ASAN 1
#endif
#endif

// A real shortage is made by capping the child's address space; the
// sanitizers manage their own memory and report such requests themselves.
TEST(AllocDeathTest, ExhaustedMemoryEndsTheProcess) {
#ifdef FMRI_REM_UNDER_ASAN
    GTEST_SKIP() << "address space limits do not mix with AddressSanitizer";
#else
    auto with_limit = [](auto allocate) {
        struct rlimit limit;
        getrlimit(RLIMIT_AS, &limit);
        limit.rlim_cur = static_cast<rlim_t>(1) << 32;  // 4 GiB
        setrlimit(RLIMIT_AS, &limit);
        allocate();
    };
    const uint32_t huge = 0xFFFFFFFFu;  // 16 GiB of float, 32 GiB of pointers
    EXPECT_EXIT(with_limit([&] { float_vector(huge); }), testing::ExitedWithCode(1),
                "Fatal Error:\nAllocation error in float_vector\\(\\)\\.\nProgram aborted\\.");
    EXPECT_EXIT(with_limit([&] { double_vector(huge); }), testing::ExitedWithCode(1),
                "Allocation error in double_vector\\(\\)");
    EXPECT_EXIT(with_limit([&] { int_vector(huge); }), testing::ExitedWithCode(1),
                "Allocation error in int_vector\\(\\)");
    EXPECT_EXIT(with_limit([&] { fcomplex_vector(huge); }), testing::ExitedWithCode(1),
                "Allocation error in fcomplex_vector\\(\\)");
    EXPECT_EXIT(with_limit([&] { float_matrix(huge, 1); }), testing::ExitedWithCode(1),
                "Allocation failure 1 in float_matrix\\(\\)");
    EXPECT_EXIT(with_limit([&] { double_matrix(2, huge); }), testing::ExitedWithCode(1),
                "Allocation failure 2 in double_matrix\\(\\)");
    // The second row of 2 GiB no longer fits under the cap after the first.
    EXPECT_EXIT(with_limit([&] { int_matrix(2, 0x20000000u); }), testing::ExitedWithCode(1),
                "^Fatal Error:\nAllocation failure 2 in integer_matrix\\(\\)\\.\nProgram aborted\\.\n$");
#endif
}
