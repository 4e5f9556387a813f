#pragma once
// The SQLite extension (libsqlite.so): the embedded default datastore.
//
// Parameter string of open ("key=value" items joined by "|"):
//   source           the database file; may stand in double quotes and use
//                    "$HOME" (default "$HOME/.vesk/2019.2.1/vesk.db")
//   read_only        "true": open the existing file read-only, change nothing
//   busy_timeout_ms  how long one call waits for other processes' locks
//                    (default 60000)
//   query_timeout_ms longest run of one select statement (default 60000)
//   max_length       lowers SQLite's length limit of one value or row
//                    (SQLITE_LIMIT_LENGTH, default 1000000000 bytes)
//   max_result_bytes largest answer of one select (default 4294967296)
//   vfs              a registered SQLite VFS to use (tests inject faults)
// Any other key, a key given twice or a malformed value fails open.
// Besides the operation codes 512 to 520 of interface, an instance answers
// the project's codes of operations.h (bulk insert). One instance holds one
// connection: use it from one thread at a time.

#include <cstdint>

#include "vesk/datastore/operations.h"

namespace vesk::datastore {

// The former name of OP_BULK_INSERT, kept for existing callers.
constexpr uint16_t SQLITE_BULK_INSERT = OP_BULK_INSERT;

}  // namespace vesk::datastore
