// The columns of the design: the groups, covariates (centred numbers, or
// indicators of the levels of a text column), one slope per group, or a
// design matrix of the user's own; each with an event character and a name.
#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>

#include "import_model.h"

namespace bridge {

namespace {

const char kEventChars[] = "123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";

bool is_event_char(char c) {
    return c != '\0' && std::strchr(kEventChars, c) != nullptr;
}

std::string quoted(const std::string &name) {
    return "`" + name + "'";
}

std::string list(const std::vector<std::string> &names) {
    std::string s;
    for (const std::string &n : names) s += (s.empty() ? "" : ", ") + n;
    return s;
}

// Event characters: a name that is one event character keeps it; the others,
// in order, get their first letter (lower case) when it is free, else the
// first free character.
void assign_events(std::vector<model_column> *columns) {
    std::set<char> used;
    for (const model_column &c : *columns)
        if (c.name.size() == 1 && is_event_char(c.name[0])) used.insert(c.name[0]);
    for (model_column &c : *columns) {
        if (c.name.size() == 1 && is_event_char(c.name[0])) {
            c.event = c.name[0];
            continue;
        }
        char first = static_cast<char>(std::tolower(static_cast<unsigned char>(c.name[0])));
        if (is_event_char(first) && !used.count(first)) c.event = first;
        for (const char *e = kEventChars + 9; c.event == 0 && *e; ++e)
            if (!used.count(*e)) c.event = *e;
        for (const char *e = kEventChars; c.event == 0 && e < kEventChars + 9; ++e)
            if (!used.count(*e)) c.event = *e;
        if (c.event == 0) throw failure("the design has more columns than the 61 event characters");
        used.insert(c.event);
    }
}

// One column's values over the units: a unit of two rows (the two sessions)
// takes the mean of two numbers; a text value must be the same in both.
struct cell_values {
    std::vector<std::string> text;  // per unit
    std::vector<double> numbers;    // per unit, when every value is a number
    bool numeric = true;
};

// A column of levels (the groups) is text even where it holds numbers.
cell_values column_values(const table &t, int col, const std::vector<signal_unit> &units,
                          bool levels = false) {
    cell_values v;
    auto where = [&](size_t r) {
        return t.path + " line " + std::to_string(t.lines[r]) + ", column " +
               std::to_string(col + 1) + " (" + t.columns[col] + ")";
    };
    long first_text = -1, first_number = -1;
    for (const signal_unit &u : units) {
        double sum = 0;
        for (size_t r : u.rows) {
            const std::string &cell = t.rows[r][col];
            if (!given(cell)) throw failure(where(r) + ": no value given");
            double x = 0;
            if (parse_number(cell, &x) && std::isfinite(x)) {
                if (first_number < 0) first_number = static_cast<long>(r);
                sum += x;
            } else if (first_text < 0) {
                first_text = static_cast<long>(r);
            }
        }
        v.text.push_back(t.rows[u.rows[0]][col]);
        v.numbers.push_back(sum / static_cast<double>(u.rows.size()));
    }
    if (levels) first_text = std::max(first_text, first_number);
    if (first_text >= 0 && first_number >= 0 && !levels)
        throw failure(where(static_cast<size_t>(first_text)) + ": " + t.rows[first_text][col] +
                      " is not a number (the column holds numbers elsewhere)");
    v.numeric = first_text < 0;
    for (const signal_unit &u : units)
        if (!v.numeric && u.rows.size() == 2 && t.rows[u.rows[0]][col] != t.rows[u.rows[1]][col])
            throw failure(where(u.rows[1]) + ": " + t.rows[u.rows[1]][col] +
                          " differs from the participant's other session (" +
                          t.rows[u.rows[0]][col] + ")");
    return v;
}

double mean(const std::vector<double> &x) {
    double s = 0;
    for (double v : x) s += v;
    return s / static_cast<double>(x.size());
}

int find_column(const table &t, const std::string &name, const char *option) {
    const int col = t.column(name);
    if (col < 0)
        throw failure(std::string(option) + ": " + t.path + " has no column " + quoted(name) +
                      " (its columns: " + list(t.columns) + ")");
    return col;
}

void check_varies(const std::string &name, const std::vector<double> &x) {
    for (double v : x)
        if (v != x[0]) return;
    throw failure("the covariate " + quoted(name) + " has the same value (" +
                  format_number(x[0], 9) + ") in every file");
}

// Columns from a design matrix of the user's, matched by participant_id
// (nilearn's design matrices call it subject_label).
std::vector<model_column> user_design(const std::string &path, const table &t,
                                      const std::vector<signal_unit> &units) {
    table d = read_table(path);
    int id_col = d.column("participant_id");
    if (id_col < 0) id_col = d.column("subject_label");
    if (id_col < 0) throw failure(path + " has no column `participant_id' (or `subject_label')");
    if (d.columns.size() < 2) throw failure(path + " has no column besides the participants'");
    std::map<std::string, size_t> row_of;
    for (size_t r = 0; r < d.rows.size(); ++r) {
        const std::string &id = d.rows[r][id_col];
        if (!given(id))
            throw failure(path + " line " + std::to_string(d.lines[r]) + ": no participant_id");
        if (!row_of.emplace(id, r).second)
            throw failure(path + " line " + std::to_string(d.lines[r]) + ": participant " + id +
                          " appears twice");
    }
    std::set<std::string> seen;
    std::vector<size_t> rows;
    for (const signal_unit &u : units) {
        if (u.id.empty())
            throw failure("--design-matrix needs a participant_id on every row of " + t.path);
        if (!seen.insert(u.id).second)
            throw failure("participant " + u.id + " has several rows in " + t.path +
                          ", so the rows of " + path + " cannot be matched (use --paired?)");
        auto found = row_of.find(u.id);
        if (found == row_of.end())
            throw failure(path + " has no row for participant " + u.id + " of " + t.path);
        rows.push_back(found->second);
    }
    for (size_t r = 0; r < d.rows.size(); ++r)
        if (!seen.count(d.rows[r][id_col]))
            throw failure(path + " line " + std::to_string(d.lines[r]) + ": participant " +
                          d.rows[r][id_col] + " is not among the files of " + t.path);
    std::vector<model_column> columns;
    for (size_t c = 0; c < d.columns.size(); ++c) {
        if (static_cast<int>(c) == id_col) continue;
        model_column m;
        m.name = d.columns[c];
        for (size_t r : rows) {
            double x = 0;
            if (!parse_number(d.rows[r][c], &x) || !std::isfinite(x))
                throw failure(path + " line " + std::to_string(d.lines[r]) + ", column " +
                              std::to_string(c + 1) + " (" + m.name + "): " + d.rows[r][c] +
                              " is not a number");
            m.values.push_back(x);
        }
        columns.push_back(m);
    }
    return columns;
}

// Full column rank, column by column (Gram-Schmidt in double, X = QR): a
// column that lies in the span of those before it is named with the columns
// it combines (the solution of R b = Q'x).
void check_rank(const std::vector<model_column> &columns, size_t n) {
    if (n <= columns.size())
        throw failure("the design has " + std::to_string(columns.size()) + " columns and " +
                      std::to_string(n) + " files; it needs at least one file more than columns");
    std::vector<std::vector<double>> q, r;  // r[k]: column k of R (k + 1 values)
    std::vector<size_t> kept;
    for (size_t j = 0; j < columns.size(); ++j) {
        const std::vector<double> &x = columns[j].values;
        std::vector<double> rest = x, along(q.size());
        for (size_t k = 0; k < q.size(); ++k) {
            double d = 0;
            for (size_t i = 0; i < n; ++i) d += q[k][i] * rest[i];
            along[k] = d;
            for (size_t i = 0; i < n; ++i) rest[i] -= d * q[k][i];
        }
        double norm = 0, size = 0;
        for (size_t i = 0; i < n; ++i) norm += rest[i] * rest[i], size += x[i] * x[i];
        norm = std::sqrt(norm);
        size = std::sqrt(size);
        const std::string name = quoted(columns[j].name);
        if (size == 0) throw failure("the design column " + name + " holds only zeros");
        if (norm > 1e-7 * size) {
            for (double &v : rest) v /= norm;
            q.push_back(rest);
            along.push_back(norm);
            r.push_back(along);
            kept.push_back(j);
            continue;
        }
        std::vector<double> b = along;
        for (size_t k = b.size(); k-- > 0;) {
            for (size_t l = k + 1; l < b.size(); ++l) b[k] -= r[l][k] * b[l];
            b[k] /= r[k][k];
        }
        double largest = 0;
        for (double v : b) largest = std::max(largest, std::fabs(v));
        std::vector<std::string> parts;
        for (size_t k = 0; k < b.size(); ++k)
            if (std::fabs(b[k]) > 1e-7 * largest) parts.push_back(quoted(columns[kept[k]].name));
        throw failure("the design is rank-deficient: column " + name +
                      " is a linear combination of " + list(parts));
    }
}

}  // namespace

bool parse_number(const std::string &s, double *v) {
    char *end = nullptr;
    *v = std::strtod(s.c_str(), &end);
    return !s.empty() && *end == '\0';
}

std::string format_number(double v, int digits) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*g", digits, v == 0 ? 0.0 : v);
    return text;
}

study_model build_model(const table &t, const std::vector<signal_unit> &units,
                        const model_options &o) {
    study_model m;
    if (!o.design_matrix.empty()) {
        if (!o.covariates.empty() || !o.by_group.empty())
            throw failure(
                "--design-matrix replaces --covariates and --by-group; give one or the "
                "other");
        m.columns = user_design(o.design_matrix, t, units);
        m.design = true;
        assign_events(&m.columns);
        check_rank(m.columns, units.size());
        return m;
    }
    // Groups, in order of first appearance.
    const int group_col = t.column("group");
    std::vector<std::string> group_of(units.size(), "all");
    if (group_col >= 0) {
        cell_values g = column_values(t, group_col, units, true);
        group_of = g.text;
    }
    std::vector<std::string> groups;
    for (const std::string &g : group_of)
        if (std::find(groups.begin(), groups.end(), g) == groups.end()) groups.push_back(g);
    for (const std::string &g : groups) {
        model_column c;
        c.name = g;
        for (const std::string &u : group_of) c.values.push_back(u == g ? 1.0 : 0.0);
        m.columns.push_back(c);
    }
    const size_t n_groups = m.columns.size();

    std::set<std::string> named;
    for (const std::string &name : o.covariates) {
        if (!named.insert(name).second) throw failure("--covariates names " + name + " twice");
        cell_values v = column_values(t, find_column(t, name, "--covariates"), units);
        if (v.numeric) {
            check_varies(name, v.numbers);
            const double centre = o.centre ? mean(v.numbers) : 0.0;
            model_column c;
            c.name = name;
            for (double x : v.numbers) c.values.push_back(x - centre);
            m.columns.push_back(c);
            if (o.centre)
                m.notes.push_back(name + ": centred on its mean " + format_number(centre, 6));
            continue;
        }
        std::vector<std::string> levels = v.text;
        std::sort(levels.begin(), levels.end());
        levels.erase(std::unique(levels.begin(), levels.end()), levels.end());
        if (levels.size() < 2)
            throw failure("the covariate " + quoted(name) + " has the same value (" + levels[0] +
                          ") in every file");
        std::vector<std::string> made;
        for (size_t l = 1; l < levels.size(); ++l) {
            model_column c;
            c.name = name + "[" + levels[l] + "]";
            for (const std::string &x : v.text) c.values.push_back(x == levels[l] ? 1.0 : 0.0);
            const double centre = o.centre ? mean(c.values) : 0.0;
            for (double &x : c.values) x -= centre;
            m.columns.push_back(c);
            made.push_back(c.name);
        }
        m.notes.push_back(name + ": levels " + list(levels) + " (reference " + levels[0] +
                          "): indicator columns " + list(made) +
                          (o.centre ? ", centred on their means" : ""));
    }
    for (const std::string &name : o.by_group) {
        if (!named.insert(name).second)
            throw failure("--by-group names " + name +
                          (std::count(o.covariates.begin(), o.covariates.end(), name)
                               ? ", which --covariates names too (the slopes per group replace "
                                 "the common slope)"
                               : " twice"));
        cell_values v = column_values(t, find_column(t, name, "--by-group"), units);
        if (!v.numeric)
            throw failure("--by-group " + name + ": the column holds text (" + v.text[0] +
                          "); a slope per group needs numbers");
        check_varies(name, v.numbers);
        const double centre = o.centre ? mean(v.numbers) : 0.0;
        for (const std::string &g : groups) {
            model_column c;
            c.name = name + ":" + g;
            for (size_t u = 0; u < units.size(); ++u)
                c.values.push_back(group_of[u] == g ? v.numbers[u] - centre : 0.0);
            m.columns.push_back(c);
        }
        if (o.centre)
            m.notes.push_back(name + ": centred on its mean over all files " +
                              format_number(centre, 6) + ", one slope per group");
    }
    std::set<std::string> names;
    for (const model_column &c : m.columns)
        if (!names.insert(c.name).second)
            throw failure("two columns of the model are named " + quoted(c.name) +
                          "; rename a group or a column of the table");
    assign_events(&m.columns);
    if (n_groups == 1 && m.columns[0].name != "all")
        m.aliases.emplace_back("all", m.columns[0].event);
    m.design = m.columns.size() > n_groups;
    if (m.design) check_rank(m.columns, units.size());
    return m;
}

std::string describe_model(const study_model &m) {
    std::string s;
    for (const model_column &c : m.columns)
        s += (s.empty() ? "" : ", ") + c.name + " -> " + std::string(1, c.event);
    return s;
}

}  // namespace bridge
