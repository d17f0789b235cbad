/*
 * Link-state words: descriptors, thread handles and device-object fields that one thread
 * changes (mostly the supervisor) and other threads read without a lock. Accesses from more
 * than one thread go through these two helpers so that each is whole and ordered; the words
 * themselves stay plain integers, as C callers and the upper layer expect.
 */
#ifndef ATCMD_HAL_LINK_WORDS_H
#define ATCMD_HAL_LINK_WORDS_H

template <typename T>
inline T link_load(const T &word) {
    return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
}

template <typename T>
inline void link_store(T &word, T value) {
    __atomic_store_n(&word, value, __ATOMIC_RELEASE);
}

#endif /* ATCMD_HAL_LINK_WORDS_H */
