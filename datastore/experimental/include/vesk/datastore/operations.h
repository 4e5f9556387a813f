#pragma once
// The project's own operation codes, from 1024 up, answered through control
// (and so execute_ioctl) by the extensions that support them, besides the
// codes 512 to 520 of interface. An extension that does not know a code
// answers UNSUPPORTED_OPERATION.

#include <cstdint>

namespace vesk::datastore {

// Bulk insert: `in` points to a const std::vector<InsertRecord>, `out` and
// `extra` are ignored (may be null). The rows are checked like single inserts
// and written in one transaction: all of them or none.
constexpr uint16_t OP_BULK_INSERT = 1024;

}  // namespace vesk::datastore
