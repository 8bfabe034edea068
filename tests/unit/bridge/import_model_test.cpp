// The import's model from a table in memory: the pairing of sessions,
// conditions by name written in event characters, and the analysis file.
// The columns' values and names are checked through whole runs against an
// independent fit (bridge/design_model_test.cpp).
#include <gtest/gtest.h>

#include "import_model.h"

namespace {

using bridge::table;

// participant_id, group, session, age, sex: a table in memory.
table study_table(const std::vector<std::vector<std::string>> &rows) {
    table t;
    t.path = "t.tsv";
    t.columns = {"participant_id", "group", "session", "age", "sex"};
    t.rows = rows;
    for (size_t r = 0; r < rows.size(); ++r) t.lines.push_back(static_cast<int>(r) + 2);
    return t;
}

const table kStudy = study_table({{"s1", "patients", "pre", "20", "F"},
                                  {"s2", "patients", "pre", "30", "M"},
                                  {"s3", "patients", "pre", "31", "M"},
                                  {"s4", "controls", "pre", "40", "F"},
                                  {"s5", "controls", "pre", "44", "M"},
                                  {"s6", "controls", "pre", "39", "F"}});

}  // namespace

// Sessions post and pre of four participants: s2 lacks pre and is left out;
// the covariate of a pair, not centred, is the mean of its two rows.
TEST(ImportModel, PairedSessions) {
    const table t = study_table({{"s1", "g", "pre", "20", "F"},
                                 {"s1", "g", "post", "22", "F"},
                                 {"s2", "g", "post", "30", "M"},
                                 {"s3", "g", "post-x", "31", "M"},
                                 {"s3", "g", "pre", "33", "M"},
                                 {"s3", "g", "post", "35", "M"},
                                 {"s4", "g", "pre", "40", "F"},
                                 {"s4", "g", "post", "42", "F"}});
    bridge::pairing p;
    const std::vector<bridge::signal_unit> units = bridge::pair_rows(t, "post-pre", &p);
    EXPECT_EQ(p.first, "post");
    EXPECT_EQ(p.second, "pre");
    EXPECT_EQ(p.incomplete, std::vector<std::string>{"s2"});
    EXPECT_EQ(p.other_rows, 1u);
    ASSERT_EQ(units.size(), 3u);
    EXPECT_EQ(units[0].rows, (std::vector<size_t>{1, 0}));
    EXPECT_EQ(units[1].rows, (std::vector<size_t>{5, 4}));
    EXPECT_EQ(units[2].id, "s4");
    bridge::study_model m = bridge::build_model(t, units, {{"age"}, {}, "", false});
    EXPECT_EQ(m.columns[1].values, (std::vector<double>{21, 34, 41}));
    // A session value with "-" in it splits where both sides are sessions.
    bridge::pairing q;
    EXPECT_EQ(bridge::pair_rows(t, "post-x-pre", &q).size(), 1u);
    EXPECT_EQ(q.first, "post-x");
}

TEST(ImportModel, ConditionsByName) {
    bridge::model_options o{{}, {"age"}, "", true};
    bridge::study_model m = bridge::build_model(kStudy, bridge::single_rows(kStudy), o);
    m.aliases.emplace_back("both", 'p');  // a name that is a prefix of none
    struct condition_case {
        const char *given, *events, *names;  // names "": written as given
    } cases[] = {
        {"p-c", "p-c", ""},
        {"pc", "pc", ""},
        {"-controls+patients", "-c+p", "-controls+patients"},
        {"patients-age:patients-controls", "p-ac", "patients-age:patients-controls"},
        {"age:patients,age:controls", "a,b", "age:patients,age:controls"},
        {"0.25*age:controls-p", "0.25*b-p", "0.25*age:controls-p"},
    };
    for (const condition_case &c : cases) {
        SCOPED_TRACE(c.given);
        const std::vector<bridge::condition_text> out = bridge::translate_conditions(c.given, m);
        ASSERT_EQ(out.size(), 1u);
        EXPECT_EQ(out[0].events, c.events);
        EXPECT_EQ(out[0].names, c.names);
    }
    // A conditions text wrapped onto two lines (as pasted from a shell) splits at the line break.
    EXPECT_EQ(bridge::translate_conditions("p-c\n   age:patients", m).size(), 2u);
    const struct {
        const char *given, *message;
    } bad[] = {
        {"age",
         "uses age, which is not in the model (patients -> p, controls -> c, "
         "age:patients -> a, age:controls -> b, both -> p)"},
        {"0*patients", "has the coefficient 0; give a number other than 0"},
        {"p,,c", "has a row without an event"},
        {"patients-", "has a row without an event"},
        {"p+patients", "names p twice in one row"},
        {"2*", "uses nothing after *"},
        {"  ", "--conditions names no condition"},
    };
    for (const auto &c : bad) {
        SCOPED_TRACE(c.given);
        try {
            bridge::translate_conditions(c.given, m);
            ADD_FAILURE() << "accepted";
        } catch (const bridge::failure &e) {
            EXPECT_NE(std::string(e.what()).find(c.message), std::string::npos) << e.what();
        }
    }
}

// The two layouts, with the names as comment lines of one shape.
TEST(ImportModel, AnalysisFileText) {
    bridge::study_model m = bridge::build_model(kStudy, bridge::single_rows(kStudy), {});
    const std::vector<std::string> signals = {"signal/s1.bfloat", "signal/s2.bfloat",
                                              "signal/s3.bfloat", "signal/s4.bfloat",
                                              "signal/s5.bfloat", "signal/s6.bfloat"};
    bridge::analysis_settings h{"t.tsv", 6, 8.5, 40, false, false};
    const std::string head = std::string("# Written by fmri-rem-import ") + bridge::version() +
                             " from t.tsv\nsmoothing 6 8.5\n";
    EXPECT_EQ(bridge::analysis_text(h, m, bridge::translate_conditions("p patients-controls", m),
                                    signals, {1, 2, 1, 1, 1, 3}),
              head +
                  "conditions p p-c\nmultiple-comparisons 40\nreml classic\nsmoothness stated\n"
                  "# event p = patients\n# event c = controls\n"
                  "# condition p-c = patients-controls\n"
                  "event p  # patients\nsignal/s1.bfloat 1\nsignal/s2.bfloat 2\n"
                  "signal/s3.bfloat 1\nevent c  # controls\nsignal/s4.bfloat 1\n"
                  "signal/s5.bfloat 1\nsignal/s6.bfloat 3\n");
    m = bridge::build_model(kStudy, bridge::single_rows(kStudy), {{"age"}, {}, "", true});
    h.converged = true;
    h.smoothness_estimated = true;
    const std::string text = bridge::analysis_text(
        h, m, bridge::translate_conditions("0.5*patients+0.5*controls", m), signals, {});
    for (const char *line : {"\nreml converged\nsmoothness estimated\n",
                             "\n# age: centred on its mean 34\ndesign p c a\nmeasurements\n"
                             "signal/s1.bfloat 1 0 -14\n",
                             "\nsignal/s6.bfloat 0 1 5\n"})
        EXPECT_NE(text.find(line), std::string::npos) << text;
}
