// A test extension library that exports "create" but lacks "destroy", so the
// controller must refuse it (and unload it again).
#include "vesk/datastore/export.h"
#include "vesk/datastore/extension.h"

using vesk::datastore::DataStoreExtension;

// Never called: the library is rejected before any instance is created.
extern "C" VESK_EXTENSION_ENTRY DataStoreExtension* create() noexcept { return nullptr; }
