// Interactive help: a text file shown as a two-level menu (main menu, numbered
// sub-menus, numbered items), driven by numbers typed on standard input.
//
// File format: a line beginning with "!" is an entry marker "!m i"; entry 0 0
// is the main menu's text, m 0 the heading of sub-menu m, m i its item i.  An
// entry's text is every line after its marker up to the next marker.  A line
// of an item's text beginning with ">" links to another help file in the same
// folder.
#include "util.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace {

const int line_size = 1024;

// Name of the file of the last top-level call, to which a linked file returns.
char saved_help_file_name[line_size];

struct Marker {
    int menu;
    int item;
    long line;  // line number of the marker, counting from 0
};

struct EntryText {
    long marker_line;
    long nlines;
};

// The tables built from one help file.
struct HelpFile {
    FILE *file = nullptr;
    std::map<std::pair<int, int>, EntryText> entries;
    std::map<int, int> item_count;
    int nmenus = 1;

    ~HelpFile() { close(); }
    void close() {
        if (file != nullptr) fclose(file);
        file = nullptr;
        entries.clear();
        item_count.clear();
    }
    int items(int menu) const {
        auto it = item_count.find(menu);
        return it == item_count.end() ? 0 : it->second;
    }
};

void read_markers(FILE *file, std::vector<Marker> &markers, long &nlines) {
    char line[line_size];
    nlines = 0;
    rewind(file);
    while (get_line(file, line) != nullptr) {
        if (line[0] == '!') {
            // A marker without two numbers gets -1 -1, which the order
            // check refuses.
            Marker marker{-1, -1, nlines};
            if (sscanf(line + 1, "%d %d", &marker.menu, &marker.item) != 2) {
                marker.menu = -1;
                marker.item = -1;
            }
            markers.push_back(marker);
        }
        ++nlines;
    }
    rewind(file);
}

// Prints the text of entry (menu, item).  With follow_links, stops at the
// first line beginning with ">" followed by a word, stores that word in link
// and returns true.
bool show_entry(HelpFile &help, int menu, int item, bool follow_links, char *link) {
    auto it = help.entries.find(std::make_pair(menu, item));
    if (it == help.entries.end()) return false;
    char line[line_size];
    rewind(help.file);
    for (long l = 0; l <= it->second.marker_line; ++l)
        if (get_line(help.file, line) == nullptr) return false;
    for (long l = 0; l < it->second.nlines; ++l) {
        if (get_line(help.file, line) == nullptr) break;
        if (follow_links && line[0] == '>' && sscanf(line + 1, "%1023s", link) == 1) return true;
        fputs(line, stdout);
    }
    return false;
}

// Reads a leading integer as "%d" would (leading blanks skipped, optional
// sign), clamped to the int range.  False when the text does not begin with
// a number.
bool leading_number(const char *text, int *value) {
    const char *p = next_non_white(text);
    char *end = nullptr;
    errno = 0;
    long v = strtol(p, &end, 10);
    if (end == p) return false;
    if (v > INT_MAX) v = INT_MAX;
    if (v < INT_MIN) v = INT_MIN;
    *value = static_cast<int>(v);
    return true;
}

void bad_option(int upper) {
    printf("Bad option. Choose '0', 'b', 'q', or a number from 1 to %d\n", upper);
}

// Where the dialogue goes when one help file is done with.
enum class Next {
    end,        // the menu is left (or failed): help_menu returns
    link,       // an item's link names the next file
    top_level,  // a linked file was left: back to the top-level file
};

// Shows one help file and runs its dialogue.  Returns 0, or 1 on an error;
// next tells what follows, and link_name holds the linked file's name.
int show_help_file(int linked, const char *file_name, Next &next, std::string &link_name) {
    next = Next::end;
    const char *home = getenv("TOV_HOME");
    if (home == nullptr) {
        printf("For help, quit and define the environment variable TOV_HOME, and then re-start.\n");
        return 1;
    }

    const std::string path = std::string(home) + "/documentation/" + file_name;
    if (path.size() > static_cast<size_t>(line_size - 1)) {
        printf("Error: the path of the help file %s is longer than %d characters.\n", file_name,
               line_size - 1);
        return 1;
    }

    HelpFile help;
    help.file = fopen(path.c_str(), "r");
    if (help.file == nullptr) {
        printf("Error: cannot open the file %s.\n", path.c_str());
        printf("The environment variable TOV_HOME is set to %s\n", home);
        printf("If this is incorrect, quit, define this environment variable, and re-start.\n");
        return 1;
    }
    if (linked == 0) snprintf(saved_help_file_name, sizeof saved_help_file_name, "%s", file_name);
    printf("Help from file %s\n", path.c_str());

    // The markers must follow one another: the next item of the same menu
    // or the heading of the next menu.
    std::vector<Marker> markers;
    long nlines = 0;
    read_markers(help.file, markers, nlines);
    int m = 0, i = 0;
    for (size_t j = 0; j < markers.size(); ++j) {
        const int a = markers[j].menu, b = markers[j].item;
        const long long m1 = static_cast<long long>(m) + 1, i1 = static_cast<long long>(i) + 1;
        if (!(a == m || b == i1 || a == m1 || b == i)) {
            printf("Warning: menu entry %d in file %s is %d %d,\n", static_cast<int>(j),
                   path.c_str(), a, b);
            printf("but it should be either %d %d or %d %d,\n", m, i + 1, m + 1, i);
            return 1;
        }
        if (a == m1)
            m = m + 1, i = 0;
        else if (b == i1)
            i = i + 1;
    }

    // Where each entry's text lies, and how many items each menu has.
    for (size_t j = 0; j < markers.size(); ++j) {
        const long end = j + 1 < markers.size() ? markers[j + 1].line : nlines;
        help.entries[std::make_pair(markers[j].menu, markers[j].item)] =
            EntryText{markers[j].line, end - markers[j].line - 1};
        help.item_count[markers[j].menu] = markers[j].item;
    }
    if (!markers.empty()) {
        const long long last = static_cast<long long>(markers.back().menu) + 1;
        help.nmenus = last < 1 ? 1 : (last > INT_MAX ? INT_MAX : static_cast<int>(last));
    }
    help.item_count[0] = help.nmenus;

    // The dialogue.
    char answer[line_size] = " ";
    bool have_number = false;  // a number was typed in this call
    int k = 0;                 // the last number typed
    m = 0;
    i = 0;
    for (;;) {
        if (strcmp(answer, "quit") == 0 || strcmp(answer, "q") == 0) break;
        i = 0;
        if (m != 0 && help.items(m) <= 0) m = 0;
        show_entry(help, m, 0, false, nullptr);
        printf("----------------------------------------------\n");
        printf("--- choose item: 0 = main menu, return = back \n");
        printf("----------------------------------------------\n");
        printf(m != 0 ? "help >> " : "help > ");
        fflush(stdout);

        if (get_line(stdin, answer) == nullptr) return 0;  // end of input: leave
        int number;
        if (!leading_number(answer, &number)) {
            // Only an empty answer becomes exactly "b" or "q".
            answer[0] = m != 0 ? 'b' : 'q';
        } else {
            char word[line_size];
            if (sscanf(answer, "%1023s", word) == 1) memcpy(answer, word, strlen(word) + 1);
        }

        if (strcmp(answer, "quit") == 0 || strcmp(answer, "q") == 0) continue;
        if (strcmp(answer, "0") == 0) {
            m = 0;
            i = 0;
        } else if (strcmp(answer, "b") == 0) {
            if (i != 0)
                i = 0;
            else
                m = 0;
        } else {
            // A typed word that holds no number repeats the last number of
            // this call; before any number it is refused.
            if (leading_number(answer, &number)) {
                k = number;
                have_number = true;
            }
            if (!have_number) {
                bad_option(m == 0 ? help.nmenus - 1 : i);
            } else if (m == 0) {
                if (k < 0 || k > help.nmenus - 1)
                    bad_option(help.nmenus - 1);
                else
                    m = k, i = 0;
            } else if (k < 0 || k > help.items(m)) {
                bad_option(i);
            } else {
                i = k;
            }
        }

        if (i == 0 && help.items(m) > 0) continue;
        char link[line_size];
        if (show_entry(help, m, i, m != 0, link)) {
            link_name = link;
            next = Next::link;
            return 0;
        }
    }

    if (linked == 1 && saved_help_file_name[0] != '\0') next = Next::top_level;
    return 0;
}

}  // namespace

// Links are followed one file after the other, however long the chain:
// a file that follows a link or returns to the top-level file gives way to
// the next, and only the first call's own failure is reported.
extern "C" int help_menu(int linked, const char *file_name) {
    std::string name = file_name;
    for (bool first = true;; first = false) {
        Next next = Next::end;
        std::string link;
        const int result = show_help_file(linked, name.c_str(), next, link);
        if (next == Next::end) return first ? result : 0;
        if (next == Next::link) {
            linked = 1;
            name = link;
        } else {
            linked = 0;
            name = saved_help_file_name;
        }
    }
}
