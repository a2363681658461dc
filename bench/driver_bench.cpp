// Wall-clock benchmarks: for ratios within one run only.

#include "bench/transaction.h"

#include <benchmark/benchmark.h>

static void transaction(benchmark::State& state)
{
    TransactionBench bench(int(state.range(0)));
    for (auto _ : state)
        bench.transact();
}
BENCHMARK(transaction)->Arg(1)->Arg(1000);

/// Building the cyclic list must grow hardly faster than its length.
static void buildList(benchmark::State& state)
{
    TransactionBench bench(1);
    PLC_driver.com_info->per_variable_stations = int(state.range(1));
    QList<VAR_INFO> variables;
    for (int i = 0; i < state.range(0); ++i) {
        VAR_INFO variable;
        variable.reg_type = 12;
        variable.address_text = QString::number((i * 7919) % 100000 * 2);
        variable.count = 1;
        variables.append(variable);
    }
    for (auto _ : state)
        benchmark::DoNotOptimize(ReCreatReadVarList(variables));
    state.SetComplexityN(state.range(0));
}
BENCHMARK(buildList)
    ->ArgsProduct({{1000, 10000, 100000}, {0, 1}})
    ->ArgNames({"variables", "stations"})
    ->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
