// The command line of the companion programs, parsed one way for all: --help
// and --version print and end with status 0; a bad option gives one
// "Error: ..." line on standard error and status 1.
#ifndef FMRI_REM_COMPANION_CLI_H
#define FMRI_REM_COMPANION_CLI_H

#include <CLI/CLI.hpp>
#include <iostream>

// The status to end with, or -1 when the program goes on.
inline int parse_companion_command_line(CLI::App &app, int argc, char **argv) {
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        if (e.get_exit_code() == 0) return app.exit(e);  // --help, --version
        std::cerr << "Error: " << e.what() << " (see " << app.get_name() << " --help)\n";
        return 1;
    }
    return -1;
}

#endif
