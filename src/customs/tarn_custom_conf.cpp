// Parses the configuration text of a script counter: report, id, settings in any order, then the command.
// Example:
//   web users uid=33 interval=2 /usr/local/bin/count-users
#include "customs/tarn_custom_conf.h"

#include <algorithm>
#include <cstdio>
#include <string>

#include "customs/tarn_custom.h"
#include "record/tarn_config.h"
#include "record/tarn_reason.h"
#include "support/tarn_text.h"

namespace {

/// Reads words as if they were separated by single blanks: the position advances by the length of the word
/// plus one. One extra blank is harmless; with more, a word is read twice.
class single_blank_words final {
  public:
    explicit single_blank_words(std::string_view text) : rest_(text) {}

    /// The next word, without advancing; empty at the end.
    [[nodiscard]] std::string_view peek() const { return tarn::scanner(rest_).word(); }

    std::string_view take() {
        const std::string_view word = peek();
        rest_.remove_prefix(std::min(word.size() + 1, rest_.size()));
        return word;
    }

    [[nodiscard]] std::string_view rest() const { return rest_; }

  private:
    std::string_view rest_;
};

/// Reads a word, or a phrase in double quotes. The word that opens a phrase never closes it, even if it ends
/// in a quote. The last character of the closing word is dropped.
std::string take_field(single_blank_words& words) {
    std::string field(words.take());
    if (!field.starts_with('"')) return field;
    field.erase(0, 1);
    for (auto word = words.take(); !word.empty(); word = words.take()) {
        field.append(1, ' ').append(word);
        if (word.find('"') != std::string_view::npos) {
            field.pop_back();
            break;
        }
    }
    return field;
}

/// The user is given by number. A name would be read as 0, which is root, so the default is kept instead.
void set_user(tarn_mycustom_counter& cnt, std::string_view value) {
    if (tarn::read_number(value, cnt.uid) > 0) return;
    tarn::note_reason("uid=%.*s is not a number", static_cast<int>(value.size()), value.data());
    std::printf("uid=%.*s is not a number, the script runs as user %d\n", static_cast<int>(value.size()),
                value.data(), cnt.uid);
}

void set_incremental(tarn_mycustom_counter& cnt, std::string_view /*value*/) {
    cnt.incremental = 1;
}

void set_alert(tarn_mycustom_counter& cnt, std::string_view value) {
    tarn::copy_terminated(cnt.alert_condition, value);
}

/// Sets a member to a decimal number, or to 0 when there is none.
template <auto Member>
void set_number(tarn_mycustom_counter& cnt, std::string_view value) {
    cnt.*Member = tarn::to_number<int>(value);
}

struct setting {
    std::string_view prefix;  ///< how the word begins
    std::size_t value_at;     ///< offset of the value in the word
    void (*apply)(tarn_mycustom_counter& cnt, std::string_view value);
};

/// The first matching row applies. "periods=15" is a period of 5, because its value is read at the same
/// offset as that of "interval=".
constexpr setting settings[] = {{"uid=", 4, set_user},
                                {"incremental", 11, set_incremental},
                                {"gid=", 4, set_number<&tarn_mycustom_counter::gid>},
                                {"timeout=", 8, set_number<&tarn_mycustom_counter::max_seconds>},
                                {"periods=", 9, set_number<&tarn_mycustom_counter::interval>},
                                {"interval=", 9, set_number<&tarn_mycustom_counter::interval>},
                                {"type=", 5, set_number<&tarn_mycustom_counter::type>},
                                {"alert=", 6, set_alert}};

/// Applies one setting; false when the word is not a setting and so begins the command.
bool apply_setting(std::string_view word, tarn_mycustom_counter& cnt) {
    for (const setting& row : settings) {
        if (!word.starts_with(row.prefix)) continue;
        row.apply(cnt, word.substr(std::min(row.value_at, word.size())));
        return true;
    }
    return false;
}

void set_defaults(tarn_mycustom_counter& cnt) {
    cnt.interval = config.custom_counters_delimiter;
    cnt.uid = config.custom_default_uid;
    cnt.gid = config.custom_default_gid;
    cnt.max_seconds = config.custom_default_timeout;
    cnt.type = custom_type_value;
    cnt.incremental = 0;
    cnt.alert_condition[0] = '\0';
    cnt.exec[0] = '\0';
}

void print_settings(const tarn_mycustom_counter& cnt, std::string_view text) {
    std::printf("Custom conuter init:\n");
    std::printf("\tCfg string = %.*s\n", static_cast<int>(text.size()), text.data());
    std::printf("\tReport = %s\n", cnt.report);
    std::printf("\tId = %s\n", cnt.id);
    std::printf("\tExec = %s\n", cnt.exec);
    if (cnt.alert_condition[0] != '\0') std::printf("\tAlert when = %s\n", cnt.alert_condition);
    std::printf("\tUid = %d, Gid = %d, Interval = %d, MaxSeconds = %d, Inc = %d, Type = %d\n", cnt.uid,
                cnt.gid, cnt.interval, cnt.max_seconds, cnt.incremental, cnt.type);
}

}  // namespace

int custom_parse_conf(tarn_mycustom_counter& cnt) {
    set_defaults(cnt);
    const std::string_view text = tarn::remove_newline_ch(tarn::text_of(cnt.cfg_string));
    single_blank_words words(text);
    tarn::copy_terminated(cnt.report, take_field(words));
    tarn::copy_terminated(cnt.id, take_field(words));
    while (!words.peek().empty() && apply_setting(words.peek(), cnt))
        words.take();
    if (!words.peek().empty()) tarn::copy_terminated(cnt.exec, words.rest());
    print_settings(cnt, text);
    return 1;
}
