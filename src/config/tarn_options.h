#pragma once

/// Processes the command line in order. -h, -v and the diagnostic modes end the process with status 0 as soon
/// as they are met; an unknown option is reported and skipped. Returns 0.
int parse_options(int argc, char** argv);

/// Prints the configuration, without secrets and counter lines. Returns 0.
int print_config();
