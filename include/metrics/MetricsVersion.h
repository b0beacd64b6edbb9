#ifndef METRICS_VERSION_H
#define METRICS_VERSION_H

/// The version of these headers, by the rules of semver.org; CONTRIBUTING.md says what each number
/// promises. The build reads its own version from here.
#define METRICS_VERSION_MAJOR 1
/// The second number.
#define METRICS_VERSION_MINOR 0
/// The third number.
#define METRICS_VERSION_PATCH 0

/// One number to compare with: 1.2.3 is 10203.
#define METRICS_VERSION                                                                            \
    (METRICS_VERSION_MAJOR * 10000 + METRICS_VERSION_MINOR * 100 + METRICS_VERSION_PATCH)

#endif // METRICS_VERSION_H
