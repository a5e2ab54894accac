// Raw insert throughput for each candidate page size, uncompressed, in one
// transaction and in autocommit. The page size is a property of the file,
// fixed when its first table is made, so each run creates its own file.

#include "BenchSupport.h"
#include "Benchmarks.h"

#include <benchmark/benchmark.h>

namespace Marivane::Bench {

void registerPageSizeSweep() {
    for (std::size_t size : kPayloadSizes) {
        for (int pageSize : kPageSizes) {
            for (const char* mode : {"transaction", "autocommit"}) {
                const bool transaction = std::string(mode) == "transaction";
                benchmark::RegisterBenchmark(pageSizeName(mode, pageSize, size).c_str(),
                                             transaction ? rawTransactionWrites : rawAutocommitWrites, 0, size,
                                             pageSize)
                    ->MinTime(kMinTime)
                    ->Repetitions(kRepetitions)
                    ->ReportAggregatesOnly()
                    ->UseRealTime()
                    ->Unit(benchmark::kMicrosecond);
            }
        }
    }
}

}  // namespace Marivane::Bench
