// A host that knows nothing of the library: it loads the plug-in that the command line names, uses
// it, unloads it, and does so once more.

#include <dlfcn.h>

#include <cstdio>
#include <fstream>
#include <string>

namespace {

template <class Function>
Function Find(void* plugin, const char* name) {
    return reinterpret_cast<Function>(dlsym(plugin, name));
}

bool IsLoaded(const std::string& library) {
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);)
        if (line.find(library) != std::string::npos)
            return true;
    return false;
}

} // namespace

int main(int argc, char** argv) {
    for (int i = 0; i < 2 && argc > 1; ++i) {
        void* const plugin = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
        if (plugin == nullptr) {
            std::fprintf(stderr, "cannot load %s\n", argv[1]);
            return 1;
        }
        if (Find<bool (*)()>(plugin, "PluginStart")()) {
            for (const char* request : {"one", "two", "three"})
                Find<void (*)(const char*)>(plugin, "PluginHandle")(request);
            Find<void (*)()>(plugin, "PluginStop")();
        }
        dlclose(plugin);
        std::printf("the library is %s\n", IsLoaded("libmetrics.so") ? "still there" : "gone");
    }
}
