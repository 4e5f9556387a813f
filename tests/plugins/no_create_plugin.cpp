// A test extension library that exports "destroy" but lacks "create", so the
// controller must refuse it (and unload it again).
#include "vesk/datastore/export.h"
#include "vesk/datastore/extension.h"

using vesk::datastore::DataStoreExtension;

extern "C" VESK_EXTENSION_ENTRY void destroy(DataStoreExtension* extension) noexcept {
    delete extension;
}
