#pragma once
// Stream-style log record: build one per message, write the text into
// stream(), and the message is emitted when the record is destroyed, to
// standard error (LOG_OUTPUT 0) or to the system log (any other value),
// unless its level is greater than LOG_LEVEL. The text is written exactly as
// given: no time, level or source location is added.
//
// LOG_LEVEL (default 4) and LOG_OUTPUT (default 0) exist once per process,
// in libvesk_generic; VESK_LOG_LEVEL and VESK_LOG_OUTPUT override them when
// the library is loaded. Records are not shared between threads.

#include <iostream>
#include <sstream>
#include <string>
#include <syslog.h>

#include "vesk/generic_export.h"

extern "C" void __syslog_chk(int priority, int flag, const char* format, ...);

namespace vesk::log {

// Messages whose level is greater than this are dropped.
extern VESK_GENERIC_EXPORT int LOG_LEVEL;
// 0: standard error; anything else: the system log.
extern VESK_GENERIC_EXPORT int LOG_OUTPUT;

class ErrorLog {
public:
    // `file`, `function` and `line` are accepted for the caller's
    // convenience and deliberately not printed; `level` is also the syslog
    // priority.
    ErrorLog(const char* /*file*/, const char* /*function*/, unsigned int /*line*/, int level)
        : level(level) {}
    ErrorLog(const ErrorLog&) = delete;
    ErrorLog& operator=(const ErrorLog&) = delete;

    // The stream that collects the message text.
    std::ostream& stream() { return text_; }

    // Emits the message; never throws (called at the end of every scope).
    ~ErrorLog() {
        if (level > LOG_LEVEL) return;
        try {
            const std::string text = text_.str();
            if (LOG_OUTPUT == 0) {
                std::cerr << text << "\n";
            } else {
                // The text is an argument, never the format.
                __syslog_chk(level, 1, "%s\n", text.c_str());
            }
        } catch (...) {
        }
    }

private:
    std::stringstream text_;
    int level;
};

}  // namespace vesk::log
