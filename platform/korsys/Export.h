#ifndef KORSYS_EXPORT_H
#define KORSYS_EXPORT_H

/// Marks what the library exports; everything else is hidden.
#define KORSYS_EXPORT __attribute__((visibility("default")))

#endif // KORSYS_EXPORT_H
