// The library inside of plug-ins, in a host that does not know it: loaded, used and unloaded.

#include "../support/Process.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <atomic>
#include <vector>

using namespace Metrics::test;

namespace {

struct Plugin {
    explicit Plugin(const std::string& file) : path(file) {
        VERIFY(!IsMapped(path));
        handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        VERIFY(handle != nullptr);
    }
    template <class Result = bool, class... Arguments>
    Result Call(const char* name, Arguments... arguments) {
        return reinterpret_cast<Result (*)(Arguments...)>(dlsym(handle, name))(arguments...);
    }
    void Unload() {
        VERIFY(dlclose(handle) == 0);
        VERIFY(!IsMapped(path));
    }
    std::string path;
    void* handle;
};

const std::vector<std::string> s_files{PLUGINS};

bool LibraryIsGone() {
    // The kernel may list an ended thread for a moment longer.
    return !IsMapped("libmetrics.") && Poll([] { return ThreadsNamed("metrics") == 0; });
}

/// Every combination of an open file or none, and of an explicit end or none.
void LoadAndUnload() {
    const TemporaryFile file;
    for (int i = 0; i < Repetitions(300); ++i) {
        for (const std::string& name : s_files) {
            const bool shutDown = (i & 1) != 0;
            const bool withFile = (i & 2) != 0;
            std::atomic<int> delivered{0};
            Plugin plugin(name);
            VERIFY(IsMapped("libmetrics."));
            VERIFY(plugin.Call("Live", withFile ? file.path.c_str() : "", shutDown, &delivered));
            plugin.Unload();
            VERIFY(LibraryIsGone());
            VERIFY(delivered == 80); // what was queued is delivered, at unload too
            VERIFY(!withFile || Count(ReadFile(file.path), ",7,plugged in,") == 80);
        }
    }
    std::printf("%d times %zu plug-ins\n", Repetitions(300), s_files.size());
}

/// A delivery thread that does not end in time goes on in the library, which stays for it.
void StaysForAStuckThread() {
    const TemporaryFile pipe;
    VERIFY(mkfifo(pipe.path.c_str(), 0600) == 0);
    const int reader = open(pipe.path.c_str(), O_RDONLY | O_NONBLOCK);
    Plugin plugin(s_files.back());
    static void* const client = plugin.Call<void*>("GetStuck", pipe.path.c_str());
    VERIFY(client != nullptr);
    plugin.Unload();
    VERIFY(IsMapped("libmetrics.") && ThreadsNamed("metrics") == 1);
    VERIFY(Poll([reader] {
        char bytes[65536];
        while (read(reader, bytes, sizeof bytes) > 0) {}
        return ThreadsNamed("metrics") == 0;
    }));
}

/// Two plug-ins that do not see each other's symbols share one manager, and one of them goes while
/// its texts are still queued.
void TwoPlugins() {
    for (std::size_t i = 0; i < s_files.size(); ++i) {
        const Ended ended = RunChild(
            [i] {
                Plugin resident(s_files[(i + 1) % s_files.size()]);
                resident.Call<void>("Reside");
                Plugin visitor(s_files[i]);
                VERIFY(resident.Call<void*>("TheManager") == visitor.Call<void*>("TheManager"));
                VERIFY(resident.Call<unsigned long>("NextId") == 1);
                VERIFY(visitor.Call<unsigned long>("NextId") == 2);
                VERIFY(visitor.Call("Visit"));
                visitor.Unload();
                VERIFY(resident.Call<int>("Release") == 80);
                resident.Unload();
                VERIFY(LibraryIsGone());
                return 0;
            },
            std::chrono::seconds(60));
        std::fputs(ended.output.c_str(), stderr);
        VERIFY(ended.status == 0);
    }
}

/// The host ends while threads of a loaded plug-in run.
void ExitWhileLoaded() {
    for (int i = 0; i < Repetitions(100); ++i) {
        const Ended ended = RunChild(
            [] {
                Plugin(s_files.front()).Call<void>("RunForEver");
                return 0;
            },
            std::chrono::seconds(60));
        VERIFY(ended.status == 0 && ended.output.empty());
    }
}

} // namespace

int main(int argc, char** argv) {
    return RunCases(argc, argv,
                    {{"load and unload", LoadAndUnload, 600},
                     {"stays for a stuck thread", StaysForAStuckThread},
                     {"two plug-ins", TwoPlugins},
                     {"exit while loaded", ExitWhileLoaded, 300}});
}
