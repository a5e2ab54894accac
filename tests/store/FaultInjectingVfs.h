#pragma once

namespace Marivane::Testing {

// While an object of this class lives, SQLite's default file system is a thin
// layer over the real one that can make reads or writes of main database
// files fail with a chosen result code, as a full disk or a failing device
// would. Journals and temporary files are never disturbed.
//
// Only connections opened while the object lives are affected, and they must
// be closed before it is destroyed. One object at a time.
class FaultInjectingVfs {
public:
    FaultInjectingVfs();
    ~FaultInjectingVfs();
    FaultInjectingVfs(const FaultInjectingVfs&) = delete;
    FaultInjectingVfs& operator=(const FaultInjectingVfs&) = delete;

    // 0 lets the operation through; any other value is returned instead.
    void failWrites(int code);
    // Lets `writesLetThrough` writes pass, fails the next one with `code`, and
    // lets every later one pass again: a transient device error.
    void failOneWrite(int writesLetThrough, int code);
    // While set, writes that would make a main database file longer fail with
    // SQLITE_FULL and writes inside it pass: a disk that has filled up.
    void failGrowth(bool fail);
    void failReads(int code);
};

}  // namespace Marivane::Testing
