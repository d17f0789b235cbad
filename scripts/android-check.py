#!/usr/bin/env python3
"""Compiles every source of every module that Android.bp declares the way the platform build does.

    scripts/android-check.py TREE        (scripts/android-check.sh is the entry point)

TREE is a platform tree's root, or any folder laid out like one (bionic's headers, libhardware,
libcutils, libsystem, liblog). Android.bp is read, not restated here: its modules, defaults,
sources (globs expanded), flags, include folders, libraries and per-target blocks decide each
compile. Device variants are compiled for arm64, arm and x86_64 against bionic with the flags
every platform module gets (a vendor module's as well where it is vendor or vendor available);
host variants with the host flags. Compile only: nothing is linked. The module the device loads
(SHIPPED below) is compiled to objects for every architecture; every other compile stops after
the front end (-fsyntax-only), which is where the headers, the declarations and the diagnostics
a platform build would fail on all come from.

One line is printed per failing compile, then a tally; the full diagnostics are kept under
build-android-check/. The exit status is 0 only when every compile passed.

Stable AIDL interfaces. Every Android.bp under interfaces/ is read as well. An aidl_interface
with the NDK backend gives a library `<name>-V<version>-ndk` for each frozen version; a module
that names it is compiled against the stand-in headers in scripts/aidl-ndk-standin/ (declarations
that mirror what the platform's AIDL compiler generates; see the README there), since no AIDL
compiler of the platform's own release is at hand. The binder NDK's headers come from
frameworks/native/libs/binder/ndk in TREE.

What the host stage can and cannot see. A platform build compiles host modules against a glibc
2.17 sysroot; this machine's glibc is newer, so its headers declare functions 2.17 does not have.
The check poisons the names of the best-known later additions (LATER_GLIBC below) after
including the headers that declare them, so a use of one is an error here as it would be there.
Anything else glibc added after 2.17, and any difference in what a 2.17 header includes
indirectly, is not seen; the device stage, against bionic, catches most of those.
"""

import concurrent.futures
import glob
import hashlib
import os
import re
import subprocess
import sys
import tempfile

CLANG = os.environ.get("ATCMD_CLANG", "clang-19")
LLVM_ROOT = os.environ.get("ATCMD_LLVM_ROOT", "/usr/lib/llvm-19")
API_LEVEL = "10000"  # what a platform build (not an unbundled one) compiles for
LOG_DIR = "build-android-check"
SHIPPED = "atcmdprocess.default"  # the module compiled to objects, not only checked

# --- Reading Android.bp -----------------------------------------------------------------------

TOKEN = re.compile(r"""
    (?P<space>\s+) | (?P<comment>//[^\n]*|/\*.*?\*/) |
    (?P<string>"(?:[^"\\]|\\.)*") | (?P<int>-?\d+) |
    (?P<ident>[A-Za-z_][A-Za-z0-9_]*) | (?P<punct>[{}\[\]:,=+()])
""", re.VERBOSE | re.DOTALL)


def tokenize(text):
    pos = 0
    while pos < len(text):
        m = TOKEN.match(text, pos)
        if m is None:
            raise SyntaxError(f"Android.bp: unexpected text at offset {pos}: {text[pos:pos + 20]!r}")
        pos = m.end()
        kind = m.lastgroup
        if kind not in ("space", "comment"):
            yield kind, m.group()


class Parser:
    """Blueprint: assignments `name = value` and modules `type { key: value, ... }`."""

    def __init__(self, text):
        self.tokens = list(tokenize(text))
        self.pos = 0
        self.variables = {}

    def peek(self):
        return self.tokens[self.pos] if self.pos < len(self.tokens) else (None, None)

    def take(self, expected=None):
        kind, value = self.peek()
        if kind is None or (expected is not None and value != expected):
            raise SyntaxError(f"Android.bp: expected {expected!r}, found {value!r}")
        self.pos += 1
        return kind, value

    def modules(self):
        found = []
        while self.peek()[0] is not None:
            _, name = self.take()
            if self.peek()[1] in ("=", "+"):
                op = self.take()[1]
                if op == "+":
                    self.take("=")
                value = self.value()
                self.variables[name] = self.variables[name] + value if op == "+" else value
            else:
                found.append((name, self.map("{", "}")))
        return found

    def map(self, open_, close):
        self.take(open_)
        props = {}
        while self.peek()[1] != close:
            _, key = self.take()
            self.take(":" if self.peek()[1] == ":" else "=")
            props[key] = self.value()
            if self.peek()[1] == ",":
                self.take(",")
        self.take(close)
        return props

    def value(self):
        value = self.operand()
        while self.peek()[1] == "+":
            self.take("+")
            value = value + self.operand()
        return value

    def operand(self):
        kind, token = self.peek()
        if token == "[":
            self.take("[")
            items = []
            while self.peek()[1] != "]":
                items.append(self.value())
                if self.peek()[1] == ",":
                    self.take(",")
            self.take("]")
            return items
        if token == "{":
            return self.map("{", "}")
        self.take()
        if kind == "string":
            return re.sub(r"\\(.)", r"\1", token[1:-1])
        if kind == "int":
            return int(token)
        if token in ("true", "false"):
            return token == "true"
        if token in self.variables:
            return self.variables[token]
        raise SyntaxError(f"Android.bp: unknown name {token!r}")


def merge(base, extra):
    """Soong's property merge: lists append, maps merge, anything else is replaced."""
    out = dict(base)
    for key, value in extra.items():
        if isinstance(value, list) and isinstance(out.get(key), list):
            out[key] = out[key] + value
        elif isinstance(value, dict) and isinstance(out.get(key), dict):
            out[key] = merge(out[key], value)
        else:
            out[key] = value
    return out


def resolve_defaults(props, defaults, seen=()):
    merged = {}
    for name in props.get("defaults", []):
        if name in seen or name not in defaults:
            raise SyntaxError(f"Android.bp: defaults {name!r} missing or circular")
        merged = merge(merged, resolve_defaults(defaults[name], defaults, seen + (name,)))
    own = {k: v for k, v in props.items() if k != "defaults"}
    return merge(merged, own)


# --- Variants ---------------------------------------------------------------------------------

DEVICE_ARCHES = {
    "arm64": (["--target=aarch64-linux-android" + API_LEVEL], "asm-arm64"),
    "arm": (["--target=armv7a-linux-androideabi" + API_LEVEL, "-march=armv7-a",
             "-mfloat-abi=softfp", "-mfpu=neon", "-mthumb"], "asm-arm"),
    "x86_64": (["--target=x86_64-linux-android" + API_LEVEL], "asm-x86"),
}

# The target blocks that apply to each kind of variant.
DEVICE_TARGETS = ("android", "linux", "bionic", "linux_bionic")
HOST_TARGETS = ("host", "linux", "glibc", "linux_glibc", "not_windows", "linux_glibc_x86_64")

DEVICE_TYPES = {"cc_library_shared", "cc_library_static", "cc_library", "cc_binary", "cc_test",
                "cc_fuzz", "cc_object", "cc_library_headers", "cc_benchmark"}
HOST_TYPES = {"cc_test_host", "cc_binary_host", "cc_library_host_static",
              "cc_library_host_shared", "cc_benchmark_host"}

# Flags every C and C++ module gets on the device, then those of a vendor module.
DEVICE_FLAGS = [
    "-DANDROID", "-D_FORTIFY_SOURCE=2", "-O2", "-fstack-protector-strong", "-fPIC",
    "-ffunction-sections", "-fdata-sections", "-fno-short-enums", "-Werror=return-type",
    "-Werror=non-virtual-dtor", "-Werror=address", "-Werror=sequence-point",
    "-Werror=format-security", "-Werror=int-conversion", "-Werror=date-time",
    "-Werror=null-dereference", "-Werror=fortify-source", "-Werror=pointer-to-int-cast",
    "-Werror=int-to-pointer-cast", "-Werror=incompatible-function-pointer-types",
    "-Werror=implicit-function-declaration",
]
VENDOR_FLAGS = ["-D__ANDROID_VNDK__", "-D__ANDROID_VENDOR__"]
HOST_FLAGS = [f for f in DEVICE_FLAGS if f != "-DANDROID"]

# Platform libraries by name: the folders (under TREE) their headers come from, with the header
# libraries they pass on.
PLATFORM_HEADERS = {
    "libhardware_headers": ["hardware/libhardware/include_all", "system/core/libsystem/include",
                            "system/core/libcutils/include"],
    "libhardware": ["hardware/libhardware/include_all", "system/core/libsystem/include",
                    "system/core/libcutils/include"],
    "libcutils": ["system/core/libcutils/include"],
    "libcutils_headers": ["system/core/libcutils/include"],
    "liblog": ["system/logging/liblog/include"],
    "liblog_headers": ["system/logging/liblog/include"],
    "libsystem_headers": ["system/core/libsystem/include"],
    "libbinder_ndk": ["frameworks/native/libs/binder/ndk/include_ndk",
                      "frameworks/native/libs/binder/ndk/include_cpp",
                      "frameworks/native/libs/binder/ndk/include_platform"],
}
AIDL_NDK_STANDIN = "scripts/aidl-ndk-standin"  # headers standing in for the generated NDK code
INTERFACE_BPS = "interfaces/**/Android.bp"     # where the project's aidl_interface modules live
BIONIC_DIRS = ["bionic/libc/include", "bionic/libc/kernel/uapi", None,
               "bionic/libc/kernel/android/uapi"]  # None: the architecture's asm folder
GTEST_DIRS = ["external/googletest/googletest/include", "external/googletest/googlemock/include"]

# Functions glibc declares today that a 2.17 sysroot does not, with the headers that declare them.
LATER_GLIBC = {
    "unistd.h": ["gettid", "copy_file_range", "close_range"],
    "signal.h": ["tgkill"],
    "stdlib.h": ["reallocarray"],
    "string.h": ["explicit_bzero", "strlcpy", "strlcat"],
    "sys/mman.h": ["memfd_create", "mlock2", "pkey_alloc"],
    "sys/random.h": ["getrandom", "getentropy"],
    "threads.h": ["thrd_create"],
}


def module_variants(mtype, props):
    """(os, image) pairs: ("device", "core"|"vendor") or ("host", None)."""
    out = []
    if mtype in DEVICE_TYPES and props.get("device_supported", True):
        if props.get("vendor") or props.get("soc_specific") or props.get("proprietary"):
            out.append(("device", "vendor"))
        else:
            out.append(("device", "core"))
            if props.get("vendor_available"):
                out.append(("device", "vendor"))
    if mtype in HOST_TYPES or (mtype in DEVICE_TYPES and props.get("host_supported")):
        out.append(("host", None))
    return out


def for_target(props, names):
    out = {k: v for k, v in props.items() if k != "target"}
    for name in names:
        out = merge(out, props.get("target", {}).get(name, {}))
    return out


def expand(patterns, what):
    files, problems = [], []
    for pattern in patterns:
        if any(c in pattern for c in "*?["):
            files += sorted(glob.glob(pattern, recursive=True))
        elif os.path.isfile(pattern):
            files.append(pattern)
        else:
            problems.append(f"{what}: {pattern} does not exist")
    return files, problems


def aidl_ndk_libraries(parsed):
    """The NDK libraries of the aidl_interface modules, by name, with their header folders, and
    the problems found: a frozen version must have its API dump, the stand-in its header."""
    libraries, problems = {}, []
    for mtype, props in parsed:
        if mtype != "aidl_interface":
            continue
        name = props.get("name", "")
        if not props.get("backend", {}).get("ndk", {}).get("enabled", True):
            continue
        versions = [v["version"] for v in props.get("versions_with_info", [])]
        versions += props.get("versions", [])
        package_dir = os.path.join(AIDL_NDK_STANDIN, "aidl", *name.split("."))
        if not glob.glob(os.path.join(package_dir, "I*.h")):
            problems.append(f"{name}: no stand-in NDK headers in {package_dir}")
        for version in versions:
            libraries[f"{name}-V{version}-ndk"] = [AIDL_NDK_STANDIN]
        libraries[f"{name}-ndk"] = [AIDL_NDK_STANDIN]  # the latest version, as the platform names it
    return libraries, problems


class Check:
    def __init__(self, tree, text, interface_texts=()):
        self.tree = tree
        parsed = Parser(text).modules()
        interfaces = [m for t in interface_texts for m in Parser(t).modules()]
        self.aidl_libraries, self.problems = aidl_ndk_libraries(interfaces)
        self.defaults = {p["name"]: p for t, p in parsed if t == "cc_defaults"}
        self.modules = {p["name"]: (t, resolve_defaults(p, self.defaults))
                        for t, p in parsed if t != "cc_defaults" and "name" in p}
        self.skipped = sorted(n for n, (t, _) in self.modules.items() if not t.startswith("cc_"))
        self.skipped += sorted(p["name"] for t, p in interfaces if t == "aidl_interface")

    def props(self, name, os_name):
        return for_target(self.modules[name][1],
                          DEVICE_TARGETS if os_name == "device" else HOST_TARGETS)

    def library_dirs(self, module, lib, os_name):
        if lib in self.modules:
            return self.props(lib, os_name).get("export_include_dirs", [])
        if lib in PLATFORM_HEADERS:
            return [os.path.join(self.tree, d) for d in PLATFORM_HEADERS[lib]]
        if lib in self.aidl_libraries:
            return self.aidl_libraries[lib]
        self.problems.append(f"{module}: library {lib}: its headers are unknown to this check")
        return []

    def compiles(self, later_glibc_header):
        """Yields (command, module, variant label, source)."""
        resource = subprocess.run([CLANG, "-print-resource-dir"], check=True,
                                  capture_output=True, text=True).stdout.strip()
        libcxx = os.path.join(LLVM_ROOT, "include/c++/v1")
        for name, (mtype, base) in sorted(self.modules.items()):
            if name in self.skipped:
                continue
            if mtype not in DEVICE_TYPES | HOST_TYPES:
                self.problems.append(f"{name}: module type {mtype} is unknown to this check")
                continue
            for os_name, image in module_variants(mtype, base):
                props = self.props(name, os_name)
                srcs, missing = expand(props.get("srcs", []), name)
                excluded, _ = expand(props.get("exclude_srcs", []), name)
                self.problems += missing
                srcs = [s for s in srcs if s not in excluded]
                flags = self.module_flags(name, props, os_name)
                if os_name == "host":
                    target = [["--target=x86_64-linux-gnu", "-nostdinc++"] + HOST_FLAGS +
                              ["-include", later_glibc_header]]
                    system = [libcxx] + [os.path.join(self.tree, d) for d in GTEST_DIRS
                                         if os.path.isdir(os.path.join(self.tree, d))]
                    arches = [("host", target[0], system)]
                else:
                    arches = []
                    for arch, (arch_flags, asm) in DEVICE_ARCHES.items():
                        bionic = [os.path.join(self.tree, d or "bionic/libc/kernel/uapi/" + asm)
                                  for d in BIONIC_DIRS]
                        image_flags = VENDOR_FLAGS if image == "vendor" else []
                        arches.append((f"{arch}/{image}",
                                       arch_flags + ["-nostdinc", "-nostdinc++"] +
                                       DEVICE_FLAGS + image_flags,
                                       [libcxx, os.path.join(resource, "include")] + bionic))
                for label, base_flags, system in arches:
                    for src in srcs:
                        cxx = not src.endswith(".c")
                        std = props.get("cpp_std" if cxx else "c_std", "gnu++17" if cxx else "gnu11")
                        lang = ["-x", "c++"] if cxx else ["-x", "c"]
                        command = ([CLANG] + lang + base_flags + [f"-std={std}"] +
                                   (flags["cpp"] if cxx else flags["c"]) + flags["includes"] +
                                   [a for d in system for a in ("-isystem", d)] +
                                   ["-c", "-o", "/dev/null", src])
                        yield command, name, label, src

    def module_flags(self, name, props, os_name):
        cflags = props.get("cflags", [])
        cppflags = (["-fno-exceptions"] +
                    ([] if props.get("rtti") else ["-fno-rtti"]) +
                    cflags + props.get("cppflags", []))
        dirs = props.get("local_include_dirs", []) + ["."] + props.get("export_include_dirs", [])
        libs = (props.get("static_libs", []) + props.get("whole_static_libs", []) +
                props.get("shared_libs", []) + props.get("header_libs", []))
        for lib in libs:
            dirs += self.library_dirs(name, lib, os_name)
        # A folder named twice is searched once (the compiler drops the repeat), so only the first
        # is kept: modules that differ only in repeats then share one compile.
        dirs = list(dict.fromkeys(dirs))
        return {"c": cflags + props.get("conlyflags", []), "cpp": cppflags,
                "includes": [a for d in dirs for a in ("-I", d)]}


def later_glibc_header(folder):
    path = os.path.join(folder, "glibc-2.17-names.h")
    with open(path, "w") as out:
        out.write("/* Names a glibc 2.17 sysroot does not declare: any use is an error. */\n")
        for header, names in LATER_GLIBC.items():
            out.write(f"#if __has_include(<{header}>)\n#include <{header}>\n#endif\n")
        for names in LATER_GLIBC.values():
            out.write("#pragma GCC poison " + " ".join(names) + "\n")
    return path


def first_error(output):
    for line in output.splitlines():
        if ": error:" in line or ": fatal error:" in line:
            if "poisoned identifier" in line:
                line += " (not declared by glibc 2.17)"
            return line
    lines = output.strip().splitlines()
    return lines[0] if lines else "failed without a message"


def run(command):
    result = subprocess.run(command, capture_output=True, text=True)
    return result.returncode, result.stdout + result.stderr


def main(argv):
    if len(argv) != 2:
        print("usage: android-check.py TREE", file=sys.stderr)
        return 2
    tree = os.path.abspath(argv[1])
    needed = ["bionic/libc/include", "bionic/libc/kernel/uapi"]
    absent = [d for d in needed if not os.path.isdir(os.path.join(tree, d))]
    if absent:
        print(f"android-check: {tree} is not a platform tree (no {', '.join(absent)})",
              file=sys.stderr)
        return 2
    interface_texts = []
    for path in sorted(glob.glob(INTERFACE_BPS, recursive=True)):
        with open(path) as bp:
            interface_texts.append(bp.read())
    with open("Android.bp") as bp:
        check = Check(tree, bp.read(), interface_texts)
    os.makedirs(LOG_DIR, exist_ok=True)
    with tempfile.TemporaryDirectory() as scratch:
        # One compile per distinct command: a source shared by modules is compiled once per
        # variant, and its failure names every module that holds it.
        jobs = {}
        for command, module, label, src in check.compiles(later_glibc_header(scratch)):
            key = tuple(command)
            jobs.setdefault(key, (label, src, []))[2].append(module)
        workers = int(os.environ.get("ATCMD_JOBS", os.cpu_count() or 1))
        failed = 0
        def final(command, modules):
            if SHIPPED in modules:
                return list(command)
            at = command.index("-c")
            return list(command[:at]) + ["-fsyntax-only"] + list(command[at + 3:])
        with concurrent.futures.ThreadPoolExecutor(workers) as pool:
            results = pool.map(run, [final(k, ms) for k, (_, _, ms) in jobs.items()])
            for (command, (label, src, modules)), (status, output) in zip(jobs.items(), results):
                if status == 0 and not output.strip():
                    continue
                failed += 1
                digest = hashlib.sha1(" ".join(command).encode()).hexdigest()[:8]
                log = os.path.join(LOG_DIR, f"{src.replace('/', '_')}.{label.replace('/', '-')}"
                                            f".{digest}.log")
                with open(log, "w") as out:
                    out.write(" ".join(command) + "\n\n" + output)
                print(f"FAIL {label} {src} ({', '.join(sorted(set(modules)))}): "
                      f"{first_error(output)} [{log}]")
    for problem in check.problems:
        print(f"FAIL {problem}")
    for name in check.skipped:
        print(f"note: {name} is not a C or C++ module; not compiled")
    modules = len({m for _, _, ms in jobs.values() for m in ms})
    sources = len({s for _, s, _ in jobs.values()})
    print(f"android-check: {modules} modules, {sources} sources, {len(jobs)} compiles: "
          f"{len(jobs) - failed} passed, {failed} failed; {len(check.problems)} other problems")
    return 0 if failed == 0 and not check.problems else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv))
