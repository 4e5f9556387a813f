#pragma once
// Parameter strings handed to an extension's open ("key=value" items joined
// by "|", keys "source" and "read_only"), a string map that holds such
// parameters, and two small list helpers. Stateless functions; a
// ParameterPack is not thread-safe.

#include <memory>
#include <string>
#include <vector>

#include "vesk/datastore/export.h"

namespace vesk::datastore {

// String-to-string map with shared contents: copies share one map.
class VESK_DATASTORE_EXPORT ParameterPack {
public:
    ParameterPack();
    // The value under `key`, inserted empty when absent.
    std::string& operator[](const std::string& key);
    // Same as operator[]: a missing key is inserted, even through const.
    std::string& const_lookup(const std::string& key) const;

    class Impl;

private:
    std::shared_ptr<Impl> impl_;
};

}  // namespace vesk::datastore

// Reads "source" and "read_only" (exactly "true" means read-only) from a
// parameter string; other keys are ignored and the last of a repeated key
// wins. False for an item that is not exactly one key "=" value; outputs set
// before it stay set.
VESK_DATASTORE_EXPORT bool parse_sqlite_params(const std::string& parameters, std::string& source,
                                               bool& read_only);

// True when `item` equals an element of `list` (exact, case-sensitive).
VESK_DATASTORE_EXPORT bool in(const std::vector<std::string>& list, const std::string& item);

// True when every element of `items` is in `list` (true for empty `items`).
VESK_DATASTORE_EXPORT bool in(const std::vector<std::string>& list,
                              const std::vector<std::string>& items);

// The elements of `list` not in `remove`, in order, duplicates kept.
VESK_DATASTORE_EXPORT std::vector<std::string> prune(const std::vector<std::string>& list,
                                                     const std::vector<std::string>& remove);
