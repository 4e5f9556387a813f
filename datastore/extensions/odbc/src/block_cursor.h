#pragma once
// Reads a query's answer through a server-side cursor (DECLARE ... CURSOR,
// then FETCH n), a block of rows at a time.
//
// A driver that reads a whole answer before handing out its first row holds
// it besides the rows its caller builds from it: twice the answer. A fixed
// number of rows per FETCH is either many round trips for small rows or a
// large block for large ones; here each block asks for as many rows as fit
// in about block_bytes, judged by the largest row read so far.
//
// The cursor lives in the connection's open transaction, which the caller
// begins first, and is dropped when that transaction ends. (Outside one the
// server drops it after the first block: a longer answer fails.) One cursor
// per connection at a time.

#include <memory>
#include <string>

#include "odbc_connection.h"

namespace vesk::datastore::odbc_backend {

struct BlockCursorOptions {
    std::size_t block_bytes = 2 * 1024 * 1024;  // aimed size of one block
    long first_rows = 512;                      // the first block, before any row is seen
    long max_rows = 20000;                      // no block asks for more rows
};

// A statement that runs `query` (one query, trailing blanks and semicolons
// allowed) through a cursor on `connection`, which must outlive it. Its
// statements are sent whole (prepare_direct): it takes no bindings. Nothing
// is sent before its first step().
std::unique_ptr<sql::Statement> read_through_cursor(OdbcConnection& connection,
                                                    const std::string& query,
                                                    const BlockCursorOptions& options = {});

}  // namespace vesk::datastore::odbc_backend
