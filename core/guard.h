#ifndef CORE_GUARD_H
#define CORE_GUARD_H

namespace cp243
{

/// Makes a host's call without letting an exception out of the library: when memory runs out, or
/// the host's callback throws, the call ends with its failure value. Locks are scoped and so
/// released.
template <typename Result, typename Call>
Result guarded(Result failure, const Call& call) noexcept
{
    try {
        return call();
    } catch (...) {
        return failure;
    }
}

} // namespace cp243

#endif
