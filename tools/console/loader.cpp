/*
 * The console's module loader: the search path, dlopen, the "HMI" record check and open, as
 * the platform's loader does it. Runs once on the console's main thread.
 */
#include "console/loader.h"

#include <dlfcn.h>
#include <errno.h>
#include <elf.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace atcmd_tools {

namespace {

constexpr const char kModuleFile[] = ATCMDPROCESS_HARDWARE_MODULE_ID ".default.so";
// The platform's hardware directories for this process's own word size: a 32-bit console on a
// 64-bit phone would fail to load the lib64 module and never reach its own.
#ifdef __LP64__
constexpr const char *kPlatformDirs[] = {"/vendor/lib64/hw", "/system/lib64/hw"};
#else
constexpr const char *kPlatformDirs[] = {"/vendor/lib/hw", "/system/lib/hw"};
#endif

std::string tool_dir() {
    char exe[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    if (n <= 0) return "";
    exe[n] = '\0';
    char *slash = strrchr(exe, '/');
    if (slash != nullptr) *slash = '\0';
    return exe;
}

struct ElfKind {
    unsigned char elf_class;  // ELFCLASS32 or ELFCLASS64
    uint16_t machine;         // EM_*
};

constexpr struct {
    uint16_t machine;
    const char *name;
} kMachines[] = {{EM_X86_64, "x86_64"}, {EM_AARCH64, "arm64"}, {EM_ARM, "arm"}, {EM_386, "x86"}};

// The class and machine of an ELF file; false when it is not one (or cannot be read).
bool elf_kind(const char *path, ElfKind *kind) {
    unsigned char head[EI_NIDENT + 4] = {};
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    const ssize_t n = pread(fd, head, sizeof head, 0);
    close(fd);
    if (n != static_cast<ssize_t>(sizeof head) || memcmp(head, ELFMAG, SELFMAG) != 0) return false;
    kind->elf_class = head[EI_CLASS];
    // e_machine follows e_type, in the file's byte order.
    const unsigned char *m = head + EI_NIDENT + 2;
    kind->machine = head[EI_DATA] == ELFDATA2MSB ? static_cast<uint16_t>(m[0] << 8 | m[1]) : static_cast<uint16_t>(m[1] << 8 | m[0]);
    return true;
}

std::string elf_name(const ElfKind &k) {
    for (const auto &m : kMachines) {
        if (m.machine == k.machine) return std::string(m.name) + (k.elf_class == ELFCLASS64 ? " (64-bit)" : " (32-bit)");
    }
    return "machine " + std::to_string(k.machine) + (k.elf_class == ELFCLASS64 ? " (64-bit)" : " (32-bit)");
}

// A module built for another architecture makes dlopen say little ("No such file or
// directory" for a file that is there, on some libcs): name both architectures instead.
bool same_architecture(const std::string &path, std::string *error) {
    ElfKind module{}, self{};
    if (!elf_kind(path.c_str(), &module)) {
        *error = path + " is not a shared library (no ELF header)";
        return false;
    }
    if (!elf_kind("/proc/self/exe", &self) || (module.elf_class == self.elf_class && module.machine == self.machine)) {
        return true;
    }
    *error = path + " is built for " + elf_name(module) + "; this console runs as " + elf_name(self);
    return false;
}

}  // namespace

std::vector<std::string> module_candidates(const std::string &explicit_path) {
    if (!explicit_path.empty()) return {explicit_path};
    std::vector<std::string> dirs;
    const char *env = getenv("ATCMD_HAL_PATH");
    for (std::string rest = env != nullptr ? env : ""; !rest.empty();) {
        const size_t colon = rest.find(':');
        dirs.push_back(rest.substr(0, colon));
        rest = colon == std::string::npos ? "" : rest.substr(colon + 1);
    }
    dirs.push_back(tool_dir() + "/../hw");
    for (const char *d : kPlatformDirs) dirs.push_back(d);
    std::vector<std::string> files;
    for (const std::string &d : dirs) {
        if (!d.empty()) files.push_back(d + "/" + kModuleFile);
    }
    return files;
}

bool load_module(const std::string &explicit_path, int log_level, LoadedModule *out, std::string *error) {
    std::string tried;
    for (const std::string &path : module_candidates(explicit_path)) {
        if (access(path.c_str(), R_OK) != 0) {
            tried += " " + path + " (" + strerror(errno) + ")";
            continue;
        }
        if (!same_architecture(path, error)) return false;
        out->handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (out->handle == nullptr) {
            *error = std::string("dlopen: ") + dlerror();
            return false;
        }
        out->path = path;
        break;
    }
    if (out->handle == nullptr) {
        *error = "no " + std::string(kModuleFile) + " found; tried" + tried;
        return false;
    }
    out->hmi = static_cast<hw_module_t *>(dlsym(out->handle, HAL_MODULE_INFO_SYM_AS_STR));
    if (out->hmi == nullptr) {
        *error = out->path + " has no " HAL_MODULE_INFO_SYM_AS_STR " record";
        return false;
    }
    if (out->hmi->tag != HARDWARE_MODULE_TAG || out->hmi->id == nullptr ||
        strcmp(out->hmi->id, ATCMDPROCESS_HARDWARE_MODULE_ID) != 0) {
        *error = out->path + " is not the " ATCMDPROCESS_HARDWARE_MODULE_ID " module";
        return false;
    }
    auto *level = static_cast<int32_t *>(dlsym(out->handle, "log_level"));
    if (log_level >= 0 && level != nullptr) *level = log_level;  // before any module thread runs
    hw_device_t *common = nullptr;
    if (out->hmi->methods == nullptr || out->hmi->methods->open == nullptr ||
        out->hmi->methods->open(out->hmi, ATCMDPROCESS_HARDWARE_MODULE_ID, &common) != 0 ||
        common == nullptr) {
        *error = "the module's open failed";
        return false;
    }
    out->dev = reinterpret_cast<atcmdprocess_device_t *>(common);
    return true;
}

void *module_symbol(const LoadedModule &m, const char *name) {
    return m.handle != nullptr ? dlsym(m.handle, name) : nullptr;  // none: a module served elsewhere
}

}  // namespace atcmd_tools
