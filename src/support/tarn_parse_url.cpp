// One pass over the text copies each character into the buffer of the current part.
#include "support/tarn_parse_url.h"

#include "support/tarn_text.h"

namespace {

/// Appends characters to a caller's buffer, as many as fit, and keeps it terminated.
class part_writer final {
  public:
    explicit part_writer(const tarn_text_part& part) : part_(part) { terminate(); }
    void put(char c) {
        if (length_ + 1 >= part_.size) return;
        part_.text[length_++] = c;
        terminate();
    }

  private:
    void terminate() const {
        if (part_.size > 0) part_.text[length_] = '\0';
    }
    tarn_text_part part_;
    std::size_t length_ = 0;
};

}  // namespace

int tarn_split_str(std::string_view str, char delimiter, std::span<const tarn_text_part> parts) {
    if (parts.empty()) return 1;
    std::size_t part = 0;
    part_writer writer(parts[part]);
    for (std::size_t at = 0; at < str.size(); ++at) {
        const bool is_escape =
            str[at] == '\\' && at + 1 < str.size() && (str[at + 1] == delimiter || str[at + 1] == '\\');
        if (is_escape) {
            writer.put(str[++at]);
        } else if (str[at] == delimiter && part + 1 < parts.size()) {
            writer = part_writer(parts[++part]);
        } else {
            writer.put(str[at]);
        }
    }
    return 1;
}

int tarn_parse_url(std::string_view url, tarn_url_parts& parts) {
    parts = {};
    char before_at[256] = "";
    char after_at[256] = "";
    const tarn_text_part halves[] = {{before_at, sizeof before_at}, {after_at, sizeof after_at}};
    tarn_split_str(url, '@', halves);

    const std::string_view address = after_at[0] != '\0' ? after_at : before_at;
    if (address.empty()) return 1;
    if (after_at[0] != '\0' && before_at[0] != '\0') {
        const tarn_text_part login[] = {{parts.user, sizeof parts.user}, {parts.pass, sizeof parts.pass}};
        tarn_split_str(before_at, ':', login);
    }
    char port[16] = "";
    const tarn_text_part endpoint[] = {{parts.host, sizeof parts.host}, {port, sizeof port}};
    tarn_split_str(address, ':', endpoint);
    parts.port = static_cast<std::uint32_t>(tarn::to_number<int>(port));
    return 1;
}
