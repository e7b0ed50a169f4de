#pragma once

#include <microhttpd.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "support/tarn_files.h"

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
