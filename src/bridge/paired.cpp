// Which table rows become one signal file: each row, or with --paired the two
// sessions of each participant.
#include <map>
#include <set>

#include "import_model.h"

namespace bridge {

std::vector<signal_unit> single_rows(const table &t) {
    const int id_col = t.column("participant_id");
    std::vector<signal_unit> units(t.rows.size());
    for (size_t r = 0; r < t.rows.size(); ++r) {
        units[r].rows = {r};
        if (id_col >= 0 && given(t.rows[r][id_col])) units[r].id = t.rows[r][id_col];
    }
    return units;
}

std::vector<signal_unit> pair_rows(const table &t, const std::string &levels, pairing *p) {
    const int id_col = t.column("participant_id"), session_col = t.column("session");
    if (id_col < 0 || session_col < 0)
        throw failure("--paired needs the columns participant_id and session in " + t.path);
    std::set<std::string> sessions;
    for (size_t r = 0; r < t.rows.size(); ++r) {
        if (!given(t.rows[r][session_col]))
            throw failure(t.path + " line " + std::to_string(t.lines[r]) + ": no session given");
        sessions.insert(t.rows[r][session_col]);
    }
    // "post-pre": the split at a "-" where both sides are sessions of the table.
    for (size_t dash = levels.find('-'); dash != std::string::npos;
         dash = levels.find('-', dash + 1)) {
        std::string a = levels.substr(0, dash), b = levels.substr(dash + 1);
        if (sessions.count(a) && sessions.count(b) && a != b) {
            p->first = a;
            p->second = b;
        }
    }
    if (p->first.empty()) {
        std::string known;
        for (const std::string &s : sessions) known += (known.empty() ? "" : ", ") + s;
        throw failure("--paired " + levels +
                      ": give two sessions of the table as FIRST-SECOND (the session column " +
                      "holds " + known + ")");
    }
    std::map<std::string, size_t> unit_of;
    std::vector<signal_unit> units;
    std::vector<std::pair<long, long>> found;  // row of first, of second session (-1: none)
    for (size_t r = 0; r < t.rows.size(); ++r) {
        const std::string &session = t.rows[r][session_col], &id = t.rows[r][id_col];
        if (session != p->first && session != p->second) {
            ++p->other_rows;
            continue;
        }
        if (!given(id))
            throw failure(t.path + " line " + std::to_string(t.lines[r]) +
                          ": --paired needs a participant_id on every row");
        auto u = unit_of.find(id);
        if (u == unit_of.end()) {
            u = unit_of.emplace(id, units.size()).first;
            units.push_back({{}, id});
            found.emplace_back(-1, -1);
        }
        long &slot = session == p->first ? found[u->second].first : found[u->second].second;
        if (slot >= 0)
            throw failure(t.path + " lines " + std::to_string(t.lines[slot]) + " and " +
                          std::to_string(t.lines[r]) + ": participant " + id + " has session " +
                          session + " twice");
        slot = static_cast<long>(r);
    }
    std::vector<signal_unit> complete;
    for (size_t u = 0; u < units.size(); ++u) {
        if (found[u].first < 0 || found[u].second < 0) {
            p->incomplete.push_back(units[u].id);
            continue;
        }
        units[u].rows = {static_cast<size_t>(found[u].first), static_cast<size_t>(found[u].second)};
        complete.push_back(units[u]);
    }
    if (complete.empty())
        throw failure("--paired " + levels + ": no participant has both sessions " + p->first +
                      " and " + p->second);
    return complete;
}

}  // namespace bridge
