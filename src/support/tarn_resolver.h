#pragma once

#include <netinet/in.h>

#include <optional>

#include "support/tarn_deadline.h"

namespace tarn {

/// What became of a look-up.
struct host_lookup {
    std::optional<in_addr> address;  ///< the first IPv4 address of the name
    bool is_late = false;            ///< there was no answer in time, or a signal ended the wait
};

/// Looks a host name up with the system's resolver, which knows no limit of its own: a child asks it and is
/// killed at the deadline. A dotted address needs no child.
host_lookup look_up_host(const char* name, deadline end);

}  // namespace tarn
