// A test extension library whose "create" never yields an instance.
#include "vesk/datastore/export.h"
#include "vesk/datastore/extension.h"

using vesk::datastore::DataStoreExtension;

extern "C" VESK_EXTENSION_ENTRY DataStoreExtension* create() noexcept { return nullptr; }

extern "C" VESK_EXTENSION_ENTRY void destroy(DataStoreExtension* extension) noexcept {
    delete extension;
}
