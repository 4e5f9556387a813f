// Sanitizer settings of the ODBC test programs (read only by sanitizer
// builds; ordinary builds never call these functions).
//
// psqlODBC 13.02 keeps a copy of the ConnSettings text made during
// SQLDriverConnect and never frees it (5 bytes for "UTF8" per connection);
// that is the driver's own leak, so it is suppressed, and only there. The
// driver has no frame pointers: full stacks (slow unwinding) are needed for
// the suppression to see the SQLDriverConnect frame, and they keep the
// suppression from hiding anything allocated elsewhere.

// Visible: the sanitizer runtime looks these up in the program at start-up.
#define VESK_SANITIZER_HOOK extern "C" __attribute__((visibility("default"), used))

VESK_SANITIZER_HOOK const char* __lsan_default_suppressions() { return "leak:SQLDriverConnect\n"; }

VESK_SANITIZER_HOOK const char* __asan_default_options() { return "fast_unwind_on_malloc=0"; }
