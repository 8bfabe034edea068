// The help menu: the lead part of the input is what the user types
// (standard input); each part "%% NAME" is a help file NAME in
// $TOV_HOME/documentation.  The menu starts at the first of them (or at a
// missing file when there is none).
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "fuzz_support.h"
#include "util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const std::string home = [] {
        const std::string dir = fuzz::scratch_dir();
        mkdir((dir + "/documentation").c_str(), 0755);
        setenv("TOV_HOME", dir.c_str(), 1);
        return dir;
    }();
    const fuzz::SplitInput input = fuzz::split_input(data, size);
    const std::string answers = home + "/answers";
    fuzz::write_file(answers, input.lead);
    if (freopen(answers.c_str(), "r", stdin) == nullptr) abort();
    std::vector<std::string> written;
    for (const fuzz::Section &file : input.files) {
        written.push_back(home + "/documentation/" + file.name);
        fuzz::write_file(written.back(), file.text);
    }
    const std::string first = input.files.empty() ? "missing.txt" : input.files[0].name;
    fuzz::ended_by_exit([&] { help_menu(0, first.c_str()); });
    for (const std::string &path : written) unlink(path.c_str());
    return 0;
}
