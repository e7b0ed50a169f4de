#pragma once

#include <microhttpd.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "receive_forward.h"
#include "receive_hosts.h"
#include "support/tarn_files.h"

/// The receiver's own figures.
struct receive_counts {
    unsigned long packets = 0;
    unsigned long good = 0;
    unsigned long bad = 0;
    std::map<std::pair<std::string, std::string>, unsigned long> bad_by;  ///< by reason and sender's address
    unsigned long socket_drops = 0;  ///< datagrams that came while the socket's buffer was full
    forwarder::counts forwarded;
    unsigned long queued_reports = 0;
    std::size_t queued_bytes = 0;

    /// Counts a bad packet. Sources beyond some hundred are counted as one.
    void add_bad(const std::string& reason, const std::string& source);
};

/// All figures in the text format of Prometheus. Hosts that are not up have no figures but "tarn_host_up" and
/// the age of their last report.
std::string metrics_text(const receive_counts& counts, const host_table& hosts, host_table::time_point now);

/// Serves http://ADDRESS:PORT/metrics on a descriptor of its own, without threads.
class metrics_server final {
  public:
    using text_maker = std::function<std::string()>;

    /// Listens on "ADDRESS:PORT"; returns what is wrong, empty on success.
    std::string open(const std::string& address, text_maker make_text);

    /// Readable when there is something to serve.
    [[nodiscard]] int descriptor() const { return descriptor_; }

    /// Serves what is ready and drops connections that are too slow.
    void serve();

  private:
    MHD_Result answer(MHD_Connection* connection, const char* path, const char* method);
    static MHD_Result on_request(void* self, MHD_Connection* connection, const char* path, const char* method,
                                 const char* version, const char* data, std::size_t* size, void** request);
    MHD_Response* metrics();

    text_maker make_text_;
    std::unique_ptr<MHD_Response, tarn::closer<MHD_destroy_response>> last_;
    std::chrono::steady_clock::time_point last_made_;
    std::unique_ptr<MHD_Daemon, tarn::closer<MHD_stop_daemon>> daemon_;
    int descriptor_ = -1;
};
