// One transfer at a time: with batches of a megabyte, a second connection would gain nothing.
#include "receive_forward.h"

#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include "line_protocol.h"
#include "receive_print.h"
#include "support/tarn_text.h"
#include "support/tarn_version.h"

namespace {

using namespace std::chrono_literals;

/// A batch is closed when it has this many bytes of lines, or is this old and the engine is idle.
constexpr std::size_t full_batch = std::size_t{1024} * 1024;
constexpr auto batch_age = 1s;

constexpr auto first_delay = 500ms;
constexpr auto longest_delay = 5s;
constexpr long transfer_seconds = 30;
constexpr long connect_seconds = 5;
constexpr std::size_t shown_answer = 200;

/// zlib's code for 32 KiB of history and a gzip header.
constexpr int gzip_window = 15 + 16;

std::string compressed(const std::string& text) {
    z_stream stream{};
    // Level 1: lines repeat themselves so much that the others gain little and cost three times as much.
    if (::deflateInit2(&stream, 1, Z_DEFLATED, gzip_window, 8, Z_DEFAULT_STRATEGY) != Z_OK)
        throw std::bad_alloc();
    std::string body(::deflateBound(&stream, text.size()), '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    stream.avail_in = static_cast<uInt>(text.size());
    stream.next_out = reinterpret_cast<Bytef*>(body.data());
    stream.avail_out = static_cast<uInt>(body.size());
    ::deflate(&stream, Z_FINISH);
    body.resize(stream.total_out);
    body.shrink_to_fit();
    ::deflateEnd(&stream);
    return body;
}

std::string uncompressed(const std::string& body) {
    z_stream stream{};
    if (::inflateInit2(&stream, gzip_window) != Z_OK) throw std::bad_alloc();
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(body.data()));
    stream.avail_in = static_cast<uInt>(body.size());
    std::string text;
    for (int status = Z_OK; status == Z_OK;) {
        text.resize(text.size() + full_batch);
        stream.next_out = reinterpret_cast<Bytef*>(text.data() + stream.total_out);
        stream.avail_out = static_cast<uInt>(text.size() - stream.total_out);
        status = ::inflate(&stream, Z_NO_FLUSH);
    }
    text.resize(stream.total_out);
    ::inflateEnd(&stream);
    return text;
}

/// The zeros that make seconds a time in the URL's precision; null for a precision that is not known.
const char* zeros_of(std::string_view precision) {
    constexpr std::pair<std::string_view, const char*> precisions[] = {
        {"s", ""}, {"ms", "000"}, {"u", "000000"}, {"us", "000000"}, {"n", "000000000"}, {"ns", "000000000"}};
    for (const auto& [name, zeros] : precisions) {
        if (name == precision) return zeros;
    }
    return nullptr;
}

struct url_text_free {
    void operator()(char* text) const { curl_free(text); }
};

std::string part_of(CURLU* url, CURLUPart part) {
    char* text = nullptr;
    if (curl_url_get(url, part, &text, 0) != CURLUE_OK) return {};
    return std::unique_ptr<char, url_text_free>(text).get();
}

/// The value of "precision" in a query; empty when there is none.
std::string_view precision_in(std::string_view query) {
    constexpr std::string_view name = "precision=";
    while (!query.empty()) {
        const std::string_view argument = tarn::next_token(query, "&");
        if (argument.starts_with(name)) return argument.substr(name.size());
    }
    return {};
}

std::size_t keep_beginning(char* data, std::size_t /*one*/, std::size_t size, void* answer) {
    auto& text = *static_cast<std::string*>(answer);
    text.append(data, std::min(size, shown_answer - std::min(text.size(), shown_answer)));
    return size;
}

/// True for an answer that says that the lines are wrong. Other failures may be mended at the engine's side.
bool is_refusal(long status) {
    return status == 400 || status == 413 || status == 422;
}

}  // namespace

std::string forwarder::set_url(const std::string& given) {
    const std::unique_ptr<CURLU, tarn::closer<curl_url_cleanup>> url(curl_url());
    const CURLUcode fault = curl_url_set(url.get(), CURLUPART_URL, given.c_str(), 0);
    if (fault != CURLUE_OK) return curl_url_strerror(fault);
    std::string_view precision = "s";
    const std::string query = part_of(url.get(), CURLUPART_QUERY);
    if (const auto wanted = precision_in(query); !wanted.empty()) {
        precision = wanted;
    } else {
        curl_url_set(url.get(), CURLUPART_QUERY, "precision=s", CURLU_APPENDQUERY);
    }
    const char* const zeros = zeros_of(precision);
    if (zeros == nullptr) return "the precision is not s, ms, us or ns";
    sub_seconds_ = zeros;
    curl_easy_setopt(easy_.get(), CURLOPT_URL, part_of(url.get(), CURLUPART_URL).c_str());
    const CURLcode refused = curl_easy_setopt(easy_.get(), CURLOPT_PROTOCOLS_STR, "http,https");
    const std::string scheme = part_of(url.get(), CURLUPART_SCHEME);
    return refused == CURLE_OK && (scheme == "http" || scheme == "https") ? "" : "not http or https";
}

/// Builds the headers with and without compression. "Expect:" keeps curl from waiting for leave to send.
std::string forwarder::set_headers(const std::string& path) {
    curl_slist* list = curl_slist_append(nullptr, "Content-Type: text/plain; charset=utf-8");
    list = curl_slist_append(list, "Expect:");
    headers_.reset(list);
    if (!path.empty()) {
        const auto text = tarn::read_file(path.c_str());
        if (!text) return "cannot open " + path;
        tarn::line_reader lines(*text);
        std::string_view line;
        while (lines.next(line)) {
            if (!line.empty()) curl_slist_append(list, std::string(line).c_str());
        }
    }
    curl_slist* copy = nullptr;
    for (const curl_slist* one = list; one != nullptr; one = one->next)
        copy = curl_slist_append(copy, one->data);
    plain_headers_.reset(copy);
    curl_slist_append(list, "Content-Encoding: gzip");
    return {};
}

void forwarder::set_transfer() {
    CURL* const easy = easy_.get();
    curl_easy_setopt(easy, CURLOPT_POST, 1L);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_TIMEOUT, transfer_seconds);
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT, connect_seconds);
    curl_easy_setopt(easy, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(easy, CURLOPT_USERAGENT, "tarn-receive/" TARN_VERSION);
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, error_.data());
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, keep_beginning);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &answer_);
}

std::string forwarder::open(const forward_options& options) {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    multi_.reset(curl_multi_init());
    easy_.reset(curl_easy_init());
    if (!multi_ || !easy_) return "not enough memory";
    queue_limit_ = options.queue * 1024 * 1024;
    set_transfer();
    std::string fault = set_headers(options.headers);
    return fault.empty() ? set_url(options.url) : fault;
}

void forwarder::add(const report_head& head, std::span<const std::uint8_t> document) {
    if (pending_.empty()) pending_since_ = std::chrono::steady_clock::now();
    append_lines(head, document, sub_seconds_, pending_);
    if (pending_.empty()) return;
    ++pending_reports_;
    if (pending_.size() >= full_batch) close_batch();
}

void forwarder::close_batch() {
    batches_.push_back({compressed(pending_), pending_reports_});
    queued_bytes_ += batches_.back().body.size();
    queued_reports_ += pending_reports_;
    pending_.clear();
    pending_reports_ = 0;
    drop_oldest();
}

/// Drops batches, but not the one in flight, until the queue is within its limit.
void forwarder::drop_oldest() {
    const std::size_t in_flight = is_sending_ ? 1 : 0;
    while (queued_bytes_ > queue_limit_ && batches_.size() > in_flight) {
        const auto oldest = batches_.begin() + static_cast<std::ptrdiff_t>(in_flight);
        if (!is_full_)
            std::fprintf(stderr, "tarn-receive: the queue is full, the oldest reports are dropped\n");
        is_full_ = true;
        counts_.dropped += oldest->reports;
        queued_reports_ -= oldest->reports;
        queued_bytes_ -= oldest->body.size();
        batches_.erase(oldest);
    }
}

void forwarder::remove_first() {
    queued_reports_ -= batches_.front().reports;
    queued_bytes_ -= batches_.front().body.size();
    batches_.pop_front();
}

/// Begins to send the next batch if there is one and nothing is in flight.
void forwarder::start() {
    const time_point now = std::chrono::steady_clock::now();
    if (is_sending_ || now < next_try_) return;
    if (batches_.empty() && !pending_.empty() && now - pending_since_ >= batch_age) close_batch();
    if (batches_.empty()) return;
    if (is_plain_) plain_body_ = uncompressed(batches_.front().body);
    const std::string& body = is_plain_ ? plain_body_ : batches_.front().body;
    curl_easy_setopt(easy_.get(), CURLOPT_HTTPHEADER, (is_plain_ ? plain_headers_ : headers_).get());
    curl_easy_setopt(easy_.get(), CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(easy_.get(), CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    answer_.clear();
    error_[0] = '\0';
    is_sending_ = curl_multi_add_handle(multi_.get(), easy_.get()) == CURLM_OK;
}

/// What the engine answered, for a message: "HTTP 404 {"error":"database not found"}".
std::string forwarder::answer_text(long status) const {
    return "HTTP " + std::to_string(status) + " " + printable(answer_.substr(0, answer_.find('\n')));
}

void forwarder::try_later(long failure, const std::string& reason) {
    if (failure != std::exchange(failure_, failure)) {
        std::fprintf(stderr, "tarn-receive: cannot forward: %s; reports wait\n", reason.c_str());
    }
    delay_ = std::clamp<std::chrono::milliseconds>(2 * delay_, first_delay, longest_delay);
    next_try_ = std::chrono::steady_clock::now() + delay_;
}

/// Drops the batch in flight: it would be refused again.
void forwarder::refuse(long status) {
    counts_.refused += batches_.front().reports;
    std::fprintf(stderr, "tarn-receive: %lu reports refused: %s\n", batches_.front().reports,
                 answer_text(status).c_str());
    remove_first();
    is_plain_ = false;
}

void forwarder::finish(CURLcode result) {
    long status = 0;
    curl_easy_getinfo(easy_.get(), CURLINFO_RESPONSE_CODE, &status);
    curl_multi_remove_handle(multi_.get(), easy_.get());
    is_sending_ = false;
    if (result != CURLE_OK) {
        try_later(-static_cast<long>(result), error_[0] != '\0' ? error_.data() : curl_easy_strerror(result));
    } else if (status / 100 == 2) {
        if (delay_ > 0ms) std::fprintf(stderr, "tarn-receive: forwards again\n");
        delay_ = 0ms;
        failure_ = 0;
        is_full_ = false;
        takes_gzip_ = takes_gzip_ || !is_plain_;
        counts_.sent += batches_.front().reports;
        remove_first();
    } else if (!is_plain_ && !takes_gzip_ && (status == 415 || status == 400)) {
        // An engine that does not know the encoding may take the lines without it.
        is_plain_ = true;
    } else if (is_refusal(status)) {
        refuse(status);
    } else {
        try_later(status, answer_text(status));
    }
}

void forwarder::wait(int descriptor, std::chrono::milliseconds limit) {
    start();
    curl_waitfd readable{descriptor, CURL_WAIT_POLLIN, 0};
    const unsigned count = descriptor >= 0 ? 1 : 0;
    curl_multi_poll(multi_.get(), &readable, count, static_cast<int>(limit.count()), nullptr);
    int running = 0;
    curl_multi_perform(multi_.get(), &running);
    int left = 0;
    while (const CURLMsg* const message = curl_multi_info_read(multi_.get(), &left)) {
        if (message->msg == CURLMSG_DONE) finish(message->data.result);
    }
}

void forwarder::flush(std::chrono::milliseconds limit) {
    const time_point end = std::chrono::steady_clock::now() + limit;
    if (!pending_.empty()) close_batch();
    while (!batches_.empty() && std::chrono::steady_clock::now() < end) {
        next_try_ = std::min(next_try_, std::chrono::steady_clock::now() + first_delay);
        wait(-1, 50ms);
    }
}
