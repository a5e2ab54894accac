#pragma once

#include <cstdint>
#include <random>

namespace Marivane::Testing {

// While an object of this class lives, SQLite's default file system is a layer
// over the real one that remembers what a power cut could still take away.
//
// The model: a write reaches the disk when its file is synced, or once
// `writebackWindow` later writes have followed it (the kernel writes dirty
// pages back on its own after a while). At the cut, every write that has not
// reached the disk is kept, dropped, or torn (only its first sector kept), at
// random; deletes and truncations are taken as immediate. cut() happens at
// the write numbered `cutAtWrite`: that write and everything after it fail
// with SQLITE_IOERR and change nothing, as if the machine had stopped; 0
// never cuts.
//
// Files must be closed (every connection of the workload gone) before
// materialise() rewrites them as the disk would hold them after power came
// back. One object at a time; the workload may use threads.
class PowerCutVfs {
public:
    PowerCutVfs(uint64_t cutAtWrite, int writebackWindow);
    ~PowerCutVfs();
    PowerCutVfs(const PowerCutVfs&) = delete;
    PowerCutVfs& operator=(const PowerCutVfs&) = delete;

    bool hasCut() const;
    // The number of the oldest write not yet on the disk; everything before it
    // survives any cut. The write counter itself when nothing is pending.
    uint64_t oldestPendingWrite() const;
    uint64_t writesSoFar() const;
    // Applies the cut to the real files (see above) and lifts it.
    void materialise(std::mt19937_64& random);
};

}  // namespace Marivane::Testing
