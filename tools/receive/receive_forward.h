#pragma once

#include <curl/curl.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "report_figures.h"
#include "support/tarn_files.h"

/// Where reports are forwarded to.
struct forward_options {
    std::string url;         ///< the whole URL to which line protocol is posted; empty: not forwarded
    std::string headers;     ///< file of HTTP headers to send along, one a line; empty: none
    std::size_t queue = 64;  ///< MiB of compressed lines that wait for the engine
};

/// What became of the reports so far.
struct forward_counts {
    unsigned long sent = 0;
    unsigned long refused = 0;  ///< in batches that the engine called invalid
    unsigned long dropped = 0;  ///< the queue was full
};

/// Sends reports as line protocol over HTTP, in compressed batches over one kept-alive connection. What the
/// engine does not take now is kept and sent again, until the queue is full; then the oldest is dropped.
class forwarder final {
  public:
    /// Returns what is wrong with the options; empty when they are good. Call once, before the others.
    std::string open(const forward_options& options);

    /// Queues the figures of a report.
    void add(const report_head& head, std::span<const std::uint8_t> document);

    /// Sends, and waits until a descriptor is readable, at most for the given time.
    void wait(int descriptor, std::chrono::milliseconds limit);

    /// Sends until the queue is empty or the time has passed.
    void flush(std::chrono::milliseconds limit);

    [[nodiscard]] const forward_counts& reports() const { return counts_; }
    [[nodiscard]] unsigned long queued_reports() const { return queued_reports_ + pending_reports_; }
    [[nodiscard]] std::size_t queued_bytes() const { return queued_bytes_ + pending_.size(); }

  private:
    using time_point = std::chrono::steady_clock::time_point;

    struct batch {
        std::string body;  ///< compressed lines
        unsigned long reports;
    };

    std::string set_url(const std::string& given);
    std::string set_headers(const std::string& path);
    void set_transfer();
    void close_batch();
    void drop_oldest();
    void start();
    void finish(CURLcode result);
    void refuse(long status);
    [[nodiscard]] std::string answer_text(long status) const;
    void try_later(long failure, const std::string& reason);
    void remove_first();

    std::unique_ptr<CURLM, tarn::closer<curl_multi_cleanup>> multi_;
    std::unique_ptr<CURL, tarn::closer<curl_easy_cleanup>> easy_;
    std::unique_ptr<curl_slist, tarn::closer<curl_slist_free_all>> headers_;
    std::unique_ptr<curl_slist, tarn::closer<curl_slist_free_all>> plain_headers_;
    std::string_view sub_seconds_;
    std::size_t queue_limit_ = 0;

    std::string pending_;  ///< lines that are in no batch yet
    unsigned long pending_reports_ = 0;
    time_point pending_since_;
    std::deque<batch> batches_;  ///< the first one is in flight while is_sending_
    std::size_t queued_bytes_ = 0;
    unsigned long queued_reports_ = 0;
    forward_counts counts_;

    bool is_sending_ = false;
    bool takes_gzip_ = false;  ///< the engine has taken a compressed body
    bool is_plain_ = false;    ///< bodies are sent without compression
    std::string plain_body_;
    std::string answer_;  ///< the beginning of the engine's answer
    std::array<char, CURL_ERROR_SIZE> error_{};
    time_point next_try_;
    std::chrono::milliseconds delay_{0};  ///< before the next try; 0 while the engine answers
    long failure_ = 0;      ///< HTTP status or negative curl code of the last failure; 0 for none
    bool is_full_ = false;  ///< reports have been dropped since the engine last answered
};
