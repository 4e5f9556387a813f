#pragma once
// Small helpers over libxml2 element nodes. The libxml2 headers are not
// needed by users of this header: xmlNode is only pointed to.

#include <string>

#include "vesk/generic_export.h"

struct _xmlNode;
typedef struct _xmlNode xmlNode;

namespace vesk::xml {

// True when `node` carries the attribute `name`, its text then in `value`;
// false (and `value` unchanged) otherwise. A present, empty attribute is true.
VESK_GENERIC_EXPORT bool get_attr(xmlNode* node, const std::string& name, std::string& value);

// The attribute's text, or `fallback` when `node` has no such attribute.
VESK_GENERIC_EXPORT std::string get_str(xmlNode* node, const std::string& name,
                                        const std::string& fallback);

// True when the libxml2 text equals `text` exactly; false for a null pointer.
VESK_GENERIC_EXPORT bool char_cmp_str(const unsigned char* xml_text, const std::string& text);

// The libxml2 text as a string; a null pointer gives "".
VESK_GENERIC_EXPORT std::string char_to_str(const unsigned char* xml_text);

// Walks a group file below `root`, handing every entry to `functor`
// (defined by the user of the walk; see the datastore configuration parser).
template <typename Functor, typename Out>
bool parse_the_group_tags(xmlNode* root, Functor functor, Out& out);

}  // namespace vesk::xml
