// The daemon's command-line switches.
#ifndef LEISOBEK_CORE_SWITCHES_H
#define LEISOBEK_CORE_SWITCHES_H

// What the command line chose.
struct daemon_switches {
    // ConfD library debug level: -s 0, -d 1, -t 2, -p 3; the last one given wins.
    int debug_level;
    // -n: 1 announces the agent with ucdStart, 0 sends ucdShutdown and stops
    // start-up, anything else announces nothing.
    int start_mode;
};

// Parses argv with getopt and the option string "tdpsrn:". Every switch may
// be repeated; -r is accepted and ignored; -n takes its number through atoi,
// so a non-number counts as 0. An unknown switch or a missing -n argument
// draws getopt's complaint on stderr and is otherwise ignored, as are
// positional arguments. Never fails. May be called again (it restarts getopt).
struct daemon_switches parse_switches(int argc, char *argv[]);

#endif
