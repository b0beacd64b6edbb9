#ifndef CHECKSUMS_CHECKSUMS_H
#define CHECKSUMS_CHECKSUMS_H

#include <filesystem>
#include <vector>

/// Prints the sum of each file, in the order in which they are named, with so many threads at work.
/// Says on stderr which cannot be read. @return how many these are.
int PrintChecksums(const std::vector<std::filesystem::path>& files, int threads);

#endif // CHECKSUMS_CHECKSUMS_H
