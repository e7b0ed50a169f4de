#pragma once

/// Reads the main configuration file and then every extra file that the glob pattern matches, in sorted
/// order, into `config` and `stats`. Returns 0, or 1 after the first file that is missing, has a malformed
/// UUID or leaves the server unidentified; the files after it are not read.
int parse_config();
