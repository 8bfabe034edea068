// Reading the degrees of freedom from a signal file's text header, and the
// signal data read on demand from the files kept open.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
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
        hold_signal_data_in_memory();
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

TEST_F(StreamedSignalData, ValuesReadOnDemandOrInMemory) {
    int result = -1;
    EXPECT_EQ(quietly([&] { result = load_signal_files(1); }),
              "Input files: 2 samples of dimension (x,y,z) = (3,2,2).\n");
    ASSERT_EQ(result, 0);
    EXPECT_EQ(file_list_root.effect, nullptr);
    EXPECT_EQ(second_.dof, 10);

    file_list_entry *const entries[] = {&file_list_root, &second_};
    signal_chunks chunks(entries, 2);
    ASSERT_TRUE(chunks.fetch(7, 4));
    for (int v = 7; v < 11; ++v) {
        EXPECT_EQ(chunks.error(1, v), -100.0f - v);
        EXPECT_EQ(chunks.effect(0, v), static_cast<float>(v));
    }
    EXPECT_EQ(check_signal_files_unchanged(), 0);
    forget_data();

    // A file that "sigma2.bfloat" in the working folder links to would be
    // overwritten by the first pass's result: it is read into memory.
    const std::string here = std::filesystem::current_path();
    std::filesystem::current_path(dir_.path());
    std::filesystem::create_hard_link(data_name("b"), "sigma2.bfloat");
    quietly([&] { result = load_signal_files(1); });
    std::filesystem::current_path(here);
    ASSERT_EQ(result, 0);
    EXPECT_EQ(file_list_root.effect, nullptr);
    ASSERT_NE(second_.effect_stderr, nullptr);
    EXPECT_EQ(second_.effect[11], -11.0f);
    EXPECT_EQ(second_.effect_stderr[0], -100.0f);
    signal_chunks again(entries, 2);
    ASSERT_TRUE(again.fetch(0, 12));
    EXPECT_EQ(again.effect(1, 11), -11.0f);
    EXPECT_EQ(again.error(0, 3), 103.0f);
}

TEST_F(StreamedSignalData, ShortAndChangedFiles) {
    const std::string b = data_name("b");
    const std::string error = "Error reading the floating point data from file " + b + "\n";
    // One value short.
    ASSERT_EQ(truncate(b.c_str(), 4 * (2 * kVoxels - 1)), 0);
    int result = -1;
    std::string out = quietly([&] { result = load_signal_files(1); });
    EXPECT_EQ(result, 1);
    EXPECT_EQ(out.substr(out.size() - std::min(out.size(), error.size())), error);
    forget_data();

    // Longer than needed is fine, until the file changes under the run.
    ASSERT_EQ(truncate(b.c_str(), 4 * (2 * kVoxels + 1)), 0);
    quietly([&] { result = load_signal_files(1); });
    ASSERT_EQ(result, 0);
    ASSERT_EQ(truncate(b.c_str(), 4 * (2 * kVoxels + 2)), 0);
    EXPECT_EQ(quietly([&] { result = check_signal_files_unchanged(); }),
              "Error: the signal file " + b + " changed during the analysis.\n");
    EXPECT_EQ(result, 1);

    // Cut short under the run: a read past its end fails.
    ASSERT_EQ(truncate(b.c_str(), 4 * kVoxels), 0);
    file_list_entry *const entries[] = {&file_list_root, &second_};
    signal_chunks chunks(entries, 2);
    bool fetched = true;
    EXPECT_EQ(quietly([&] { fetched = chunks.fetch(0, 2); }), error);
    EXPECT_FALSE(fetched);
}

}  // namespace
