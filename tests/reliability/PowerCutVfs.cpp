#include "PowerCutVfs.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

namespace Marivane::Testing {

namespace {

// A write that may not be on the disk yet: what it wrote and what it replaced,
// so that the cut can take it back.
struct PendingWrite {
    uint64_t number;
    std::string path;
    sqlite3_int64 offset;
    std::vector<char> written;
    std::vector<char> replaced;  // shorter than `written` where the write grew the file
    sqlite3_int64 sizeBefore;
};

struct State {
    std::mutex mutex;
    sqlite3_vfs* real = nullptr;
    uint64_t cutAt = 0;
    int window = 0;
    uint64_t writes = 0;
    bool cut = false;
    std::deque<PendingWrite> pending;
};

State state;

struct ShimFile {
    sqlite3_file base;
    sqlite3_file* real;
    std::string path;
};

sqlite3_file* real(sqlite3_file* file) {
    return reinterpret_cast<ShimFile*>(file)->real;
}
const std::string& pathOf(sqlite3_file* file) {
    return reinterpret_cast<ShimFile*>(file)->path;
}

// Writes older than the window have been written back by now.
void retireOldWrites() {
    while (!state.pending.empty() &&
           state.writes - state.pending.front().number >= static_cast<uint64_t>(state.window)) {
        state.pending.pop_front();
    }
}

int shimClose(sqlite3_file* file) {
    const int code = real(file)->pMethods->xClose(real(file));
    reinterpret_cast<ShimFile*>(file)->path.~basic_string();
    return code;
}

int shimRead(sqlite3_file* file, void* buffer, int amount, sqlite3_int64 offset) {
    return real(file)->pMethods->xRead(real(file), buffer, amount, offset);
}

int shimWrite(sqlite3_file* file, const void* buffer, int amount, sqlite3_int64 offset) {
    std::lock_guard lock(state.mutex);
    if (state.cut) {
        return SQLITE_IOERR_WRITE;
    }
    if (++state.writes == state.cutAt && state.cutAt != 0) {
        state.cut = true;
        return SQLITE_IOERR_WRITE;
    }
    PendingWrite write{state.writes, pathOf(file), offset, {}, {}, 0};
    real(file)->pMethods->xFileSize(real(file), &write.sizeBefore);
    const sqlite3_int64 overlap = std::clamp<sqlite3_int64>(write.sizeBefore - offset, 0, amount);
    write.replaced.resize(static_cast<std::size_t>(overlap));
    if (overlap > 0) {
        real(file)->pMethods->xRead(real(file), write.replaced.data(), static_cast<int>(overlap), offset);
    }
    const auto* bytes = static_cast<const char*>(buffer);
    write.written.assign(bytes, bytes + amount);
    const int code = real(file)->pMethods->xWrite(real(file), buffer, amount, offset);
    if (code == SQLITE_OK) {
        state.pending.push_back(std::move(write));
        retireOldWrites();
    }
    return code;
}

int shimTruncate(sqlite3_file* file, sqlite3_int64 size) {
    std::lock_guard lock(state.mutex);
    if (state.cut) {
        return SQLITE_IOERR_TRUNCATE;
    }
    // Taken as immediate: the file's pending writes can no longer be undone
    // byte for byte, so they count as written back.
    const std::string& path = pathOf(file);
    std::erase_if(state.pending, [&](const PendingWrite& write) { return write.path == path; });
    return real(file)->pMethods->xTruncate(real(file), size);
}

int shimSync(sqlite3_file* file, int flags) {
    std::lock_guard lock(state.mutex);
    if (state.cut) {
        return SQLITE_IOERR_FSYNC;
    }
    const std::string& path = pathOf(file);
    std::erase_if(state.pending, [&](const PendingWrite& write) { return write.path == path; });
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
    // No memory mapping: every page goes through xRead and xWrite.
    if (op == SQLITE_FCNTL_MMAP_SIZE) {
        *static_cast<sqlite3_int64*>(arg) = 0;
        return SQLITE_OK;
    }
    return real(file)->pMethods->xFileControl(real(file), op, arg);
}
int shimSectorSize(sqlite3_file* file) {
    return real(file)->pMethods->xSectorSize(real(file));
}
int shimDeviceCharacteristics(sqlite3_file* file) {
    return real(file)->pMethods->xDeviceCharacteristics(real(file));
}
// The shared-memory index of a write-ahead log is rebuilt after a restart;
// it passes straight through.
int shimShmMap(sqlite3_file* file, int page, int size, int extend, void volatile** out) {
    return real(file)->pMethods->xShmMap(real(file), page, size, extend, out);
}
int shimShmLock(sqlite3_file* file, int offset, int count, int flags) {
    return real(file)->pMethods->xShmLock(real(file), offset, count, flags);
}
void shimShmBarrier(sqlite3_file* file) {
    real(file)->pMethods->xShmBarrier(real(file));
}
int shimShmUnmap(sqlite3_file* file, int deleteFlag) {
    return real(file)->pMethods->xShmUnmap(real(file), deleteFlag);
}

const sqlite3_io_methods shimMethods{
    .iVersion = 2,
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
    .xShmMap = shimShmMap,
    .xShmLock = shimShmLock,
    .xShmBarrier = shimShmBarrier,
    .xShmUnmap = shimShmUnmap,
    .xFetch = nullptr,
    .xUnfetch = nullptr,
};

int shimOpen(sqlite3_vfs*, sqlite3_filename name, sqlite3_file* file, int flags, int* outFlags) {
    auto* shim = reinterpret_cast<ShimFile*>(file);
    shim->real = reinterpret_cast<sqlite3_file*>(shim + 1);
    new (&shim->path) std::string(name != nullptr ? name : "");
    const int code = state.real->xOpen(state.real, name, shim->real, flags, outFlags);
    shim->base.pMethods = shim->real->pMethods ? &shimMethods : nullptr;
    if (shim->base.pMethods == nullptr) {
        shim->path.~basic_string();
    }
    return code;
}

int shimDelete(sqlite3_vfs*, const char* name, int syncDir) {
    std::lock_guard lock(state.mutex);
    if (state.cut) {
        return SQLITE_IOERR_DELETE;
    }
    std::erase_if(state.pending, [&](const PendingWrite& write) { return write.path == name; });
    return state.real->xDelete(state.real, name, syncDir);
}
int shimAccess(sqlite3_vfs*, const char* name, int flags, int* out) {
    return state.real->xAccess(state.real, name, flags, out);
}
int shimFullPathname(sqlite3_vfs*, const char* name, int size, char* out) {
    return state.real->xFullPathname(state.real, name, size, out);
}
int shimRandomness(sqlite3_vfs*, int size, char* out) {
    return state.real->xRandomness(state.real, size, out);
}
int shimSleep(sqlite3_vfs*, int microseconds) {
    return state.real->xSleep(state.real, microseconds);
}
int shimCurrentTime(sqlite3_vfs*, double* out) {
    return state.real->xCurrentTime(state.real, out);
}
int shimGetLastError(sqlite3_vfs*, int size, char* out) {
    return state.real->xGetLastError(state.real, size, out);
}
int shimCurrentTimeInt64(sqlite3_vfs*, sqlite3_int64* out) {
    return state.real->xCurrentTimeInt64(state.real, out);
}

sqlite3_vfs shimVfs{};

// Raw file access for materialise, after every connection is closed.
class RawFile {
public:
    explicit RawFile(const std::string& path) {
        int flags = 0;
        file_ = static_cast<sqlite3_file*>(sqlite3_malloc(state.real->szOsFile));
        std::memset(file_, 0, static_cast<std::size_t>(state.real->szOsFile));
        if (state.real->xOpen(state.real, path.c_str(), file_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_MAIN_DB,
                              &flags) != SQLITE_OK) {
            sqlite3_free(file_);
            file_ = nullptr;
        }
    }
    ~RawFile() {
        if (file_ != nullptr) {
            if (file_->pMethods != nullptr) {
                file_->pMethods->xClose(file_);
            }
            sqlite3_free(file_);
        }
    }
    RawFile(const RawFile&) = delete;
    RawFile& operator=(const RawFile&) = delete;
    bool open() const { return file_ != nullptr && file_->pMethods != nullptr; }
    void write(const std::vector<char>& bytes, std::size_t count, sqlite3_int64 offset) {
        if (count > 0) {
            file_->pMethods->xWrite(file_, bytes.data(), static_cast<int>(count), offset);
        }
    }
    void truncate(sqlite3_int64 size) { file_->pMethods->xTruncate(file_, size); }

private:
    sqlite3_file* file_ = nullptr;
};

}  // namespace

PowerCutVfs::PowerCutVfs(uint64_t cutAtWrite, int writebackWindow) {
    std::lock_guard lock(state.mutex);
    if (state.real != nullptr) {
        throw std::logic_error("only one PowerCutVfs at a time");
    }
    state.real = sqlite3_vfs_find(nullptr);
    state.cutAt = cutAtWrite;
    state.window = writebackWindow;
    state.writes = 0;
    state.cut = false;
    state.pending.clear();
    shimVfs = sqlite3_vfs{};
    shimVfs.iVersion = 2;
    shimVfs.szOsFile = static_cast<int>(sizeof(ShimFile)) + state.real->szOsFile;
    shimVfs.mxPathname = state.real->mxPathname;
    shimVfs.zName = "marivane-power-cut";
    shimVfs.xOpen = shimOpen;
    shimVfs.xDelete = shimDelete;
    shimVfs.xAccess = shimAccess;
    shimVfs.xFullPathname = shimFullPathname;
    shimVfs.xRandomness = shimRandomness;
    shimVfs.xSleep = shimSleep;
    shimVfs.xCurrentTime = shimCurrentTime;
    shimVfs.xGetLastError = shimGetLastError;
    shimVfs.xCurrentTimeInt64 = shimCurrentTimeInt64;
    if (sqlite3_vfs_register(&shimVfs, 1) != SQLITE_OK) {
        state.real = nullptr;
        throw std::runtime_error("cannot register the power-cut VFS");
    }
}

PowerCutVfs::~PowerCutVfs() {
    std::lock_guard lock(state.mutex);
    sqlite3_vfs_unregister(&shimVfs);
    sqlite3_vfs_register(state.real, 1);
    state.real = nullptr;
    state.pending.clear();
}

bool PowerCutVfs::hasCut() const {
    std::lock_guard lock(state.mutex);
    return state.cut;
}

uint64_t PowerCutVfs::oldestPendingWrite() const {
    std::lock_guard lock(state.mutex);
    return state.pending.empty() ? state.writes + 1 : state.pending.front().number;
}

uint64_t PowerCutVfs::writesSoFar() const {
    std::lock_guard lock(state.mutex);
    return state.writes;
}

void PowerCutVfs::materialise(std::mt19937_64& random) {
    std::lock_guard lock(state.mutex);
    // First every pending write is taken back, newest first, which restores
    // the disk as it was before the oldest of them; then each is written
    // again, in order, whole, torn after its first 512 bytes, or not at all.
    std::map<std::string, std::unique_ptr<RawFile>> files;
    for (const PendingWrite& write : state.pending) {
        auto& file = files[write.path];
        if (!file) {
            file = std::make_unique<RawFile>(write.path);
        }
    }
    for (auto it = state.pending.rbegin(); it != state.pending.rend(); ++it) {
        RawFile& file = *files[it->path];
        if (file.open()) {
            file.write(it->replaced, it->replaced.size(), it->offset);
            file.truncate(it->sizeBefore);
        }
    }
    std::uniform_int_distribution<int> fate(0, 2);
    for (const PendingWrite& write : state.pending) {
        RawFile& file = *files[write.path];
        if (!file.open()) {
            continue;
        }
        switch (fate(random)) {
            case 0:
                file.write(write.written, write.written.size(), write.offset);
                break;
            case 1:
                file.write(write.written, std::min<std::size_t>(512, write.written.size()), write.offset);
                break;
            default:
                break;
        }
    }
    state.pending.clear();
    state.cut = false;
    state.cutAt = 0;
}

}  // namespace Marivane::Testing
