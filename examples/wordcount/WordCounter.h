#ifndef WORDCOUNT_WORD_COUNTER_H
#define WORDCOUNT_WORD_COUNTER_H

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

struct Totals {
    std::uint64_t files = 0;
    std::uint64_t lines = 0;
    std::uint64_t words = 0;
    std::uint64_t bytes = 0;
    bool isComplete = true; // nothing had to be left out
};

/// Counts the files, and the files in the folders and all folders below them, on one thread for
/// each processor. Reports on stderr what cannot be read, and its progress when that is a terminal.
/// Then runs the shell command, if it is not empty, as a part of the same trace.
Totals CountWords(const std::vector<std::filesystem::path>& paths, const std::string& command);

#endif // WORDCOUNT_WORD_COUNTER_H
