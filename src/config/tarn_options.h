#pragma once

/// Walks the command line in order. The diagnostic modes, -h and -v end the process with status 0 where they
/// stand; an unknown option is reported and skipped. Returns 0.
int parse_options(int argc, char** argv);

/// Prints the configuration, without secrets and counter lines. Returns 0.
int print_config();
