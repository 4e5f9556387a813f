#pragma once
// Checks of texts before they are sent to a server.
//
// PostgreSQL text holds neither a NUL byte nor invalid UTF-8, and the ODBC
// driver passes a value with a NUL cut short while answering success. Such
// values are refused before anything is sent. A caller's select is refused
// when it may hold a second statement, which could end the read-only
// transaction that guards it.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace vesk::datastore::odbc_backend {

// Empty when `text` is valid UTF-8 without NUL bytes (overlong forms,
// surrogates and code points above U+10FFFF are invalid); otherwise what is
// wrong and at which byte offset.
std::optional<std::string> text_problem(std::string_view text);

// A caller's statement without its trailing blanks and semicolons, or
// nothing when the text may hold more than one statement: a ";" outside
// quotes, or a ";" anywhere after what could hide one from this scan (a
// dollar quote, comment, bracket or backtick outside quotes; a backslash,
// or with `plain_backslash` (the server reads escapes only in E'...') an
// E'...' text holding one). A text with "--" ends in a line break: the
// driver may append a statement of its own to the line, which a line
// comment would swallow.
std::optional<std::string> single_statement(const std::string& sql, bool plain_backslash);

// True when `sql`, after blanks, comments and opening parentheses, starts
// with SELECT, WITH, VALUES or TABLE: a query. Other statements can change
// the session beyond a rolled-back transaction (DEALLOCATE drops the
// statements prepared for writes).
bool is_query(std::string_view sql);

// The name of an SQLite function that loads code into the process
// (load_extension, fts3_tokenizer) when `sql` names one anywhere, in any
// case; otherwise nothing.
std::optional<std::string> names_code_loader(std::string_view sql);

// True when `sql` holds the word "advisory" anywhere, in any case: it may
// call an advisory lock function of PostgreSQL (pg_advisory_lock and kin).
bool names_advisory_lock(std::string_view sql);

}  // namespace vesk::datastore::odbc_backend
