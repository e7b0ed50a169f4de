// Findings are printed as compilers print theirs, so that editors can jump to the line.
#include "check_findings.h"

void findings::error(const std::string& place, const std::string& text) {
    ++errors_;
    std::fprintf(&out_, "%s: error: %s\n", place.c_str(), text.c_str());
}

void findings::warning(const std::string& place, const std::string& text) {
    ++warnings_;
    std::fprintf(&out_, "%s: warning: %s\n", place.c_str(), text.c_str());
}

void findings::note(const std::string& place, const std::string& text) {
    std::fprintf(&out_, "%s: %s\n", place.c_str(), text.c_str());
}

void findings::print_total() const {
    std::fprintf(&out_, "%d error%s, %d warning%s\n", errors_, errors_ == 1 ? "" : "s", warnings_,
                 warnings_ == 1 ? "" : "s");
}
