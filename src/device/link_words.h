/*
 * Link-state words: descriptors, thread handles and device-object fields that one thread
 * changes (mostly the supervisor) and other threads read without a lock. Accesses from more
 * than one thread go through these two helpers so that each is whole and ordered; the words
 * themselves stay plain integers, as C callers and the upper layer expect.
 */
#ifndef ATCMD_DEVICE_LINK_WORDS_H
#define ATCMD_DEVICE_LINK_WORDS_H

#include <stdint.h>
#include <unistd.h>

template <typename T>
inline T link_load(const T &word) {
    return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
}

template <typename T>
inline void link_store(T &word, T value) {
    __atomic_store_n(&word, value, __ATOMIC_RELEASE);
}

/* Marks the descriptor word closed (`closed`: -1, or 0 for the Wi-Fi epoll instance) before
 * closing what it held, so no thread picks up a number that is being closed. */
inline void link_close(int32_t &word, int32_t closed = -1) {
    const int32_t fd = link_load(word);
    link_store(word, closed);
    if (fd > closed) close(fd);
}

#endif /* ATCMD_DEVICE_LINK_WORDS_H */
