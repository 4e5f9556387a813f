#include "vesk/xml.h"

#include <libxml/tree.h>

namespace vesk::xml {

bool get_attr(xmlNode* node, const std::string& name, std::string& value) {
    if (node == nullptr) return false;
    xmlAttr* attr = xmlHasProp(node, reinterpret_cast<const xmlChar*>(name.c_str()));
    if (attr == nullptr) return false;
    xmlChar* text = xmlNodeListGetString(node->doc, attr->children, 1);
    value = char_to_str(text);
    if (text != nullptr) xmlFree(text);
    return true;
}

std::string get_str(xmlNode* node, const std::string& name, const std::string& fallback) {
    std::string value;
    return get_attr(node, name, value) ? value : fallback;
}

bool char_cmp_str(const unsigned char* xml_text, const std::string& text) {
    if (xml_text == nullptr) return false;
    return text == reinterpret_cast<const char*>(xml_text);
}

std::string char_to_str(const unsigned char* xml_text) {
    if (xml_text == nullptr) return std::string();
    return std::string(reinterpret_cast<const char*>(xml_text));
}

}  // namespace vesk::xml
