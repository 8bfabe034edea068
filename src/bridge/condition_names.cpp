// Conditions by name: "patients-controls", "0.5*patients+0.5*controls",
// "age:patients,age:controls", written in event characters for the analysis
// file.  Event characters keep working ("p-c", "pc", "p,c").
#include <cctype>
#include <cmath>
#include <set>

#include "import_model.h"

namespace bridge {

namespace {

struct term {
    char event = 0;
    double coefficient = 1;
};

bool ends_name(const std::string &w, size_t pos) {
    return pos == w.size() || w[pos] == ',' || w[pos] == '+' || w[pos] == '-';
}

std::string describe(const study_model &m) {
    std::string s = describe_model(m);
    for (const auto &a : m.aliases) s += ", " + a.first + " -> " + std::string(1, a.second);
    return s;
}

// A row in event characters: as today's syntax where it can be (+1 terms
// first, then "-" and the -1 terms), else with signs and numbers.
std::string write_row(const std::vector<term> &row) {
    bool plain = true, negative = false;
    for (const term &t : row) {
        if (std::fabs(t.coefficient) != 1 || (negative && t.coefficient > 0)) plain = false;
        negative = negative || t.coefficient < 0;
    }
    std::string s;
    negative = false;
    for (const term &t : row) {
        if (plain) {
            if (t.coefficient < 0 && !negative) s += '-';
        } else if (t.coefficient < 0) {
            s += '-';
        } else if (!s.empty()) {
            s += '+';
        }
        negative = negative || t.coefficient < 0;
        if (!plain && std::fabs(t.coefficient) != 1)
            s += format_number(std::fabs(t.coefficient), 15) + "*";
        s += t.event;
    }
    return s;
}

condition_text translate(const std::string &w, const study_model &m) {
    std::vector<std::pair<std::string, char>> names = m.aliases;
    std::set<char> events;
    for (const model_column &c : m.columns) {
        names.emplace_back(c.name, c.event);
        events.insert(c.event);
    }
    std::vector<std::vector<term>> rows(1);
    bool named = false, today = true;  // today: event characters and "-" only
    double sign = 1;
    size_t token = 0;      // where the current run of names or event characters began
    bool signed_ = false;  // a sign waits for its event
    for (size_t pos = 0; pos < w.size();) {
        const char c = w[pos];
        if (c == ',' || c == '+' || c == '-') {
            if (c == ',') {
                if (rows.back().empty() || signed_)
                    throw failure("the condition " + w + " has a row without an event");
                rows.emplace_back();
            }
            sign = c == '-' ? -1 : 1;
            today = today && c != '+';
            signed_ = c != ',';
            token = ++pos;
            continue;
        }
        term t;
        size_t end = pos;
        while (end < w.size() &&
               (std::isdigit(static_cast<unsigned char>(w[end])) || w[end] == '.'))
            ++end;
        if (end > pos && end < w.size() && w[end] == '*') {
            if (!parse_number(w.substr(pos, end - pos), &t.coefficient) || t.coefficient == 0)
                throw failure("the condition " + w + " has the coefficient " +
                              w.substr(pos, end - pos) + "; give a number other than 0");
            if (format_number(t.coefficient, 15).find('e') != std::string::npos)
                throw failure("the condition " + w + ": write the coefficient " +
                              w.substr(pos, end - pos) + " as a decimal between 1e-5 and 1e15");
            token = pos = end + 1;
            today = false;
        }
        size_t best = 0;
        for (const auto &n : names)
            if (n.first.size() > best && w.compare(pos, n.first.size(), n.first) == 0 &&
                ends_name(w, pos + n.first.size())) {
                best = n.first.size();
                t.event = n.second;
            }
        if (best > 0) {
            const bool name = best > 1 || w[pos] != t.event;
            named = named || name;
            today = today && !name;
        } else if (pos < w.size() && events.count(w[pos])) {
            t.event = w[pos];
            best = 1;
        } else {
            size_t stop = pos;
            while (stop < w.size() && !ends_name(w, stop)) ++stop;
            throw failure(
                "the condition " + w + " uses " +
                (stop > token ? w.substr(token, stop - token) : std::string("nothing after *")) +
                ", which is not in the model (" + describe(m) + ")");
        }
        pos += best;
        t.coefficient *= sign;
        signed_ = false;
        rows.back().push_back(t);
    }
    if (rows.back().empty() || signed_)
        throw failure("the condition " + w + " has a row without an event");
    condition_text out;
    if (named) out.names = w;
    if (today) {
        out.events = w;
        return out;
    }
    for (const std::vector<term> &row : rows) {
        std::set<char> seen;
        for (const term &t : row)
            if (!seen.insert(t.event).second)
                throw failure("the condition " + w + " names " + std::string(1, t.event) +
                              " twice in one row");
        out.events += (out.events.empty() ? "" : ",") + write_row(row);
    }
    return out;
}

}  // namespace

std::vector<condition_text> translate_conditions(const std::string &text, const study_model &m) {
    std::vector<condition_text> out;
    size_t pos = 0, length = 0;
    while ((pos = text.find_first_not_of(" \t\r\n", pos)) != std::string::npos) {
        size_t end = text.find_first_of(" \t\r\n", pos);
        out.push_back(translate(text.substr(pos, end == std::string::npos ? end : end - pos), m));
        length += out.back().events.size() + 1;
        pos = end;
    }
    if (out.empty()) throw failure("--conditions names no condition");
    if (out.size() > 100) throw failure("more than 100 conditions");
    if (length > 1000) throw failure("the conditions text is too long");
    return out;
}

}  // namespace bridge
