// A plug-in that calls the registry while it is loaded and unloaded, with the loader's lock held. It is slow, so that
// another thread meets it there.
#include <cstdlib>

#include <dlfcn.h>
#include <unistd.h>

#include "obreg/obreg.h"

namespace {

struct Plugin {
    Plugin() { call(); }
    ~Plugin() { call(); }

    static void call()
    {
        usleep(100000);
        void* const pLibrary = dlopen(getenv("OBREG_LIBRARY"), RTLD_NOW | RTLD_NOLOAD);
        const auto pCloseKey = reinterpret_cast<decltype(&OBRegCloseKey)>(dlsym(pLibrary, "OBRegCloseKey"));
        if (pCloseKey(reinterpret_cast<HANDLE>(uintptr_t{1})) != OBREG_STATUS_SUCCESS)
            abort();
        dlclose(pLibrary);
    }
} plugin;

} // namespace
