#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace tarn {

/// Splits a byte stream into JSON objects, however they are spread over reads. An object begins at "{\"";
/// bytes between objects (headers, line feeds) are dropped. A broken object ends where the next one begins on
/// a new line, in a place where JSON allows no object, so that only the broken one is lost.
class json_framer final {
  public:
    /// Adds the bytes of one read. Returns the newest complete object; an empty text when none is complete.
    std::string feed(std::string_view bytes);

    /// Number of bytes kept of an incomplete object.
    [[nodiscard]] std::size_t pending() const { return text_.size(); }

  private:
    void drop_to_start();
    bool find_end();
    [[nodiscard]] bool is_cut() const;

    std::string text_;
    std::size_t at_ = 0;  ///< position up to which the first object has been scanned
    int depth_ = 0;
    bool in_string_ = false;
};

}  // namespace tarn
