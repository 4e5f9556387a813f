#pragma once
// The SQLite extension (libsqlite.so): the embedded default datastore.
//
// Parameter string of open ("key=value" items joined by "|"):
//   source           the database file; may stand in double quotes and use
//                    "$HOME" (default "$HOME/.vesk/2019.2.1/vesk.db")
//   read_only        "true": open the existing file read-only, change nothing
//   busy_timeout_ms  how long a writer waits for another one (default 60000)
//   query_timeout_ms longest run of one select statement (default 60000)
//   max_length       lowers SQLite's length limit of one value or row
//                    (SQLITE_LIMIT_LENGTH, default 1000000000 bytes)
// Besides the operation codes 512 to 520 of interface, an instance answers
// the project's codes of operations.h (bulk insert). One instance holds one
// connection: use it from one thread at a time.

#include <cstdint>

#include "vesk/datastore/operations.h"

namespace vesk::datastore {

// The former name of OP_BULK_INSERT, kept for existing callers.
constexpr uint16_t SQLITE_BULK_INSERT = OP_BULK_INSERT;

}  // namespace vesk::datastore
