// Typed allocators and the fatal exit on exhausted memory.
#include "util.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

TEST(AllocDeathTest, EmptyShapesAndTheFatalExit) {
    free_float_matrix(float_matrix(3, 0), 3);  // pointer array and three empty rows
    free_int_matrix(int_matrix(0, 5), 0);      // only the pointer array
    EXPECT_EXIT(alloc_error("Allocation error in float_vector()."), testing::ExitedWithCode(1),
                "^Fatal Error:\nAllocation error in float_vector\\(\\)\\.\nProgram aborted\\.\n$");
}

// A real shortage is made by capping the child's address space; the address
// sanitizer manages its own memory and reports such requests itself.
TEST(AllocDeathTest, ExhaustedMemoryEndsTheProcess) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "address space limits do not mix with AddressSanitizer";
#else
    auto capped = [](auto allocate) {
        struct rlimit limit;
        getrlimit(RLIMIT_AS, &limit);
        limit.rlim_cur = static_cast<rlim_t>(1) << 32;  // 4 GiB
        setrlimit(RLIMIT_AS, &limit);
        allocate();
    };
    const uint32_t huge = 0xFFFFFFFFu;  // 16 GiB of float, 32 GiB of pointers
    EXPECT_EXIT(capped([&] { float_vector(huge); }), testing::ExitedWithCode(1),
                "Allocation error in float_vector\\(\\)");
    // The second row of 2 GiB no longer fits under the cap after the first.
    EXPECT_EXIT(
        capped([&] { int_matrix(2, 0x20000000u); }), testing::ExitedWithCode(1),
        "^Fatal Error:\nAllocation failure 2 in integer_matrix\\(\\)\\.\nProgram aborted\\.\n$");
#endif
}
