/*
 * Fuzz target: every field extractor on an arbitrary NUL-terminated line, each writing into a
 * heap destination of exactly its stated size, so that AddressSanitizer catches a byte written
 * or read past it. Text results must end inside their destination.
 */
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <memory>

#include "accessory/accessory.h"
#include "log/atcmd_log.h"

namespace {

template <typename T>
std::unique_ptr<T[]> exact(size_t count) {
    return std::unique_ptr<T[]>(new T[count]());
}

void text_ends_inside(const char *out, size_t size) {
    if (strnlen(out, size) == size) abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
    log_level = -1;
    return 0;
}

// The first byte picks the size of the bounded text destination; the rest is the line.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    const size_t bounded_size = 1 + data[0] % AT_LINE_BUF_SIZE;
    auto line = exact<char>(size);  // the line and its terminator, nothing more
    memcpy(line.get(), data + 1, size - 1);
    const char *text = line.get();

    auto value = exact<int32_t>(1);
    getvalue_fromCmdString(text, value.get());
    getstate_fromCmdString(text, value.get());
    getBatinfo_fromCmdString(text, exact<int32_t>(6).get());
    getTmpinfo_fromCmdString(text, exact<int32_t>(2).get());
    getHALLinfo_fromCmdString(text, exact<int32_t>(3).get());
    getACCinfo_fromCmdString(text, exact<int32_t>(3).get());
    getUsbDevinfo_fromCmdString(text, exact<usbdev_sts_t>(1).get());

    auto str = exact<char>(AT_LINE_BUF_SIZE);
    if (getstr_fromCmdString(text, str.get()) == ATCMD_EXTRACT_OK) {
        text_ends_inside(str.get(), AT_LINE_BUF_SIZE);
    }
    auto bounded = exact<char>(bounded_size);
    if (atcmd_getstr_bounded(text, bounded.get(), bounded_size) == ATCMD_EXTRACT_OK) {
        text_ends_inside(bounded.get(), bounded_size);
    }
    auto block = exact<char>(CORVEL_VER_BLOCK_SIZE);
    getVerInfo_fromCmdString(text, reinterpret_cast<uintptr_t>(block.get()));
    return 0;
}
