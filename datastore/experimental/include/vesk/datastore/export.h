#pragma once
// Export macro of libvesk_datastore: the library is built with hidden
// visibility; only declarations marked VESK_DATASTORE_EXPORT are visible.
#if defined(VESK_DATASTORE_BUILDING)
#define VESK_DATASTORE_EXPORT __attribute__((visibility("default")))
#else
#define VESK_DATASTORE_EXPORT
#endif

// Marks the two C entry points of an extension plugin.
#define VESK_EXTENSION_ENTRY __attribute__((visibility("default")))
