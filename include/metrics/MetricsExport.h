#ifndef METRICS_EXPORT_H
#define METRICS_EXPORT_H

/// Marks what the library exports; everything else is hidden.
#define METRICS_EXPORT __attribute__((visibility("default")))

#endif // METRICS_EXPORT_H
