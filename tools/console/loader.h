/*
 * Loads the module as the platform's hardware-module loader does: a search path for
 * "<id>.default.so", dlopen, dlsym("HMI"), the tag and id check, the open method. Main thread.
 */
#ifndef ATCMD_TOOLS_CONSOLE_LOADER_H
#define ATCMD_TOOLS_CONSOLE_LOADER_H

#include <string>
#include <vector>

#include <atcmdprocess/atcmdprocess.h>

namespace atcmd_tools {

struct LoadedModule {
    void *handle = nullptr;
    hw_module_t *hmi = nullptr;
    atcmdprocess_device_t *dev = nullptr;
    std::string path;
};

// Where the module is looked for, in order: `explicit_path` (a file) when given, the
// directories of ATCMD_HAL_PATH (colon-separated), ../hw beside the running tool, then the
// platform's own hardware-module directories.
std::vector<std::string> module_candidates(const std::string &explicit_path);

// Loads and opens the module, first setting its log level when `log_level` is not negative;
// false with the reason in *error.
bool load_module(const std::string &explicit_path, int log_level, LoadedModule *out, std::string *error);

// An exported name of the loaded module, or null (always for a module reached through its service).
void *module_symbol(const LoadedModule &m, const char *name);

}  // namespace atcmd_tools

#endif  // ATCMD_TOOLS_CONSOLE_LOADER_H
