#pragma once
// Text helpers of the command-line tool: UTF-8 validation, base64, and the
// decoding of stored output texts. Stateless.

#include <string>
#include <string_view>

namespace vesk::tool {

// True when `text` is well-formed UTF-8 (no overlong forms, no surrogates).
bool is_valid_utf8(std::string_view text);

// Standard base64 (RFC 4648 alphabet, "=" padding, no line breaks).
std::string base64_encode(std::string_view bytes);

// Decodes standard base64; blanks and line breaks are skipped. False, with
// `out` unspecified, for any other character or a bad length.
bool base64_decode(std::string_view text, std::string& out);

// A stored output text in readable form: base64-decoded when `encoding` is
// the base64 encoding and the text decodes, unchanged otherwise.
std::string decode_output(const std::string& text, int encoding);

}  // namespace vesk::tool
