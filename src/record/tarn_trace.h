#pragma once

/// Prints as printf does, in debug mode only.
[[gnu::format(printf, 1, 2)]] void trace(const char* format, ...);
