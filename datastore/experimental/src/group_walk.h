#pragma once
// The walk over a group file: the definition of vesk::xml::parse_the_group_tags.
// Private to the configuration unit, which instantiates it for
// DataStoreParseUtility::ParseConfig.

#include <string>

#include <libxml/tree.h>

#include "vesk/log.h"
#include "vesk/xml.h"

namespace vesk::xml {

namespace group_walk_detail {

// Errors of the group-file walk are logged at the syslog error priority.
constexpr int kLogLevel = 3;

inline bool is_element(const xmlNode* node, const char* name) {
    return node->type == XML_ELEMENT_NODE && char_cmp_str(node->name, name);
}

// The text content of `node` ("" when it has none).
inline std::string text_of(xmlNode* node) {
    xmlChar* text = xmlNodeGetContent(node);
    std::string value = char_to_str(text);
    if (text != nullptr) xmlFree(text);
    return value;
}

// Reads the optional attribute `name`; false when it is present but empty,
// after logging `message`.
inline bool read_optional(xmlNode* node, const char* name, const char* message,
                          std::string& value) {
    if (get_attr(node, name, value) && value.empty()) {
        vesk::log::ErrorLog(__FILE__, __func__, __LINE__, kLogLevel).stream() << message;
        return false;
    }
    return true;
}

}  // namespace group_walk_detail

// Hands every <entry> of every <group> below `root`, in document order, to
// `functor` as (group path, config path, config file, entry text, out).
// Returns false at the first entry that is empty, carries an empty
// config_path or config_file attribute, or is refused by the functor; the
// entries handed over before stay in `out`. A <group> whose path attribute is
// present but empty is refused like an empty config_path.
template <typename Functor, typename Out>
bool parse_the_group_tags(xmlNode* root, Functor functor, Out& out) {
    using namespace group_walk_detail;
    if (root == nullptr) return true;
    for (xmlNode* group = root->children; group != nullptr; group = group->next) {
        if (!is_element(group, "group")) continue;
        std::string group_path;
        if (group->properties != nullptr &&
            !read_optional(group, "path", "Invalid path attribute", group_path))
            return false;
        for (xmlNode* entry = group->children; entry != nullptr; entry = entry->next) {
            if (!is_element(entry, "entry")) continue;
            const std::string entry_text = text_of(entry);
            if (entry_text.empty()) {
                vesk::log::ErrorLog(__FILE__, __func__, __LINE__, kLogLevel).stream()
                    << "empty entry tag not allowed";
                return false;
            }
            std::string config_path;
            std::string config_file;
            if (entry->properties != nullptr &&
                (!read_optional(entry, "config_path", "Invalid path attribute", config_path) ||
                 !read_optional(entry, "config_file", "Invalid file attribute", config_file)))
                return false;
            if (!functor(group_path, config_path, config_file, entry_text, out)) return false;
        }
    }
    return true;
}

}  // namespace vesk::xml
