// Usage: transaction_cost ENTRIES TRANSACTIONS
// Runs that many transactions of 200 bytes and prints the heap calls of one. Run under
// `valgrind --tool=callgrind` it gives the instructions, see bench/run.

#include "bench/transaction.h"

#include <cstdio>

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
    if (argc != 3) {
        std::fprintf(stderr, "usage: transaction_cost ENTRIES TRANSACTIONS\n");
        return 2;
    }
    TransactionBench bench(std::atoi(argv[1]));
    const int transactions = std::atoi(argv[2]);
    const long before = heapCalls;
    for (int i = 0; i < transactions; ++i)
        bench.transact();
    std::printf("%.2f heap calls\n", double(heapCalls - before) / transactions);
}
