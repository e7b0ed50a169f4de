#pragma once

/// Reads the main configuration file and then every extra file that the glob pattern matches, in sorted
/// order, into `config` and `stats`. Returns 0, or the non-zero result of the first file that failed; the
/// files after it are not read.
int parse_config();

/// Reads one configuration file: a key and a value per line, no comments, unknown keys ignored. Returns 1
/// when the file is missing, a UUID is malformed, or what has been read so far does not identify the server.
int parse_config_file(const char* path);
