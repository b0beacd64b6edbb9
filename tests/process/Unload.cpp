// The library inside of plug-ins, in a host that does not know it: loaded, used and unloaded.

#include "../support/Process.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <malloc.h>
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
    void Unload() { VERIFY(dlclose(handle) == 0 && !IsMapped(path)); }
    std::string path;
    void* handle;
};

const std::vector<std::string> s_files{PLUGINS};

bool LibraryIsGone() {
    return !IsMapped("libmetrics.") && Poll([] { return ThreadsNamed("metrics") == 0; });
}

/// With an open file or none, and with an explicit end or none: what is queued is delivered, and
/// nothing is left on the heap.
void LoadAndUnload() {
    const TemporaryFile file;
    std::size_t before = 0;
    for (int i = 0; i < Repetitions(300); ++i) {
        if (i == 10) // what libc keeps is there
            before = mallinfo2().uordblks;
        for (const std::string& name : s_files) {
            std::atomic<int> delivered{0};
            Plugin plugin(name);
            VERIFY(plugin.Call("Live", i & 2 ? file.path.c_str() : "", (i & 1) != 0, &delivered));
            plugin.Unload();
            VERIFY(LibraryIsGone() && delivered == 80);
            VERIFY(!(i & 2) || Count(ReadFile(file.path), ",7,plugged in,") == 80);
        }
    }
    // Sanitizers have a heap of their own, which this does not see.
    VERIFY(mallinfo2().uordblks < before + 10'000);
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
void TwoPlugins(const std::string& stays, const std::string& goes) {
    Plugin resident(stays);
    resident.Call<void>("Reside");
    Plugin visitor(goes);
    VERIFY(visitor.Call("Visit"));
    visitor.Unload();
    VERIFY(resident.Call<int>("Release") == 80);
    resident.Unload();
    VERIFY(LibraryIsGone());
}

} // namespace

int main(int argc, char** argv) {
    return RunCases(argc, argv,
                    {{"LoadAndUnload", LoadAndUnload, 600},
                     {"StaysForAStuckThread", StaysForAStuckThread},
                     {"TheFirstPluginStays", [] { TwoPlugins(s_files.front(), s_files.back()); }},
                     {"TheLastPluginStays", [] { TwoPlugins(s_files.back(), s_files.front()); }}});
}
