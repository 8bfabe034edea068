// The analysis file as the export and the report read it: the header
// keywords, the signal files, the names written as comments, and condition
// labels for file names.
#include <cstdlib>
#include <sstream>

#include "bridge_internal.h"

namespace bridge {

namespace {

bool is_event_word(const std::string &w) {
    return w == "event" || w == "subjects" || w == "sessions";
}

bool is_measurements(const std::string &w) {
    return w == "measurements" || w == "measurements:";
}

std::vector<std::string> words_before_comment(const std::string &line) {
    std::vector<std::string> words;
    std::istringstream s(line.substr(0, line.find('#')));
    for (std::string w; s >> w;) words.push_back(w);
    return words;
}

// "# event p = patients" or "# condition p-c = patients-controls": the kind,
// the event character or condition text, and the name.
bool name_comment(std::string line, std::string *kind, std::string *key, std::string *name) {
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t'))
        line.pop_back();
    for (const char *k : {"event", "condition"}) {
        const std::string start = std::string("# ") + k + " ";
        if (line.compare(0, start.size(), start) != 0) continue;
        const size_t equals = line.find(" = ", start.size());
        if (equals == std::string::npos || equals == start.size()) return false;
        *kind = k;
        *key = line.substr(start.size(), equals - start.size());
        *name = line.substr(equals + 3);
        return !name->empty() && key->find_first_of(" \t") == std::string::npos &&
               (*kind == "condition" || key->size() == 1);
    }
    return false;
}

}  // namespace

std::string condition_label(const std::string &name) {
    std::string label;
    for (char c : name) {
        if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'))
            label += c;
        else if (c == '-')
            label += "Minus";
        else if (c == ',')
            label += "And";
        else if (c == '+')
            label += "Plus";
        else if (c == '*')
            label += "Times";
        else if (c == '.')
            label += "p";
        else if (c == ':')
            label += "By";
    }
    return label;
}

int condition_rows(const std::string &condition) {
    int commas = 0;
    for (char c : condition) commas += c == ',';
    return commas + 1;
}

std::string analysis_header::name_of(const std::string &condition) const {
    auto found = condition_names.find(condition);
    return found == condition_names.end() ? condition : found->second;
}

std::string analysis_header::event_name(char event) const {
    auto found = event_names.find(event);
    return found == event_names.end() ? std::string(1, event) : found->second;
}

analysis_header read_analysis_header(const std::string &text) {
    analysis_header a;
    std::vector<std::string> lines;
    {
        std::istringstream in(text);
        for (std::string line; std::getline(in, line);) lines.push_back(line);
    }
    // With a "measurements" line anywhere the files are the lines after it.
    bool listed = false;
    for (const std::string &line : lines) {
        std::vector<std::string> w = words_before_comment(line);
        if (!w.empty() && is_measurements(w[0])) listed = true;
    }
    bool header = true, listing = false;
    for (const std::string &line : lines) {
        std::string kind, key, name;
        if (name_comment(line, &kind, &key, &name)) {
            if (kind == "event")
                a.event_names[key[0]] = name;
            else
                a.condition_names[key] = name;
            continue;
        }
        std::vector<std::string> w = words_before_comment(line);
        if (w.empty()) continue;
        if (header && (is_event_word(w[0]) || is_measurements(w[0]))) header = false;
        if (header) {
            if ((w[0] == "smoothing" || w[0] == "smooth") && w.size() >= 3) {
                a.prior_smoothing = std::atof(w[1].c_str());
                a.ratio_smoothing = std::atof(w[2].c_str());
                a.smoothing_given = true;
            } else if (w[0] == "multiple-comparisons" && w.size() >= 2) {
                a.multiple_comparisons = std::atoi(w[1].c_str());
            } else if (w[0] == "conditions") {
                a.conditions.assign(w.begin() + 1, w.end());
            } else if (w[0] == "reml" && w.size() >= 2) {
                a.converged = w[1] == "converged";
            }
            continue;
        }
        if (listed) {
            if (listing) a.files.push_back(w[0]);
            if (is_measurements(w[0])) listing = true;
        } else if (!is_event_word(w[0])) {
            a.files.push_back(w[0]);
        }
    }
    return a;
}

bool analysis_uses_converged_reml(const std::string &text) {
    return read_analysis_header(text).converged;
}

}  // namespace bridge
