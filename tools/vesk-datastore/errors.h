#pragma once
// The tool's one kind of failure: a message for standard error and the exit
// code that goes with it.

#include <ostream>
#include <stdexcept>
#include <string>

namespace vesk::tool {

// Exit codes of every command.
enum ExitCode : int {
    kExitOk = 0,
    kExitNothing = 1,  // nothing found, or a difference
    kExitError = 2,    // bad usage, bad configuration, datastore error
};

// Thrown by the commands; main prints "vesk-datastore: " + what() and exits
// with `code`.
class ToolError : public std::runtime_error {
public:
    ToolError(int code, const std::string& message, bool datastore_failure = false,
              bool open_failure = false)
        : std::runtime_error(message),
          code(code),
          datastore_failure(datastore_failure),
          open_failure(open_failure) {}
    int code;
    // A datastore refused or failed: its own messages tell why (see -v).
    bool datastore_failure;
    // A datastore could not be opened: its own message replaces `what`.
    bool open_failure;
};

// The tool's own standard error. main points std::cerr, which the library's
// error log writes to, elsewhere while a command runs, so that a failure
// ends in one message that carries the library's reason.
std::ostream& diag();
// Sets what diag() returns (std::cerr until then).
void set_diag(std::ostream* stream);

}  // namespace vesk::tool
