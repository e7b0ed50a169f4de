#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace tarn {

/// Cuts a stream of bytes into JSON objects, however they are spread over reads. An object begins at "{\"";
/// what stands between objects (headers, line feeds) is dropped. A broken object ends where the next one
/// begins on a line of its own, in a place where JSON allows no object, so that it costs only itself.
class json_framer final {
  public:
    /// Takes what a read brought and returns the newest object that is complete now; an empty text when none
    /// is.
    std::string feed(std::string_view bytes);

    /// Bytes kept for an object that is not complete.
    [[nodiscard]] std::size_t pending() const { return text_.size(); }

  private:
    void drop_to_start();
    bool find_end();
    [[nodiscard]] bool is_cut() const;

    std::string text_;
    std::size_t at_ = 0;  ///< how far the object at the front of the text has been looked through
    int depth_ = 0;
    bool in_string_ = false;
};

}  // namespace tarn
