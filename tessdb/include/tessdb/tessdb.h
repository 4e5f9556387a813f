#pragma once
// tessdb1: a minimal SQL connection library over SQLite, used to run SQL
// files. A Connection is owned by its caller (delete it, or hold it in a
// std::unique_ptr) and is used from one thread at a time.

#if defined(TESSDB_BUILDING)
#define TESSDB_EXPORT __attribute__((visibility("default")))
#else
#define TESSDB_EXPORT
#endif

namespace tessdb1 {

class TESSDB_EXPORT Connection {
public:
    virtual ~Connection();
    // Runs one SQL statement; 0 on success, the SQLite error code otherwise.
    virtual int issueCommand(const char* sql) = 0;
    // The message of the last failure ("" after a success).
    virtual const char* lastError() const = 0;
};

// Opens (creating when missing) the SQLite file `path`; `flags` is reserved
// and must be 0. On success returns 0 and stores a new connection in *out,
// which the caller owns; otherwise returns the SQLite error code and sets
// *out to null.
TESSDB_EXPORT int newConnection(const char* path, unsigned flags, Connection** out);

}  // namespace tessdb1
