// One voxel through the REML estimate, the final fit and the F test on both
// kernels: the fast kernel (best and scalar instruction sets) must give the
// reference kernel's bits and statuses, and every call must end.
//
// Input: a design selector, a number of files, then floats for the effects,
// the error values, a variance for a second fit, and bytes for the degrees
// of freedom and resels.  Short inputs are padded with zeros.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <unistd.h>

#include "rem.h"

namespace {

struct reader {
    const uint8_t *data;
    size_t size, at = 0;
    uint8_t byte() { return at < size ? data[at++] : 0; }
    float number() {
        uint32_t b = 0;
        for (int i = 0; i < 4; ++i) b |= static_cast<uint32_t>(byte()) << (8 * i);
        float f;
        std::memcpy(&f, &b, sizeof f);
        return f;
    }
};

// The designs: two groups, one group, two groups and a ramp over all files,
// overlapping events with a single-file ramp (a design value that is not a
// number), and one event over all files with another over the first half
// (with four files and some data, its float estimate cycles for ever).
std::string analysis_text(int design, int n) {
    const int half = n / 2;
    std::string files = "measurements\n";
    for (int i = 0; i < n; ++i) files += "f" + std::to_string(i) + ".bfloat\n";
    auto range = [](int a, int b) { return std::to_string(a) + " " + std::to_string(b) + "\n\n"; };
    switch (design) {
        case 0:
            return "conditions p c p-c p,c\nevent p\n" + range(0, half - 1) + "event c\n" +
                   range(half, n - 1) + files;
        case 1:
            return "conditions p\nevent p\n" + range(0, n - 1) + files;
        case 2:
            return "conditions p c r p-c\nevent p\n" + range(0, half - 1) + "event c\n" +
                   range(half, n - 1) + "event r ramp\n" + range(0, n - 1) + files;
        case 3:
            return "conditions p r\nevent p\n" + range(0, n - 1) + "event r ramp\n" +
                   range(half, half) + files;
        default:
            return "conditions p c p,c\nevent p\n" + range(0, n - 1) + "event c\n" +
                   range(0, half - 1) + files;
    }
}

bool build_model(int design, int n) {
    static int built_design = -1, built_n = -1;
    if (design == built_design && n == built_n) return true;
    char path[] = "/tmp/voxel_fuzz_XXXXXX";
    const int fd = mkstemp(path);
    if (fd < 0) return false;
    const std::string text = analysis_text(design, n);
    const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    const int result = written ? REM_read_control_file(path) : 1;
    std::remove(path);
    int count = 0;
    if (result != 0 || REM_define_conditions(REM_input.conditions, &count) != 0) return false;
    built_design = design;
    built_n = n;
    return true;
}

void same(float a, float b) {
    if (std::memcmp(&a, &b, sizeof a) != 0) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    // The model describes what it reads on standard output.
    if (std::freopen("/dev/null", "w", stdout) == nullptr) std::abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    reader in{data, size};
    const int design = in.byte() % 5;
    const int n = 2 + in.byte() % 11;
    if (!build_model(design, n)) return 0;
    std::vector<float> y(n), s(n), abs_s(n);
    std::vector<int> dof(n);
    for (int i = 0; i < n; ++i) y[i] = in.number();
    for (int i = 0; i < n; ++i) {
        s[i] = in.number();
        abs_s[i] = s[i] < 0.0f ? -s[i] : s[i];
        dof[i] = in.byte();
    }
    const float other_variance = in.number();
    const int test_dof =
        static_cast<int>(in.byte()) - 8;  // 0 and below: the p value's domain error
    const int resels = in.byte();

    const rem_model_view model = rem_current_model();
    rem_workspace *reference = rem_workspace_create(&model);
    rem_workspace *fast = rem_workspace_create(&model);
    const std::string best = rem_fast_instruction_set();
    for (const char *set : {best.c_str(), "scalar"}) {
        rem_fast_select_instruction_set(set);
        float fe[2] = {0, 0}, re[2] = {0, 0};
        const int status[2] = {
            rem_reference_kernel.estimate(reference, y.data(), abs_s.data(), dof.data(), &fe[0],
                                          &re[0]),
            rem_fast_kernel.estimate(fast, y.data(), abs_s.data(), dof.data(), &fe[1], &re[1])};
        if (status[0] != status[1]) std::abort();
        same(fe[0], fe[1]);
        same(re[0], re[1]);
        // The converged estimate alone and side by side with other voxels
        // (the files in reverse order).
        std::vector<float> y2(y.rbegin(), y.rend()), s2(abs_s.rbegin(), abs_s.rend());
        const float *effects[3] = {y2.data(), y.data(), y2.data()};
        const float *errors[3] = {s2.data(), abs_s.data(), s2.data()};
        float group_fe[3], group_re[3];
        int group_status[3];
        rem_converged_kernel.estimate_many(fast, 3, effects, errors, dof.data(), group_fe, group_re,
                                           group_status);
        for (int v = 0; v < 3; ++v) {
            float one_fe = 0, one_re = 0;
            if (rem_converged_kernel.estimate(reference, effects[v], errors[v], dof.data(), &one_fe,
                                              &one_re) != group_status[v])
                std::abort();
            same(one_fe, group_fe[v]);
            same(one_re, group_re[v]);
        }
        for (float variance : {re[0], other_variance}) {
            if (variance == 0.0f) continue;  // such a voxel is skipped
            std::vector<float> out[2] = {std::vector<float>(2 * n), std::vector<float>(2 * n)};
            rem_reference_kernel.fit(reference, variance, y.data(), s.data(), out[0].data(),
                                     out[0].data() + n);
            rem_fast_kernel.fit(fast, variance, y.data(), s.data(), out[1].data(),
                                out[1].data() + n);
            for (int i = 0; i < 2 * n; ++i) same(out[0][i], out[1][i]);
            for (int c = 0; c < model.nconditions; ++c) {
                rem_test_result r[2];
                const int t0 = rem_reference_kernel.test(reference, c, resels, test_dof, &r[0]);
                const int t1 = rem_fast_kernel.test(fast, c, resels, test_dof, &r[1]);
                if (t0 != t1) std::abort();
                if (t0 != REM_VOXEL_DONE) continue;
                same(r[0].t_value, r[1].t_value);
                same(r[0].p_raw, r[1].p_raw);
                same(r[0].p_corrected, r[1].p_corrected);
                same(r[0].effect_size, r[1].effect_size);
                same(r[0].effect_error, r[1].effect_error);
            }
        }
    }
    rem_fast_select_instruction_set(best.c_str());
    rem_workspace_free(reference);
    rem_workspace_free(fast);
    return 0;
}
