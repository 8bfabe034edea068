// Reading the degrees of freedom from a signal file's text header, the
// failures of the signal data read on demand from the files, and the chunk
// read ahead on a thread of its own (the values of whole runs are compared
// with those held in memory by the whole-run tests of the fast passes).
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

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
        {"\n\n   \ndegrees-of-freedom\t9 # comment\n", 0, 9},
        // An indented keyword matches, but its value is looked for inside
        // the keyword and is not found.
        {"   degrees-of-freedom 12\n", 0, 0},
        {"degrees-of-freedom 5\ndegrees-of-freedom 6\n", 0, 5},
        {"degrees-of-freedomX 5\n", 1, 0},
        {"# degrees-of-freedom 5\nDEGREES-OF-FREEDOM 5\n", 1, 0},
        {nullptr, 1, 0},
    };
    test_support::TempDir dir;
    file_list_entry entry{};
    std::strcpy(entry.name, dir.file("subject.bfloat").c_str());
    const std::string header = dir.file("subject.hdr");
    for (const Case &c : cases) {
        SCOPED_TRACE(c.header ? c.header : "(no header)");
        std::remove(header.c_str());
        if (c.header) test_support::write_file(header, c.header);
        int dof = -7;
        testing::internal::CaptureStdout();
        EXPECT_EQ(read_degrees_of_freedom(&entry, &dof), c.result);
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  c.result == 0 ? ""
                  : c.header
                      ? "Error: the keyword 'degrees-of-freedom' was not found in " + header + "\n"
                      : "Error: cannot open file " + header + ".\n");
        EXPECT_EQ(dof, c.dof);
    }
}

// 130 files of 12 voxels read on demand: file k's effect at voxel v is
// 100 k + v, its error -(100 k + v) - 0.5 (held without its sign when asked).
// A file longer than needed is fine until it changes under the run.  With
// the second half of the voxels read ahead while the first is in use (by two
// readers, files 0-63 and 64-129), a file whose error frame is cut short
// after voxel 7 fails the second half only, and its message comes with the
// fetch of that half, not before; of two such files the first in file order
// is named.  Without reading ahead a file cut short fails the fetch itself.
TEST(SignalChunks, OnDemandReadAheadAndShortFiles) {
    const int kFiles = 130, kVoxels = 12;
    test_support::TempDir dir;
    std::vector<file_list_entry> rest(kFiles - 1);
    file_list_entry *entries[kFiles];
    file_list_root = file_list_entry{};
    for (int k = 0; k < kFiles; ++k) {
        file_list_entry *e = k == 0 ? &file_list_root : &rest[static_cast<size_t>(k - 1)];
        entries[k] = e;
        if (k > 0) entries[k - 1]->next = e;
        const std::string stem = dir.file("s" + std::to_string(k));
        std::strcpy(e->name, (stem + ".bfloat").c_str());
        test_support::write_file(stem + ".hdr", "x 3\ny 2\nz 2\nt 2\ndegrees-of-freedom 10\n");
        std::vector<float> frames;
        for (int frame = 0; frame < 2; ++frame)
            for (int v = 0; v < kVoxels; ++v)
                frames.push_back(frame == 0 ? 100.0f * k + v : -(100.0f * k + v) - 0.5f);
        test_support::write_floats(e->name, frames);
    }
    auto quietly = [](auto f) {  // the output of f
        testing::internal::CaptureStdout();
        f();
        return testing::internal::GetCapturedStdout();
    };
    auto values_are = [&](const signal_chunks &chunks, int first, float sign) {
        for (int v = first; v < first + kVoxels / 2; ++v)
            for (int k = 0; k < kFiles; ++k) {
                SCOPED_TRACE("voxel " + std::to_string(v) + ", file " + std::to_string(k));
                EXPECT_EQ(chunks.effect(k, v), 100.0f * k + v);
                EXPECT_EQ(chunks.error(k, v), sign * ((100.0f * k + v) + 0.5f));
            }
    };
    const std::string longer = entries[1]->name, cut = entries[3]->name, later = entries[100]->name;
    ASSERT_EQ(truncate(longer.c_str(), 4 * (2 * kVoxels + 1)), 0);
    int result = -1;
    quietly([&] { result = load_signal_files(1); });
    ASSERT_EQ(result, 0);
    EXPECT_EQ(file_list_root.effect, nullptr);  // read on demand
    for (const bool absolute : {false, true}) {
        signal_chunks chunks(entries, kFiles, true, 2, absolute);
        ASSERT_TRUE(chunks.fetch(0, 6));
        chunks.fetch_ahead(6, 6);
        values_are(chunks, 0, absolute ? 1.0f : -1.0f);
        ASSERT_TRUE(chunks.fetch(6, 6));
        values_are(chunks, 6, absolute ? 1.0f : -1.0f);
    }
    EXPECT_EQ(check_signal_files_unchanged(), 0);
    ASSERT_EQ(truncate(longer.c_str(), 4 * (2 * kVoxels + 2)), 0);
    EXPECT_EQ(quietly([&] { result = check_signal_files_unchanged(); }),
              "Error: the signal file " + longer + " changed during the analysis.\n");
    EXPECT_EQ(result, 1);

    bool fetched = false;
    for (const std::string &name : {later, cut}) {
        ASSERT_EQ(truncate(name.c_str(), 4 * (kVoxels + 8)), 0);
        signal_chunks chunks(entries, kFiles, true, 2);
        EXPECT_EQ(quietly([&] {
                      fetched = chunks.fetch(0, 6);
                      chunks.fetch_ahead(6, 6);
                  }),
                  "");
        EXPECT_TRUE(fetched);
        EXPECT_EQ(quietly([&] { fetched = chunks.fetch(6, 6); }),
                  "Error reading the floating point data from file " + name + "\n");
        EXPECT_FALSE(fetched);
    }
    ASSERT_EQ(truncate(longer.c_str(), 4 * kVoxels), 0);
    signal_chunks chunks(entries, kFiles);
    EXPECT_EQ(quietly([&] { fetched = chunks.fetch(0, 2); }),
              "Error reading the floating point data from file " + longer + "\n");
    EXPECT_FALSE(fetched);
    quietly([] { hold_signal_data_in_memory(); });
    for (file_list_entry *e : entries) {
        free_float_vector(e->effect);
        free_float_vector(e->effect_stderr);
    }
    file_list_root = file_list_entry{};
}

}  // namespace
