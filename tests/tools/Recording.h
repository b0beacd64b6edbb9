#ifndef METRICS_TESTS_TOOLS_RECORDING_H
#define METRICS_TESTS_TOOLS_RECORDING_H

#include <Load.h>

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

namespace Metrics::tools::test {

/// Writes files as the raw client does, of what happens when.
class Recording {
public:
    using Id = std::uint64_t;
    using Stamp = std::uint64_t;
    static constexpr Id client = 1;

    /// Begins with the raw client's own context.
    explicit Recording(std::uint64_t wall = 1'700'000'000'000'000'000) : m_wall(wall) {
        Create(0, client, 0);
        Open(0, client, 0);
    }

    void Create(Stamp at, Id context, Id parent) { Event(at, parent, 2, "0", context); }
    void Open(Stamp at, Id context, Id parent) { Event(at, parent, 3, "0", context); }
    void Close(Stamp at, Id context, Id parent) { Event(at, parent, 4, "0", context); }
    void Begin(Stamp at, Id context, const std::string& label) { Event(at, context, 5, label, 0); }
    void End(Stamp at, Id context, const std::string& label) { Event(at, context, 6, label, 0); }
    void Emit(Stamp at, Id context, const std::string& first, std::uint64_t second) {
        Event(at, context, 7, first, second);
    }

    /// What a context does before it is used for the first time.
    void Use(Stamp at, Id context, const std::string& name, std::uint64_t tid) {
        Event(at, context, 8, "pid", 4000);
        Event(at, context, 8, "tid", tid);
        Event(at, context, 8, "cid", context);
        Begin(at, context, name);
    }

    /// One line, whatever it is.
    void Line(const std::string& line) { m_text += line + '\n'; }

    void Event(Stamp at, Id context, int type, const std::string& first, std::uint64_t second) {
        Line(Head(at, context, type) + first + "," + std::to_string(second));
    }

    std::string Head(Stamp at, Id context, int type) const {
        const std::uint64_t micros = (m_wall + at) / 1000;
        char datetime[40];
        std::snprintf(datetime, sizeof datetime, "%lu.%06lu", micros / 1'000'000,
                      micros % 1'000'000);
        return std::to_string(at) + "," + datetime + "," + std::to_string(context) + "," +
               std::to_string(type) + ",";
    }

    std::string Text() const {
        return "timestamp,datetime,context_id,event_type,param1,param2\n" + m_text;
    }

private:
    std::uint64_t m_wall;
    std::string m_text;
};

/// A file that goes with the object.
class TemporaryFile {
public:
    explicit TemporaryFile(const std::string& text)
        : m_path("tools-" + std::to_string(getpid()) + "-" + std::to_string(++s_count) + ".csv") {
        std::ofstream(m_path, std::ios::binary) << text;
    }
    ~TemporaryFile() { std::remove(m_path.c_str()); }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    const std::string& Path() const { return m_path; }

private:
    static inline int s_count = 0;
    std::string m_path;
};

inline Model LoadTexts(const std::vector<std::string>& texts,
                       std::vector<std::string>* problems = nullptr) {
    LoadObserver observer;
    if (problems != nullptr)
        observer.problem = [problems](const std::string& text) { problems->push_back(text); };
    std::vector<std::unique_ptr<TemporaryFile>> files;
    std::vector<std::string> paths;
    for (const std::string& text : texts) {
        files.push_back(std::make_unique<TemporaryFile>(text));
        paths.push_back(files.back()->Path());
    }
    return Load(paths, observer);
}

} // namespace Metrics::tools::test

#endif // METRICS_TESTS_TOOLS_RECORDING_H
