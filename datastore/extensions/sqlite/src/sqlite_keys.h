#pragma once

#include "vesk/datastore/sql/checks.h"

namespace vesk::datastore::sqlite_backend {

// The keys of the SQLite extension's parameter string and the grammar of
// their values.
inline const sql::checks::KnownKeys& known_keys() {
    using sql::checks::ValueKind;
    static const sql::checks::KnownKeys keys{
        {"source", ValueKind::text},
        {"read_only", ValueKind::boolean},
        {"busy_timeout_ms", ValueKind::milliseconds},
        {"query_timeout_ms", ValueKind::milliseconds},
        {"max_length", ValueKind::bytes},
        {"max_result_bytes", ValueKind::bytes},
        {"vfs", ValueKind::text},
    };
    return keys;
}

}  // namespace vesk::datastore::sqlite_backend
