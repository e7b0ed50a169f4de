#pragma once

#include <netinet/in.h>

#include <optional>

#include "support/tarn_deadline.h"

namespace tarn {

/// The result of a look-up.
struct host_lookup {
    std::optional<in_addr> address;  ///< the first IPv4 address of the name
    bool is_late = false;            ///< no answer in time, or a signal ended the wait
};

/// Looks up a host name with the system's resolver. The resolver has no time limit of its own, so a child
/// process calls it and is killed at the deadline. A dotted address needs no child.
host_lookup look_up_host(const char* name, deadline end);

}  // namespace tarn
