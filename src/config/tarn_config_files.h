#pragma once

#include <array>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

/// Reads one line of at most 4095 characters. The rest of a longer line is dropped, and so is the text after
/// a zero byte. False at the end of the file.
bool read_config_line(std::FILE& file, std::array<char, 4096>& buffer, std::string_view& line);

/// The paths of the extra files: those that match the configured pattern, sorted.
std::vector<std::string> extra_config_paths();

/// Reads the main configuration file and then every extra file that the glob pattern matches, in sorted
/// order, into `config` and `stats`. Returns 0, or 1 after the first file that is missing, has a malformed
/// UUID or leaves the server unidentified; the files after it are not read.
int parse_config();
