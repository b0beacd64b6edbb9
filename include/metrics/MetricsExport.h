#ifndef METRICS_EXPORT_H
#define METRICS_EXPORT_H

#include <cstddef> // which says whose the standard library is

// Texts cross the border to the library as std::string: of another kind they would be garbage.
#if !defined(__GLIBCXX__)
#error "The metrics library works with libstdc++ only: compile without -stdlib=libc++."
#elif !_GLIBCXX_USE_CXX11_ABI
#error "The metrics library works with the present std::string: leave _GLIBCXX_USE_CXX11_ABI at 1."
#endif

/// Marks what the library exports; everything else is hidden.
#define METRICS_EXPORT __attribute__((visibility("default")))

#endif // METRICS_EXPORT_H
