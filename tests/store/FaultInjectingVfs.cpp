#include "FaultInjectingVfs.h"

#include <sqlite3.h>

#include <atomic>
#include <stdexcept>

namespace Marivane::Testing {

namespace {

std::atomic<int> writeFault{0};
std::atomic<int> readFault{0};
// One failing write: the count of writes let through before it, and its code.
std::atomic<int> writesBeforeSingleFault{-1};
std::atomic<int> singleFaultCode{0};
// Writes that would make a main database file longer fail with SQLITE_FULL.
std::atomic<bool> growthFails{false};
sqlite3_vfs* realVfs = nullptr;

// The real file lives right behind this header in the same allocation.
struct ShimFile {
    sqlite3_file base;
    sqlite3_file* real;
    bool mainDatabase;
};

sqlite3_file* real(sqlite3_file* file) {
    return reinterpret_cast<ShimFile*>(file)->real;
}
bool isMainDatabase(sqlite3_file* file) {
    return reinterpret_cast<ShimFile*>(file)->mainDatabase;
}

int shimClose(sqlite3_file* file) {
    return real(file)->pMethods->xClose(real(file));
}

int shimRead(sqlite3_file* file, void* buffer, int amount, sqlite3_int64 offset) {
    if (const int fault = readFault.load(); fault != 0 && isMainDatabase(file)) {
        return fault;
    }
    return real(file)->pMethods->xRead(real(file), buffer, amount, offset);
}

bool growsFile(sqlite3_file* file, int amount, sqlite3_int64 offset) {
    sqlite3_int64 size = 0;
    return real(file)->pMethods->xFileSize(real(file), &size) == SQLITE_OK && offset + amount > size;
}

int shimWrite(sqlite3_file* file, const void* buffer, int amount, sqlite3_int64 offset) {
    if (isMainDatabase(file)) {
        if (const int fault = writeFault.load(); fault != 0) {
            return fault;
        }
        if (writesBeforeSingleFault.load() >= 0 && writesBeforeSingleFault.fetch_sub(1) == 0) {
            return singleFaultCode.load();
        }
        if (growthFails.load() && growsFile(file, amount, offset)) {
            return SQLITE_FULL;
        }
    }
    return real(file)->pMethods->xWrite(real(file), buffer, amount, offset);
}

int shimTruncate(sqlite3_file* file, sqlite3_int64 size) {
    return real(file)->pMethods->xTruncate(real(file), size);
}
int shimSync(sqlite3_file* file, int flags) {
    return real(file)->pMethods->xSync(real(file), flags);
}
int shimFileSize(sqlite3_file* file, sqlite3_int64* size) {
    return real(file)->pMethods->xFileSize(real(file), size);
}
int shimLock(sqlite3_file* file, int level) {
    return real(file)->pMethods->xLock(real(file), level);
}
int shimUnlock(sqlite3_file* file, int level) {
    return real(file)->pMethods->xUnlock(real(file), level);
}
int shimCheckReservedLock(sqlite3_file* file, int* out) {
    return real(file)->pMethods->xCheckReservedLock(real(file), out);
}
int shimFileControl(sqlite3_file* file, int op, void* arg) {
    return real(file)->pMethods->xFileControl(real(file), op, arg);
}
int shimSectorSize(sqlite3_file* file) {
    return real(file)->pMethods->xSectorSize(real(file));
}
int shimDeviceCharacteristics(sqlite3_file* file) {
    return real(file)->pMethods->xDeviceCharacteristics(real(file));
}

// Version 1: no shared memory and no memory mapping, so every page goes
// through xRead and xWrite.
const sqlite3_io_methods shimMethods{
    .iVersion = 1,
    .xClose = shimClose,
    .xRead = shimRead,
    .xWrite = shimWrite,
    .xTruncate = shimTruncate,
    .xSync = shimSync,
    .xFileSize = shimFileSize,
    .xLock = shimLock,
    .xUnlock = shimUnlock,
    .xCheckReservedLock = shimCheckReservedLock,
    .xFileControl = shimFileControl,
    .xSectorSize = shimSectorSize,
    .xDeviceCharacteristics = shimDeviceCharacteristics,
    .xShmMap = nullptr,
    .xShmLock = nullptr,
    .xShmBarrier = nullptr,
    .xShmUnmap = nullptr,
    .xFetch = nullptr,
    .xUnfetch = nullptr,
};

int shimOpen(sqlite3_vfs*, sqlite3_filename name, sqlite3_file* file, int flags, int* outFlags) {
    auto* shim = reinterpret_cast<ShimFile*>(file);
    shim->real = reinterpret_cast<sqlite3_file*>(shim + 1);
    shim->mainDatabase = (flags & SQLITE_OPEN_MAIN_DB) != 0;
    const int code = realVfs->xOpen(realVfs, name, shim->real, flags, outFlags);
    shim->base.pMethods = shim->real->pMethods ? &shimMethods : nullptr;
    return code;
}

int shimDelete(sqlite3_vfs*, const char* name, int syncDir) {
    return realVfs->xDelete(realVfs, name, syncDir);
}
int shimAccess(sqlite3_vfs*, const char* name, int flags, int* out) {
    return realVfs->xAccess(realVfs, name, flags, out);
}
int shimFullPathname(sqlite3_vfs*, const char* name, int size, char* out) {
    return realVfs->xFullPathname(realVfs, name, size, out);
}
void* shimDlOpen(sqlite3_vfs*, const char* name) {
    return realVfs->xDlOpen(realVfs, name);
}
void shimDlError(sqlite3_vfs*, int size, char* out) {
    realVfs->xDlError(realVfs, size, out);
}
void (*shimDlSym(sqlite3_vfs*, void* handle, const char* symbol))(void) {
    return realVfs->xDlSym(realVfs, handle, symbol);
}
void shimDlClose(sqlite3_vfs*, void* handle) {
    realVfs->xDlClose(realVfs, handle);
}
int shimRandomness(sqlite3_vfs*, int size, char* out) {
    return realVfs->xRandomness(realVfs, size, out);
}
int shimSleep(sqlite3_vfs*, int microseconds) {
    return realVfs->xSleep(realVfs, microseconds);
}
int shimCurrentTime(sqlite3_vfs*, double* out) {
    return realVfs->xCurrentTime(realVfs, out);
}
int shimGetLastError(sqlite3_vfs*, int size, char* out) {
    return realVfs->xGetLastError(realVfs, size, out);
}
int shimCurrentTimeInt64(sqlite3_vfs*, sqlite3_int64* out) {
    return realVfs->xCurrentTimeInt64(realVfs, out);
}

sqlite3_vfs shimVfs{};

}  // namespace

FaultInjectingVfs::FaultInjectingVfs() {
    if (realVfs) {
        throw std::logic_error("only one FaultInjectingVfs at a time");
    }
    realVfs = sqlite3_vfs_find(nullptr);
    if (!realVfs || realVfs->iVersion < 2) {
        throw std::runtime_error("no usable default VFS");
    }
    writeFault = 0;
    readFault = 0;
    shimVfs = sqlite3_vfs{};
    shimVfs.iVersion = 2;
    shimVfs.szOsFile = static_cast<int>(sizeof(ShimFile)) + realVfs->szOsFile;
    shimVfs.mxPathname = realVfs->mxPathname;
    shimVfs.zName = "marivane-fault-injection";
    shimVfs.xOpen = shimOpen;
    shimVfs.xDelete = shimDelete;
    shimVfs.xAccess = shimAccess;
    shimVfs.xFullPathname = shimFullPathname;
    shimVfs.xDlOpen = shimDlOpen;
    shimVfs.xDlError = shimDlError;
    shimVfs.xDlSym = shimDlSym;
    shimVfs.xDlClose = shimDlClose;
    shimVfs.xRandomness = shimRandomness;
    shimVfs.xSleep = shimSleep;
    shimVfs.xCurrentTime = shimCurrentTime;
    shimVfs.xGetLastError = shimGetLastError;
    shimVfs.xCurrentTimeInt64 = shimCurrentTimeInt64;
    if (sqlite3_vfs_register(&shimVfs, 1) != SQLITE_OK) {
        realVfs = nullptr;
        throw std::runtime_error("cannot register the fault-injecting VFS");
    }
}

FaultInjectingVfs::~FaultInjectingVfs() {
    writeFault = 0;
    readFault = 0;
    writesBeforeSingleFault = -1;
    growthFails = false;
    sqlite3_vfs_unregister(&shimVfs);
    // Unregistering the default leaves an arbitrary one in its place.
    sqlite3_vfs_register(realVfs, 1);
    realVfs = nullptr;
}

void FaultInjectingVfs::failWrites(int code) {
    writeFault = code;
}

void FaultInjectingVfs::failOneWrite(int writesLetThrough, int code) {
    singleFaultCode = code;
    writesBeforeSingleFault = writesLetThrough;
}

void FaultInjectingVfs::failGrowth(bool fail) {
    growthFails = fail;
}

void FaultInjectingVfs::failReads(int code) {
    readFault = code;
}

}  // namespace Marivane::Testing
