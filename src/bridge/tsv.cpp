// The study table: tab-separated text with a header row.
#include <sstream>

#include "bridge_internal.h"

namespace bridge {

namespace {

std::vector<std::string> split_tabs(const std::string &line) {
    std::vector<std::string> cells;
    size_t start = 0;
    for (;;) {
        size_t tab = line.find('\t', start);
        cells.push_back(line.substr(start, tab == std::string::npos ? tab : tab - start));
        if (tab == std::string::npos) break;
        start = tab + 1;
    }
    // Cells keep inner blanks; blanks around a value are dropped.
    for (std::string &c : cells) {
        size_t b = c.find_first_not_of(' ');
        size_t e = c.find_last_not_of(' ');
        c = b == std::string::npos ? "" : c.substr(b, e - b + 1);
    }
    return cells;
}

}  // namespace

int table::column(const std::string &name) const {
    for (size_t c = 0; c < columns.size(); ++c)
        if (columns[c] == name) return static_cast<int>(c);
    return -1;
}

bool given(const std::string &cell) {
    return !cell.empty() && cell != "n/a";
}

table read_table(const std::string &path) {
    table t;
    t.path = path;
    std::istringstream in(read_text(path));
    std::string line;
    int number = 0;
    while (std::getline(in, line)) {
        ++number;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.find_first_not_of(" \t") == std::string::npos) continue;
        std::vector<std::string> cells = split_tabs(line);
        if (t.columns.empty()) {
            if (number == 1 && line.compare(0, 3, "\xEF\xBB\xBF") == 0) cells[0].erase(0, 3);
            for (size_t c = 0; c < cells.size(); ++c) {
                if (cells[c].empty())
                    throw failure(path + " line " + std::to_string(number) + ", column " +
                                  std::to_string(c + 1) + ": the header has an empty name");
                for (size_t d = 0; d < c; ++d)
                    if (cells[d] == cells[c])
                        throw failure(path + " line " + std::to_string(number) + ": the column " +
                                      cells[c] + " appears twice");
            }
            t.columns = cells;
            continue;
        }
        if (cells.size() != t.columns.size())
            throw failure(path + " line " + std::to_string(number) + ": " +
                          std::to_string(cells.size()) + " columns where the header has " +
                          std::to_string(t.columns.size()) + " (columns are separated by tabs)");
        t.rows.push_back(cells);
        t.lines.push_back(number);
    }
    if (t.columns.empty()) throw failure(path + " is empty");
    if (t.rows.empty()) throw failure(path + " has a header but no rows");
    return t;
}

}  // namespace bridge
