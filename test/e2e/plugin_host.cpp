// plugin_host.cpp - loads the library three times, logs a line, and unloads it.
//
//   usage: plugin-host LIBRARY DIRECTORY

#include <dlfcn.h>

#include <cstdio>

#include "qnm.h"

namespace {

template <typename Function>
Function* find(void* library, const char* name) {
    return reinterpret_cast<Function*>(dlsym(library, name));
}

int fail(const char* what) {
    printf("FAILED: %s\n", what);
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    for (int n = 0; n < 3; n++) {
        void* const library = dlopen(argv[1], RTLD_NOW);
        if (library == nullptr) return fail(dlerror());
        auto* const init = find<decltype(qnm_log_init)>(library, "qnm_log_init");
        auto* const log = find<decltype(qnm_log_info)>(library, "qnm_log_info");
        if (init == nullptr || log == nullptr) return fail(dlerror());
        if (init(argv[2]) != QNM_API_SUCCESS) return fail("qnm_log_init");
        log("%s: a line of the plugin.", __func__);
        if (dlclose(library) != 0) return fail(dlerror());
    }
    return 0;
}
