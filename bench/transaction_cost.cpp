// Usage: transaction_cost one|several|value ENTRIES TIMES
// Runs that many transactions of 200 bytes with one station or with several, or reads the same 200
// bytes that often as a value of one of several stations, after ENTRIES transactions to fill the
// extend list. Prints the heap calls of one. Run under `valgrind --tool=callgrind` it gives the
// instructions, see bench/run.

#include "bench/transaction.h"

#include <cstdio>
#include <cstring>

#include <dlfcn.h>

static long heapCalls = 0;

extern "C" __attribute__((visibility("default"))) void* malloc(size_t size)
{
    using Malloc = void* (*)(size_t);
    static const Malloc real = reinterpret_cast<Malloc>(dlsym(RTLD_NEXT, "malloc"));
    ++heapCalls;
    return real(size);
}

extern "C" __attribute__((visibility("default"))) void* realloc(void* block, size_t size)
{
    using Realloc = void* (*)(void*, size_t);
    static const Realloc real = reinterpret_cast<Realloc>(dlsym(RTLD_NEXT, "realloc"));
    ++heapCalls;
    return real(block, size);
}

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: transaction_cost one|several|value ENTRIES TIMES\n");
        return 2;
    }
    const bool one = std::strcmp(argv[1], "one") == 0;
    const bool value = std::strcmp(argv[1], "value") == 0;
    const int entries = std::atoi(argv[2]);
    const int times = std::atoi(argv[3]);
    TransactionBench bench(entries, !one);
    for (int i = 0; !one && i < entries; ++i)
        bench.transact();
    const long before = heapCalls;
    for (int i = 0; i < times; ++i)
        value ? bench.readValue() : bench.transact();
    std::printf("%.2f heap calls\n", double(heapCalls - before) / times);
}
