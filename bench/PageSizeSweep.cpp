// Raw insert throughput for each candidate page size, uncompressed, in one
// transaction and in autocommit. The page size is a property of the file,
// fixed when its first table is made, so each run creates its own file.

#include "BenchSupport.h"
#include "Benchmarks.h"

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

namespace Marivane::Bench {

void registerPageSizeSweep(int round) {
    for (std::size_t size : kPayloadSizes) {
        for (const std::string mode : {"transaction", "autocommit"}) {
            std::vector<Member> group;
            for (int pageSize : kPageSizes) {
                auto function = mode == "transaction" ? rawTransactionWrites : rawAutocommitWrites;
                group.push_back({pageSizeName(mode, pageSize, size),
                                 [=](benchmark::State& state) { function(state, 0, size, pageSize); }});
            }
            registerRound(group, round, throughputSettings);
        }
    }
}

}  // namespace Marivane::Bench
