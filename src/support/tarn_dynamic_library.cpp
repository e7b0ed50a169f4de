// The dynamic loader. Client libraries are opened at run time, so that the agent runs on hosts without them.
#include "support/tarn_dynamic_library.h"

#include <dlfcn.h>

#include <cstdio>

namespace tarn {

void* open_library(const char* path) {
    void* const library = ::dlopen(path, RTLD_LAZY);
    if (library == nullptr) std::fprintf(stderr, "dlopen error: %s\n", ::dlerror());
    return library;
}

void* find_function(void* library, const char* name) {
    return ::dlsym(library, name);
}

void print_missing(const char* name) {
    std::fprintf(stderr, "dlsym(%s) error: %s\n", name, ::dlerror());
}

void close_library(void*& library) {
    if (library != nullptr) ::dlclose(library);
    library = nullptr;
}

}  // namespace tarn
