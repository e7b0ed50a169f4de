// The report as text, for the debug trace.
#include "report/tarn_bson_print.h"

#include <bson/bson.h>

#include <cinttypes>
#include <cstdio>

namespace {

void print_elements(bson_iter_t& elements, int depth);

/// Prints the type and value of an element. Reports contain only these types.
void print_value(bson_iter_t& element, int depth) {
    bson_iter_t children;
    switch (bson_iter_type(&element)) {
        case BSON_TYPE_INT32:
            std::printf("int32 %" PRId32 "\n", bson_iter_int32(&element));
            return;
        case BSON_TYPE_INT64:
            std::printf("int64 %" PRId64 "\n", bson_iter_int64(&element));
            return;
        case BSON_TYPE_DOUBLE:
            std::printf("double %f\n", bson_iter_double(&element));
            return;
        case BSON_TYPE_UTF8:
            std::printf("string %s\n", bson_iter_utf8(&element, nullptr));
            return;
        case BSON_TYPE_DOCUMENT:
        case BSON_TYPE_ARRAY:
            std::printf("%s\n", BSON_ITER_HOLDS_ARRAY(&element) ? "array" : "document");
            if (bson_iter_recurse(&element, &children)) print_elements(children, depth + 1);
            return;
        default:
            std::printf("null\n");
    }
}

void print_elements(bson_iter_t& elements, int depth) {
    while (bson_iter_next(&elements)) {
        for (int tab = 0; tab < depth; ++tab)
            std::putchar('\t');
        std::printf("%s : ", bson_iter_key(&elements));
        print_value(elements, depth);
    }
}

}  // namespace

void print_report(std::span<const std::uint8_t> document, int depth) {
    bson_iter_t elements;
    if (bson_iter_init_from_data(&elements, document.data(), document.size()))
        print_elements(elements, depth);
}
