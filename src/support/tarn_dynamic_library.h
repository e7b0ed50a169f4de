#pragma once

namespace tarn {

/// Opens a shared library with lazy binding; null, with a message on standard error, when that fails.
void* open_library(const char* path);

/// The address of a function, null when the library has none of that name.
void* find_function(void* library, const char* name);

/// Says on standard error that a function is missing.
void print_missing(const char* name);

/// Looks a function up; false, with a message on standard error, when the library has none of that name.
template <typename Function>
bool look_up(void* library, const char* name, Function& function) {
    function = reinterpret_cast<Function>(find_function(library, name));
    if (function == nullptr) print_missing(name);
    return function != nullptr;
}

/// Closes a library, if there is one, and clears its handle.
void close_library(void*& library);

}  // namespace tarn
