// Reading the degrees of freedom from a signal file's text header, and the
// signal data read on demand from the files kept open.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <unistd.h>

#include "driver.h"
#include "signal_data.h"
#include "test_support.h"

namespace {

TEST(ReadDegreesOfFreedom, HeaderTable) {
    struct Case {
        const char *header;  // null: no header file
        int result, dof;
    };
    const Case cases[] = {
        {"x 4\ny 4\nz 2\nt 2\ndegrees-of-freedom 17\n", 0, 17},
        {"\n\n   \ndegrees-of-freedom 9 # comment\n", 0, 9},
        {"degrees-of-freedom\t42\n", 0, 42},
        // An indented keyword matches, but its value is looked for inside
        // the keyword and is not found.
        {"   degrees-of-freedom 12\n", 0, 0},
        {"degrees-of-freedom 5\ndegrees-of-freedom 6\n", 0, 5},
        {"degrees-of-freedomX 5\n", 1, 0},
        {"# degrees-of-freedom 5\nx 4\n", 1, 0},
        {"DEGREES-OF-FREEDOM 5\n", 1, 0},
        {"", 1, 0},
        {nullptr, 1, 0},
    };
    test_support::TempDir dir;
    file_list_entry entry;
    std::memset(&entry, 0, sizeof entry);
    std::strcpy(entry.name, dir.file("subject.bfloat").c_str());
    const std::string header = dir.file("subject.hdr");
    for (const Case &c : cases) {
        SCOPED_TRACE(c.header ? c.header : "(no header)");
        std::remove(header.c_str());
        if (c.header) test_support::write_file(header, c.header);
        int dof = -7;
        testing::internal::CaptureStdout();
        EXPECT_EQ(read_degrees_of_freedom(&entry, &dof), c.result);
        std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(dof, c.dof);
        EXPECT_EQ(out, c.result == 0 ? ""
                       : c.header    ? "Error: the keyword 'degrees-of-freedom' was not found in " +
                                        header + "\n"
                                  : "Error: cannot open file " + header + ".\n");
    }
}

// Two signal files of 3 x 2 x 2 voxels linked as the signal file list, with
// effect v and error 100 + v at voxel v of file a, and their negatives in b.
class StreamedSignalData : public testing::Test {
  protected:
    static const int kVoxels = 12;

    void SetUp() override {
        for (const char *stem : {"a", "b"}) {
            test_support::write_file(dir_.file(std::string(stem) + ".hdr"),
                                     "x 3\ny 2\nz 2\nt 2\nbyte-order 1\n"
                                     "resolution 2 2 2\ndegrees-of-freedom 10\n");
            std::vector<float> data;
            for (int v = 0; v < 2 * kVoxels; ++v)
                data.push_back((stem[0] == 'a' ? 1.0f : -1.0f) *
                               static_cast<float>(v < kVoxels ? v : 100 + v - kVoxels));
            test_support::write_floats(data_name(stem), data);
        }
        std::memset(&file_list_root, 0, sizeof file_list_root);
        std::memset(&second_, 0, sizeof second_);
        std::strcpy(file_list_root.name, data_name("a").c_str());
        std::strcpy(second_.name, data_name("b").c_str());
        file_list_root.next = &second_;
    }

    void TearDown() override {
        forget_data();
        std::memset(&file_list_root, 0, sizeof file_list_root);
    }

    // Closes the files and frees the data read so far.
    void forget_data() {
        load_streamed_signal_data();
        for (file_list_entry *e : {&file_list_root, &second_}) {
            free_float_vector(e->effect);
            free_float_vector(e->effect_stderr);
            e->effect = e->effect_stderr = nullptr;
        }
    }

    std::string data_name(const char *stem) const {
        return dir_.file(std::string(stem) + ".bfloat");
    }

    // Runs f with standard output captured; returns the output.
    template <class F>
    std::string quietly(F f) {
        testing::internal::CaptureStdout();
        f();
        return testing::internal::GetCapturedStdout();
    }

    test_support::TempDir dir_;
    file_list_entry second_;
};

TEST_F(StreamedSignalData, ValuesReadOnDemandThenInMemory) {
    int result = -1;
    EXPECT_EQ(quietly([&] { result = read_signal_files_streamed(); }),
              "Input files: 2 samples of dimension (x,y,z) = (3,2,2).\n");
    ASSERT_EQ(result, 0);
    EXPECT_EQ(signal_data_streamed(), 1);
    EXPECT_EQ(file_list_root.effect, nullptr);
    EXPECT_EQ(second_.dof, 10);

    float buffer[4] = {0, 0, 0, 0};
    const float *values = signal_values(&second_, 1, 7, 4, buffer);
    ASSERT_EQ(values, buffer);
    EXPECT_EQ(std::vector<float>(values, values + 4), (std::vector<float>{-107, -108, -109, -110}));
    values = signal_values(&file_list_root, 0, 10, 2, buffer);
    EXPECT_EQ(std::vector<float>(values, values + 2), (std::vector<float>{10, 11}));
    EXPECT_EQ(check_streamed_signal_files(), 0);

    // Result files of another name leave the files open; "b" names one of
    // them, whose data are then read into memory.
    EXPECT_EQ(keep_signal_data_from(dir_.file("sigma2").c_str()), 0);
    EXPECT_EQ(signal_data_streamed(), 1);
    EXPECT_EQ(keep_signal_data_from(dir_.file("b").c_str()), 0);
    EXPECT_EQ(signal_data_streamed(), 0);
    ASSERT_NE(second_.effect_stderr, nullptr);
    EXPECT_EQ(second_.effect[11], -11.0f);
    EXPECT_EQ(second_.effect_stderr[0], -100.0f);
    EXPECT_EQ(signal_values(&file_list_root, 1, 3, 1, nullptr), file_list_root.effect_stderr + 3);
}

TEST_F(StreamedSignalData, ShortAndChangedFiles) {
    const std::string b = data_name("b");
    const std::string error = "Error reading the floating point data from file " + b + "\n";
    // One value short.
    ASSERT_EQ(truncate(b.c_str(), 4 * (2 * kVoxels - 1)), 0);
    int result = -1;
    std::string out = quietly([&] { result = read_signal_files_streamed(); });
    EXPECT_EQ(result, 1);
    EXPECT_EQ(out.substr(out.size() - std::min(out.size(), error.size())), error);
    forget_data();

    // Longer than needed is fine, until the file changes under the run.
    ASSERT_EQ(truncate(b.c_str(), 4 * (2 * kVoxels + 1)), 0);
    quietly([&] { result = read_signal_files_streamed(); });
    ASSERT_EQ(result, 0);
    ASSERT_EQ(truncate(b.c_str(), 4 * (2 * kVoxels + 2)), 0);
    EXPECT_EQ(quietly([&] { result = check_streamed_signal_files(); }),
              "Error: the signal file " + b + " changed during the analysis.\n");
    EXPECT_EQ(result, 1);

    // Cut short under the run: a read past its end fails.
    ASSERT_EQ(truncate(b.c_str(), 4 * kVoxels), 0);
    float buffer[2];
    const float *values = nullptr;
    EXPECT_EQ(quietly([&] { values = signal_values(&second_, 1, 0, 2, buffer); }), error);
    EXPECT_EQ(values, nullptr);
}

}  // namespace
