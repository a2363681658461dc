#ifndef CORE_SHARED_WORD_H
#define CORE_SHARED_WORD_H

/// Access to the few plain words that the comm loop's thread writes while other threads read them
/// without a mutex: link_failed and COM_INFO::cycle_complete. Their types are fixed by the record
/// layouts, so the atomicity is in the access.

namespace cp243
{

template <typename Word>
inline Word loadShared(const Word& word)
{
    return __atomic_load_n(&word, __ATOMIC_RELAXED);
}

template <typename Word>
inline void storeShared(Word& word, Word value)
{
    __atomic_store_n(&word, value, __ATOMIC_RELAXED);
}

} // namespace cp243

#endif
