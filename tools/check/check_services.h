#pragma once

#include <string>
#include <vector>

#include "check_config.h"

/// What the line of a counter was understood as: id, address, user and further words, without the password.
std::string description(const checked_counter& one);

/// True when the line of the counter has a password.
bool has_password(const checked_counter& one);

/// Samples each service once, each in a process of its own, and prints a line for it: "NAME ok 2 ms 14
/// figures" or "NAME FAILED reason". With a name, which may be an id, only that service. Scripts are not run.
void probe_services(const std::vector<checked_counter>& counters, const std::string& only, std::FILE& out,
                    findings& found);
