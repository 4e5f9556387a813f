#pragma once
// A fault-injecting SQLite VFS for tests, named "fault": it forwards every
// call to the default VFS and, once armed, lets a number of file operations
// of the chosen kind succeed and fails every later one with the chosen code,
// the way a disk that has filled up or gone bad keeps failing, until it is
// disarmed. A datastore uses it when its parameter string says vfs=fault.
// The extension and the test share one SQLite library, so registering it in
// the test process is enough.

#include <atomic>
#include <cstring>

#include <sqlite3.h>

namespace vesk::test::fault_vfs {

enum Kind { kRead = 1, kWrite = 2, kSync = 4, kTruncate = 8 };

struct State {
    std::atomic<bool> armed{false};
    std::atomic<int> left{0};   // operations that still succeed
    std::atomic<int> fired{0};  // operations failed since arming
    int kinds = 0;
    int code = SQLITE_IOERR;
    sqlite3_vfs* real = nullptr;
    sqlite3_vfs vfs{};
    sqlite3_io_methods methods{};
};
inline State& state() {
    static State s;
    return s;
}

struct File {
    sqlite3_file base;
    sqlite3_file* real;  // the default VFS's file, right behind this struct
};
inline sqlite3_file* real(sqlite3_file* f) { return reinterpret_cast<File*>(f)->real; }

// Whether an operation of `kind` fails now.
inline bool fails(Kind kind) {
    State& s = state();
    if (!s.armed || !(s.kinds & kind)) return false;
    if (s.left.fetch_sub(1) > 0) return false;
    ++s.fired;
    return true;
}

inline int x_close(sqlite3_file* f) {
    const int rc = real(f)->pMethods ? real(f)->pMethods->xClose(real(f)) : SQLITE_OK;
    f->pMethods = nullptr;
    return rc;
}
inline int x_read(sqlite3_file* f, void* buf, int n, sqlite3_int64 at) {
    if (fails(kRead)) return state().code == SQLITE_FULL ? SQLITE_IOERR_READ : state().code;
    return real(f)->pMethods->xRead(real(f), buf, n, at);
}
inline int x_write(sqlite3_file* f, const void* buf, int n, sqlite3_int64 at) {
    if (fails(kWrite)) return state().code;
    return real(f)->pMethods->xWrite(real(f), buf, n, at);
}
inline int x_truncate(sqlite3_file* f, sqlite3_int64 size) {
    if (fails(kTruncate)) return state().code == SQLITE_FULL ? SQLITE_IOERR_TRUNCATE : state().code;
    return real(f)->pMethods->xTruncate(real(f), size);
}
inline int x_sync(sqlite3_file* f, int flags) {
    if (fails(kSync)) return state().code == SQLITE_FULL ? SQLITE_IOERR_FSYNC : state().code;
    return real(f)->pMethods->xSync(real(f), flags);
}
inline int x_size(sqlite3_file* f, sqlite3_int64* size) {
    return real(f)->pMethods->xFileSize(real(f), size);
}
inline int x_lock(sqlite3_file* f, int level) { return real(f)->pMethods->xLock(real(f), level); }
inline int x_unlock(sqlite3_file* f, int level) {
    return real(f)->pMethods->xUnlock(real(f), level);
}
inline int x_check(sqlite3_file* f, int* out) {
    return real(f)->pMethods->xCheckReservedLock(real(f), out);
}
inline int x_control(sqlite3_file* f, int op, void* arg) {
    return real(f)->pMethods->xFileControl(real(f), op, arg);
}
inline int x_sector(sqlite3_file* f) { return real(f)->pMethods->xSectorSize(real(f)); }
inline int x_device(sqlite3_file* f) { return real(f)->pMethods->xDeviceCharacteristics(real(f)); }
inline int x_shm_map(sqlite3_file* f, int page, int size, int extend, void volatile** out) {
    return real(f)->pMethods->xShmMap(real(f), page, size, extend, out);
}
inline int x_shm_lock(sqlite3_file* f, int offset, int n, int flags) {
    return real(f)->pMethods->xShmLock(real(f), offset, n, flags);
}
inline void x_shm_barrier(sqlite3_file* f) { real(f)->pMethods->xShmBarrier(real(f)); }
inline int x_shm_unmap(sqlite3_file* f, int remove) {
    return real(f)->pMethods->xShmUnmap(real(f), remove);
}
inline int x_fetch(sqlite3_file* f, sqlite3_int64 at, int n, void** out) {
    *out = nullptr;  // no memory mapping: every read goes through x_read
    (void)f, (void)at, (void)n;
    return SQLITE_OK;
}
inline int x_unfetch(sqlite3_file* /*f*/, sqlite3_int64 /*at*/, void* /*p*/) { return SQLITE_OK; }

inline int x_open(sqlite3_vfs* /*vfs*/, const char* name, sqlite3_file* f, int flags,
                  int* out_flags) {
    State& s = state();
    auto* file = reinterpret_cast<File*>(f);
    file->real = reinterpret_cast<sqlite3_file*>(file + 1);
    file->base.pMethods = nullptr;
    const int rc = s.real->xOpen(s.real, name, file->real, flags, out_flags);
    if (rc != SQLITE_OK) {
        if (file->real->pMethods) file->real->pMethods->xClose(file->real);
        return rc;
    }
    file->base.pMethods = &s.methods;
    return SQLITE_OK;
}

// Registers "fault" once (not as the default VFS).
inline void install() {
    State& s = state();
    if (s.real != nullptr) return;
    s.real = sqlite3_vfs_find(nullptr);
    s.vfs = *s.real;
    s.vfs.zName = "fault";
    s.vfs.szOsFile = static_cast<int>(sizeof(File)) + s.real->szOsFile;
    s.vfs.xOpen = x_open;
    s.vfs.pNext = nullptr;
    s.methods = sqlite3_io_methods{
        3,          x_close,       x_read,      x_write,   x_truncate, x_sync,   x_size,
        x_lock,     x_unlock,      x_check,     x_control, x_sector,   x_device, x_shm_map,
        x_shm_lock, x_shm_barrier, x_shm_unmap, x_fetch,   x_unfetch};
    sqlite3_vfs_register(&s.vfs, 0);
}

// From now on `after` operations of the kinds in `kinds` succeed, every later
// one fails with `code` (SQLITE_FULL stands for a full disk: reads, syncs and
// truncations then answer their SQLITE_IOERR_* code).
inline void arm(int after, int kinds, int code) {
    State& s = state();
    s.kinds = kinds;
    s.code = code;
    s.fired = 0;
    s.left = after;
    s.armed = true;
}
// Ends the fault; answers how many operations failed.
inline int disarm() {
    state().armed = false;
    return state().fired;
}

}  // namespace vesk::test::fault_vfs
