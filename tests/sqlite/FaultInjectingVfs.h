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
    void failReads(int code);
};

}  // namespace Marivane::Testing
