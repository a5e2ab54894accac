#include "StrictFileLayer.h"

#include <sqlite3.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace Marivane::Database {

namespace {

// One layer per wrapped default, so that a file layer a program (or a test)
// makes the default later is wrapped as well. The wrapped layer is reached
// through pAppData.
struct StrictLayer {
    sqlite3_vfs vfs{};
    std::string name;
};

// The wrapped file lives right behind this header in the same allocation.
struct StrictFile {
    sqlite3_file base;
    sqlite3_file* wrapped;
    bool mainDatabase;
};

sqlite3_vfs* wrappedLayer(sqlite3_vfs* layer) {
    return static_cast<sqlite3_vfs*>(layer->pAppData);
}
sqlite3_file* wrapped(sqlite3_file* file) {
    return reinterpret_cast<StrictFile*>(file)->wrapped;
}
const sqlite3_io_methods& methodsOf(sqlite3_file* file) {
    return *wrapped(file)->pMethods;
}

// SQLite reads parts of the header (the change counter, for one) of files
// that may still be empty; only pages past it must be there.
constexpr sqlite3_int64 kHeaderSize = 100;

int strictRead(sqlite3_file* file, void* buffer, int amount, sqlite3_int64 offset) {
    const int code = methodsOf(file).xRead(wrapped(file), buffer, amount, offset);
    if (code == SQLITE_IOERR_SHORT_READ && offset >= kHeaderSize &&
        reinterpret_cast<StrictFile*>(file)->mainDatabase) {
        // The page the file should hold is not (wholly) there: the file was
        // cut short. SQLite turns this code into a corruption error.
        return SQLITE_IOERR_CORRUPTFS;
    }
    return code;
}

int strictClose(sqlite3_file* file) {
    return methodsOf(file).xClose(wrapped(file));
}
int strictWrite(sqlite3_file* file, const void* buffer, int amount, sqlite3_int64 offset) {
    return methodsOf(file).xWrite(wrapped(file), buffer, amount, offset);
}
int strictTruncate(sqlite3_file* file, sqlite3_int64 size) {
    return methodsOf(file).xTruncate(wrapped(file), size);
}
int strictSync(sqlite3_file* file, int flags) {
    return methodsOf(file).xSync(wrapped(file), flags);
}
int strictFileSize(sqlite3_file* file, sqlite3_int64* size) {
    return methodsOf(file).xFileSize(wrapped(file), size);
}
int strictLock(sqlite3_file* file, int level) {
    return methodsOf(file).xLock(wrapped(file), level);
}
int strictUnlock(sqlite3_file* file, int level) {
    return methodsOf(file).xUnlock(wrapped(file), level);
}
int strictCheckReservedLock(sqlite3_file* file, int* out) {
    return methodsOf(file).xCheckReservedLock(wrapped(file), out);
}
int strictFileControl(sqlite3_file* file, int op, void* arg) {
    return methodsOf(file).xFileControl(wrapped(file), op, arg);
}
int strictSectorSize(sqlite3_file* file) {
    return methodsOf(file).xSectorSize(wrapped(file));
}
int strictDeviceCharacteristics(sqlite3_file* file) {
    return methodsOf(file).xDeviceCharacteristics(wrapped(file));
}
int strictShmMap(sqlite3_file* file, int page, int size, int extend, void volatile** out) {
    return methodsOf(file).xShmMap(wrapped(file), page, size, extend, out);
}
int strictShmLock(sqlite3_file* file, int offset, int count, int flags) {
    return methodsOf(file).xShmLock(wrapped(file), offset, count, flags);
}
void strictShmBarrier(sqlite3_file* file) {
    methodsOf(file).xShmBarrier(wrapped(file));
}
int strictShmUnmap(sqlite3_file* file, int deleteFlag) {
    return methodsOf(file).xShmUnmap(wrapped(file), deleteFlag);
}
int strictFetch(sqlite3_file* file, sqlite3_int64 offset, int amount, void** out) {
    return methodsOf(file).xFetch(wrapped(file), offset, amount, out);
}
int strictUnfetch(sqlite3_file* file, sqlite3_int64 offset, void* pointer) {
    return methodsOf(file).xUnfetch(wrapped(file), offset, pointer);
}

// SQLite calls the methods of a version only when the table says it has
// them, so the wrapper offers exactly the version of the file it wraps.
sqlite3_io_methods methodsOfVersion(int version) {
    sqlite3_io_methods methods{};
    methods.iVersion = version;
    methods.xClose = strictClose;
    methods.xRead = strictRead;
    methods.xWrite = strictWrite;
    methods.xTruncate = strictTruncate;
    methods.xSync = strictSync;
    methods.xFileSize = strictFileSize;
    methods.xLock = strictLock;
    methods.xUnlock = strictUnlock;
    methods.xCheckReservedLock = strictCheckReservedLock;
    methods.xFileControl = strictFileControl;
    methods.xSectorSize = strictSectorSize;
    methods.xDeviceCharacteristics = strictDeviceCharacteristics;
    if (version >= 2) {
        methods.xShmMap = strictShmMap;
        methods.xShmLock = strictShmLock;
        methods.xShmBarrier = strictShmBarrier;
        methods.xShmUnmap = strictShmUnmap;
    }
    if (version >= 3) {
        methods.xFetch = strictFetch;
        methods.xUnfetch = strictUnfetch;
    }
    return methods;
}

const sqlite3_io_methods kMethodsV1 = methodsOfVersion(1);
const sqlite3_io_methods kMethodsV2 = methodsOfVersion(2);
const sqlite3_io_methods kMethodsV3 = methodsOfVersion(3);

const sqlite3_io_methods* methodsFor(const sqlite3_io_methods* wrappedMethods) {
    if (wrappedMethods == nullptr) {
        return nullptr;
    }
    if (wrappedMethods->iVersion >= 3) {
        return &kMethodsV3;
    }
    return wrappedMethods->iVersion == 2 ? &kMethodsV2 : &kMethodsV1;
}

int strictOpen(sqlite3_vfs* layer, sqlite3_filename name, sqlite3_file* file, int flags, int* outFlags) {
    auto* strict = reinterpret_cast<StrictFile*>(file);
    strict->wrapped = reinterpret_cast<sqlite3_file*>(strict + 1);
    strict->mainDatabase = (flags & SQLITE_OPEN_MAIN_DB) != 0;
    sqlite3_vfs* inner = wrappedLayer(layer);
    const int code = inner->xOpen(inner, name, strict->wrapped, flags, outFlags);
    strict->base.pMethods = methodsFor(strict->wrapped->pMethods);
    return code;
}

int strictDelete(sqlite3_vfs* layer, const char* name, int syncDir) {
    return wrappedLayer(layer)->xDelete(wrappedLayer(layer), name, syncDir);
}
int strictAccess(sqlite3_vfs* layer, const char* name, int flags, int* out) {
    return wrappedLayer(layer)->xAccess(wrappedLayer(layer), name, flags, out);
}
int strictFullPathname(sqlite3_vfs* layer, const char* name, int size, char* out) {
    return wrappedLayer(layer)->xFullPathname(wrappedLayer(layer), name, size, out);
}
void* strictDlOpen(sqlite3_vfs* layer, const char* name) {
    return wrappedLayer(layer)->xDlOpen(wrappedLayer(layer), name);
}
void strictDlError(sqlite3_vfs* layer, int size, char* out) {
    wrappedLayer(layer)->xDlError(wrappedLayer(layer), size, out);
}
void (*strictDlSym(sqlite3_vfs* layer, void* handle, const char* symbol))(void) {
    return wrappedLayer(layer)->xDlSym(wrappedLayer(layer), handle, symbol);
}
void strictDlClose(sqlite3_vfs* layer, void* handle) {
    wrappedLayer(layer)->xDlClose(wrappedLayer(layer), handle);
}
int strictRandomness(sqlite3_vfs* layer, int size, char* out) {
    return wrappedLayer(layer)->xRandomness(wrappedLayer(layer), size, out);
}
int strictSleep(sqlite3_vfs* layer, int microseconds) {
    return wrappedLayer(layer)->xSleep(wrappedLayer(layer), microseconds);
}
int strictCurrentTime(sqlite3_vfs* layer, double* out) {
    return wrappedLayer(layer)->xCurrentTime(wrappedLayer(layer), out);
}
int strictGetLastError(sqlite3_vfs* layer, int size, char* out) {
    return wrappedLayer(layer)->xGetLastError(wrappedLayer(layer), size, out);
}
int strictCurrentTimeInt64(sqlite3_vfs* layer, sqlite3_int64* out) {
    return wrappedLayer(layer)->xCurrentTimeInt64(wrappedLayer(layer), out);
}

std::unique_ptr<StrictLayer> makeLayer(sqlite3_vfs* inner, std::size_t number) {
    auto layer = std::make_unique<StrictLayer>();
    layer->name = "marivane-strict-" + std::to_string(number);
    sqlite3_vfs& vfs = layer->vfs;
    vfs.iVersion = 2;
    vfs.szOsFile = static_cast<int>(sizeof(StrictFile)) + inner->szOsFile;
    vfs.mxPathname = inner->mxPathname;
    vfs.zName = layer->name.c_str();
    vfs.pAppData = inner;
    vfs.xOpen = strictOpen;
    vfs.xDelete = strictDelete;
    vfs.xAccess = strictAccess;
    vfs.xFullPathname = strictFullPathname;
    vfs.xDlOpen = strictDlOpen;
    vfs.xDlError = strictDlError;
    vfs.xDlSym = strictDlSym;
    vfs.xDlClose = strictDlClose;
    vfs.xRandomness = strictRandomness;
    vfs.xSleep = strictSleep;
    vfs.xCurrentTime = strictCurrentTime;
    vfs.xGetLastError = strictGetLastError;
    vfs.xCurrentTimeInt64 = strictCurrentTimeInt64;
    return layer;
}

}  // namespace

const char* strictFileLayerName() {
    static std::mutex mutex;
    // Layers are never unregistered: a connection may still use one, and
    // each costs a few bytes.
    static std::map<sqlite3_vfs*, std::unique_ptr<StrictLayer>> layers;
    std::lock_guard lock(mutex);
    sqlite3_vfs* inner = sqlite3_vfs_find(nullptr);
    if (inner == nullptr || inner->iVersion < 2) {
        // Nothing to wrap safely: SQLite's own choice.
        return nullptr;
    }
    std::unique_ptr<StrictLayer>& layer = layers[inner];
    if (!layer) {
        std::unique_ptr<StrictLayer> made = makeLayer(inner, layers.size());
        if (sqlite3_vfs_register(&made->vfs, 0) != SQLITE_OK) {
            layers.erase(inner);
            return nullptr;
        }
        layer = std::move(made);
    }
    return layer->name.c_str();
}

}  // namespace Marivane::Database
