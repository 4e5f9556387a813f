#pragma once
// Checks of text values before they are sent to a server.
//
// PostgreSQL text holds neither a NUL byte nor invalid UTF-8, and the ODBC
// driver passes a value with a NUL cut short while answering success. Such
// values are refused before anything is sent.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace vesk::datastore::odbc_backend {

// Empty when `text` is valid UTF-8 without NUL bytes (overlong forms,
// surrogates and code points above U+10FFFF are invalid); otherwise what is
// wrong and at which byte offset.
std::optional<std::string> text_problem(std::string_view text);

// The message for a refused value: names the row (1-based position in the
// call) and the field, and suggests base64 encoding.
std::string refused_text_message(std::size_t row, const std::string& field,
                                 const std::string& problem);

}  // namespace vesk::datastore::odbc_backend
