#pragma once

#include <sys/types.h>

/// Printed for a `uuid` that does not parse, and for one of the wrong length.
inline constexpr const char* bad_uuid_message =
    "ERROR: UUID must be in aaaaaaaa-bbbb-cccc-dddd-eeeeeeeeeeee format\n";

/// Reads five groups of hexadecimal digits separated by "-". The key is the exclusive-or of the groups read,
/// each taken modulo 2^32, and is written in any case. Returns 1 when there were five, else 0.
int parse_uuid(const char* text, key_t& key);

/// Checks what has been read so far: a server is identified by its id, or by a UUID of 36 characters together
/// with the names of the server and its project. Returns 0; 1, with a message, when it is not.
int check_identity();
