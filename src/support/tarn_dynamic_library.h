#pragma once

namespace tarn {

/// Opens a shared library with lazy binding; null, with a message on standard error, when that fails.
void* open_library(const char* path);

/// The address of a function; null when the library does not export it.
void* find_function(void* library, const char* name);

/// Reports a missing function on standard error.
void print_missing(const char* name);

/// Looks up a function; false, with a message on standard error, when the library does not export it.
template <typename Function>
bool look_up(void* library, const char* name, Function& function) {
    function = reinterpret_cast<Function>(find_function(library, name));
    if (function == nullptr) print_missing(name);
    return function != nullptr;
}

/// Closes a library, if one is open, and clears its handle.
void close_library(void*& library);

}  // namespace tarn
