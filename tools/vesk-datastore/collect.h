#pragma once
// Data providers and their parallel runner for `collect`.
//
// Provider file format (plain text, one provider per line):
//
//     # comment
//     NAME [timeout=SECONDS] [option=OPTION_ID] : COMMAND
//
// NAME is 1 to 64 characters of letters, digits and "._:+-"; COMMAND runs
// through /bin/sh -c. Blank lines and lines starting with "#" are skipped.

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace vesk::tool {

struct ProviderCommand {
    std::string name;
    std::vector<std::string> argv;  // run as it stands (execvp)
    std::string option_id;
    double timeout = 10;  // seconds
};

struct ProviderResult {
    std::string name;
    std::string option_id;
    std::string std_out;
    std::string std_err;
    int exit_status = 0;  // the exit code; 128 + signal; 124 on timeout
    int64_t start = 0;    // seconds since the epoch
    double duration = 0;  // seconds
    bool timed_out = false;
    bool output_cut = false;  // an output passed max_output and was cut there
};

// Exit status recorded for a provider killed at its timeout.
constexpr int kTimeoutStatus = 124;
// Exit status recorded for a command that could not be started.
constexpr int kNotStartedStatus = 127;

// True for a usable provider name (see the file format above).
bool valid_provider_name(const std::string& name);

// The built-in set that describes this host: uname, kernel, os, cpu,
// memory, disks, network, uptime.
std::vector<ProviderCommand> default_providers();

// Reads a provider file. Throws ToolError (exit 2) naming the file and line.
std::vector<ProviderCommand> read_provider_file(const std::string& path);

// Called when a provider starts or ends: providers done, total, names running.
using ProgressFn = std::function<void(size_t done, size_t total, const std::vector<std::string>&)>;

// Runs the providers, at most `jobs` at a time, each in its own process
// group with standard input from /dev/null, and kills a provider (and its
// group) at its timeout. Results follow the order of `providers`. Outputs
// beyond `max_output` bytes per stream are cut (output_cut).
std::vector<ProviderResult> run_providers(const std::vector<ProviderCommand>& providers,
                                          size_t jobs, size_t max_output,
                                          const ProgressFn& progress);

}  // namespace vesk::tool
