#pragma once
// Export macro of libvesk_generic: the library is built with hidden
// visibility, and only declarations marked VESK_GENERIC_EXPORT are visible.
#if defined(VESK_GENERIC_BUILDING)
#define VESK_GENERIC_EXPORT __attribute__((visibility("default")))
#else
#define VESK_GENERIC_EXPORT
#endif
