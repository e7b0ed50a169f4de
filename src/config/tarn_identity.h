#pragma once

#include <sys/types.h>

/// Printed for a UUID that does not parse or has the wrong length.
inline constexpr const char* bad_uuid_message =
    "ERROR: UUID must be in aaaaaaaa-bbbb-cccc-dddd-eeeeeeeeeeee format\n";

/// Reads five groups of hexadecimal digits separated by "-". The key is the exclusive-or of the groups, each
/// modulo 2^32, and is written even on failure. Returns 1 when all five groups were read, else 0.
int parse_uuid(const char* text, key_t& key);

/// Checks that the configuration so far identifies the server: by an id, or by a UUID of 36 characters
/// together with the names of the server and its project. Returns 0, or 1 with a message.
int check_identity();
