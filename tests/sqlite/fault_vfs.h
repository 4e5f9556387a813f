#pragma once
// A fault-injecting SQLite VFS for tests, named "fault": it opens every file
// through the default VFS and, once armed, lets a number of file operations
// of the chosen kind succeed and fails every later one with the chosen code,
// the way a disk that has filled up or gone bad keeps failing, until it is
// disarmed. A datastore uses it when its parameter string says vfs=fault.
// The extension and the test share one SQLite library, so registering it in
// the test process is enough.

#include <atomic>
#include <cstdlib>

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
    // The default VFS's method tables met so far (a database file has other
    // methods than its journal), each with its copy that has the faulty
    // operations in place.
    struct Methods {
        const sqlite3_io_methods* real = nullptr;
        sqlite3_io_methods faulty{};
    } tables[4];
};
inline State& state() {
    static State s;
    return s;
}

// The code an operation of `kind` fails with now, or SQLITE_OK. A full disk
// shows on a read, sync or truncation as that operation's `io_error`.
inline int fault(Kind kind, int io_error) {
    State& s = state();
    if (!s.armed || !(s.kinds & kind) || s.left.fetch_sub(1) > 0) return SQLITE_OK;
    ++s.fired;
    return s.code == SQLITE_FULL ? io_error : s.code;
}
// The default VFS's methods behind `f`.
inline const sqlite3_io_methods* real(sqlite3_file* f) {
    for (const auto& t : state().tables)
        if (&t.faulty == f->pMethods) return t.real;
    std::abort();
}

inline int x_read(sqlite3_file* f, void* buf, int n, sqlite3_int64 at) {
    const int rc = fault(kRead, SQLITE_IOERR_READ);
    return rc ? rc : real(f)->xRead(f, buf, n, at);
}
inline int x_write(sqlite3_file* f, const void* buf, int n, sqlite3_int64 at) {
    const int rc = fault(kWrite, SQLITE_FULL);
    return rc ? rc : real(f)->xWrite(f, buf, n, at);
}
inline int x_truncate(sqlite3_file* f, sqlite3_int64 size) {
    const int rc = fault(kTruncate, SQLITE_IOERR_TRUNCATE);
    return rc ? rc : real(f)->xTruncate(f, size);
}
inline int x_sync(sqlite3_file* f, int flags) {
    const int rc = fault(kSync, SQLITE_IOERR_FSYNC);
    return rc ? rc : real(f)->xSync(f, flags);
}
// No memory mapping: every read goes through x_read.
inline int x_fetch(sqlite3_file*, sqlite3_int64, int, void** out) {
    *out = nullptr;
    return SQLITE_OK;
}
inline int x_unfetch(sqlite3_file*, sqlite3_int64, void*) { return SQLITE_OK; }

// The default VFS opens the file; the faulty methods then stand in front of
// its own.
inline int x_open(sqlite3_vfs*, const char* name, sqlite3_file* f, int flags, int* out_flags) {
    State& s = state();
    const int rc = s.real->xOpen(s.real, name, f, flags, out_flags);
    if (rc != SQLITE_OK || f->pMethods == nullptr) return rc;
    for (auto& t : s.tables) {
        if (t.real == nullptr) {
            t.real = f->pMethods;
            t.faulty = *f->pMethods;
            t.faulty.xRead = x_read;
            t.faulty.xWrite = x_write;
            t.faulty.xTruncate = x_truncate;
            t.faulty.xSync = x_sync;
            t.faulty.xFetch = x_fetch;
            t.faulty.xUnfetch = x_unfetch;
        }
        if (t.real == f->pMethods) {
            f->pMethods = &t.faulty;
            return SQLITE_OK;
        }
    }
    std::abort();  // more method tables than foreseen
}

// Registers "fault" once (not as the default VFS).
inline void install() {
    State& s = state();
    if (s.real != nullptr) return;
    s.real = sqlite3_vfs_find(nullptr);
    s.vfs = *s.real;
    s.vfs.zName = "fault";
    s.vfs.xOpen = x_open;
    s.vfs.pNext = nullptr;
    sqlite3_vfs_register(&s.vfs, 0);
}

// From now on `after` operations of the kinds in `kinds` succeed, every later
// one fails with `code` (SQLITE_FULL stands for a full disk).
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
