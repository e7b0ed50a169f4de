#pragma once

#include <sys/types.h>

/// Reads the main configuration file and then every extra file that the glob pattern matches, in sorted
/// order, into `config` and `stats`. Returns 0, or the non-zero result of the first file that failed; the
/// files after it are not read.
int parse_config();

/// Reads one configuration file: a key and a value per line, no comments, unknown keys ignored. Returns 1
/// when the file is missing, a UUID is malformed, or what has been read so far does not identify the server.
int parse_config_file(const char* path);

/// Reads five groups of hexadecimal digits separated by "-". The key is the exclusive-or of the groups read,
/// each taken modulo 2^32, and is written in any case. Returns 1 when there were five, else 0.
int parse_uuid(const char* text, key_t& key);
