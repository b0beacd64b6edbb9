// Writes a recording of a given size, as of a server that hands each request to other threads:
//   big_run SLICES [THREADS] >FILE
// A slice is a context or a scope within one. The times are drawn from a generator with a fixed
// seed: the same size gives the same file.

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <queue>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

class BigRun {
public:
    explicit BigRun(std::size_t threads) : m_freeAt(threads) {
        std::fputs("timestamp,datetime,context_id,event_type,param1,param2\n", stdout);
        Put(1, 0, 2, "0", "1");
        Put(2, 0, 3, "0", "1");
    }

    /// One request: parsed where it arrives, worked on by three tasks of other threads.
    /// @return how many slices that took.
    std::size_t AddRequest() {
        m_now += Draw(1'000, 30'000);
        const std::size_t thread = Earliest();
        const std::uint64_t id = ++m_id;
        const bool isSlow = m_random() % 200 == 0;
        std::uint64_t time = std::max(m_now, m_freeAt[thread]);
        Put(m_now, 1, 2, "0", std::to_string(id));
        Open(time, 1, id, thread, "request");
        Put(time + 200, id, 8, "url", "/item/" + std::to_string(m_random() % 5000));
        std::uint64_t end = Scope(time + 300, id, "parse", Draw(2'000, 9'000));
        std::array<std::uint64_t, 3> tasks{};
        for (std::uint64_t& task : tasks) {
            task = ++m_id;
            Put(end += 100, id, 2, "0", std::to_string(task));
        }
        const std::uint64_t created = end;
        m_freeAt[thread] = UINT64_MAX; // it waits for its tasks
        std::size_t slices = 3;
        for (const std::uint64_t task : tasks) {
            const std::size_t worker = Earliest();
            time = std::max(created + Draw(500, 3'000), m_freeAt[worker]);
            Open(time, id, task, worker, "task");
            time = Scope(time + 200, task, "lookup", Draw(1'000, 8'000));
            for (int i = 0; i < 3; ++i) {
                Put(time + 50, task, 5, "step", "0");
                time = Scope(time + 60, task, isSlow ? "disk" : "cache",
                             isSlow ? Draw(100'000, 900'000) : Draw(500, 4'000));
                Put(time += 50, task, 6, "step", "0");
            }
            Put(time, task, 7, "rows", std::to_string(m_random() % 100));
            time = Scope(time + 100, task, "encode", Draw(500, 5'000));
            end = std::max(end, Close(time, id, task, worker, "task"));
            slices += 9;
        }
        Scope(created + 50, id, "wait for tasks", end - created);
        Close(Scope(end + 200, id, "answer", Draw(1'000, 4'000)), 1, id, thread, "request");
        slices += 1;
        return slices;
    }

    /// The lines in the order of their times, as the delivery nearly has them.
    void Flush(bool isLast) {
        while (!m_lines.empty() && (isLast || m_lines.top().first < m_now)) {
            std::fwrite(m_lines.top().second.data(), 1, m_lines.top().second.size(), stdout);
            m_lines.pop();
        }
    }

private:
    std::uint64_t Draw(std::uint64_t low, std::uint64_t high) {
        return low + m_random() % (high - low);
    }

    std::size_t Earliest() const {
        return static_cast<std::size_t>(std::min_element(m_freeAt.begin(), m_freeAt.end()) -
                                        m_freeAt.begin());
    }

    void Put(std::uint64_t time, std::uint64_t context, int type, std::string_view first,
             std::string_view second) {
        char wall[40];
        std::snprintf(wall, sizeof wall, ",%lu.%06lu,", 1'700'000'000UL + time / 1'000'000'000,
                      time / 1'000 % 1'000'000);
        std::string line = std::to_string(time) + wall + std::to_string(context) + ',';
        line += std::to_string(type) + ',';
        line.append(first).append(1, ',').append(second).append(1, '\n');
        m_lines.emplace(time, std::move(line));
    }

    void Open(std::uint64_t time, std::uint64_t parent, std::uint64_t id, std::size_t thread,
              std::string_view name) {
        Put(time, parent, 3, "0", std::to_string(id));
        Put(time + 10, id, 8, "pid", "4000");
        Put(time + 11, id, 8, "tid", std::to_string(4000 + thread));
        Put(time + 12, id, 8, "cid", std::to_string(id));
        Put(time + 13, id, 5, name, "0");
    }

    std::uint64_t Scope(std::uint64_t time, std::uint64_t context, std::string_view label,
                        std::uint64_t duration) {
        Put(time, context, 5, label, "0");
        Put(time + duration, context, 6, label, "0");
        return time + duration;
    }

    std::uint64_t Close(std::uint64_t time, std::uint64_t parent, std::uint64_t id,
                        std::size_t thread, std::string_view name) {
        Put(time + 20, id, 6, name, "0");
        Put(time + 30, parent, 4, "0", std::to_string(id));
        return m_freeAt[thread] = time + 100;
    }

    using Line = std::pair<std::uint64_t, std::string>;

    std::mt19937_64 m_random{1};
    std::uint64_t m_now = 1'000;
    std::uint64_t m_id = 1;
    std::vector<std::uint64_t> m_freeAt;
    std::priority_queue<Line, std::vector<Line>, std::greater<>> m_lines;
};

} // namespace

int main(int argc, char** argv) {
    const std::size_t slices = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 0;
    const std::size_t threads = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 8;
    if (slices == 0 || threads < 2) {
        std::fputs("usage: big_run SLICES [THREADS] >FILE\n", stderr);
        return 2;
    }
    BigRun run(threads);
    for (std::size_t made = 0; made < slices;) {
        made += run.AddRequest();
        run.Flush(false);
    }
    run.Flush(true);
    return std::fflush(stdout) == 0 ? 0 : 1;
}
