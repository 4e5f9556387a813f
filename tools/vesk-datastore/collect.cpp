#include "collect.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <signal.h>
#include <sstream>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "vesk/datastore/vocabulary.h"
#include "vesk/str.h"

#include "errors.h"
#include "validate.h"

namespace vesk::tool {

bool valid_provider_name(const std::string& name) {
    if (name.empty() || name.size() > size_t(vesk::datastore::max_provider_size)) return false;
    for (unsigned char c : name)
        if (!std::isalnum(c) && std::strchr("._:+-", c) == nullptr) return false;
    return true;
}

namespace {

ProviderCommand shell_provider(std::string name, std::string command, double timeout = 10) {
    ProviderCommand provider;
    provider.name = std::move(name);
    provider.argv = {"/bin/sh", "-c", std::move(command)};
    provider.timeout = timeout;
    return provider;
}

}  // namespace

std::vector<ProviderCommand> default_providers() {
    return {
        shell_provider("uname", "uname -a"),
        shell_provider("kernel", "cat /proc/version"),
        shell_provider("os", "cat /etc/os-release"),
        shell_provider("cpu", "lscpu 2>/dev/null || cat /proc/cpuinfo"),
        shell_provider("memory", "free -k 2>/dev/null || cat /proc/meminfo"),
        shell_provider("disks", "df -P -k -x tmpfs -x devtmpfs -x overlay 2>/dev/null || df -P -k"),
        shell_provider("network", "ip -o address show 2>/dev/null || cat /proc/net/dev"),
        shell_provider("uptime", "cat /proc/uptime"),
    };
}

std::vector<ProviderCommand> read_provider_file(const std::string& path) {
    std::ifstream in(path);
    if (!in)
        throw ToolError(kExitError,
                        "cannot read provider file " + path + ": " + std::strerror(errno));
    // A folder opens, and its first read fails.
    struct stat info {};
    if (::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode))
        throw ToolError(kExitError,
                        "cannot read provider file " + path + ": " + std::strerror(EISDIR));
    std::vector<ProviderCommand> providers;
    size_t number = 0;
    for (std::string line; std::getline(in, line);) {
        ++number;
        const std::string text = vesk::str::stripws(line);
        if (text.empty() || text[0] == '#') continue;
        auto bad = [&](const std::string& why) {
            return ToolError(kExitError, path + ":" + std::to_string(number) + ": " + why);
        };
        const size_t colon = text.find(" :");
        const size_t split = colon != std::string::npos ? colon + 1 : text.find(':');
        if (split == std::string::npos) throw bad("expected \"NAME [key=value ...] : COMMAND\"");
        const std::string command = vesk::str::stripws(text.substr(split + 1));
        std::istringstream head(text.substr(0, split));
        std::string name;
        head >> name;
        if (!valid_provider_name(name))
            throw bad("provider: \"" + name + "\" is not 1 to " +
                      std::to_string(vesk::datastore::max_provider_size) +
                      " letters, digits and \"._:+-\"");
        if (command.empty()) throw bad("provider " + name + " has no command");
        ProviderCommand provider = shell_provider(name, command);
        for (std::string item; head >> item;) {
            const size_t eq = item.find('=');
            const std::string key = item.substr(0, eq);
            const std::string value = eq == std::string::npos ? "" : item.substr(eq + 1);
            if (key == "timeout") {
                char* end = nullptr;
                provider.timeout = std::strtod(value.c_str(), &end);
                if (value.empty() || *end != '\0')
                    throw bad("timeout: \"" + value + "\" is not a number");
                if (const std::string problem = timeout_problem(provider.timeout); !problem.empty())
                    throw bad("timeout: " + value + " " + problem);
            } else if (key == "option") {
                const std::string problem = name_problem(
                    value, size_t(vesk::datastore::max_option_id_size), "max_option_id_size");
                if (!problem.empty()) throw bad("option: \"" + value + "\" " + problem);
                provider.option_id = value;
            } else {
                throw bad("unknown setting \"" + item + "\"");
            }
        }
        for (const auto& other : providers)
            if (other.name == name && other.option_id == provider.option_id)
                throw bad("provider " + name + " is listed twice");
        providers.push_back(std::move(provider));
    }
    if (in.bad())
        throw ToolError(kExitError, "cannot read provider file " + path + " after line " +
                                        std::to_string(number) + ": " + std::strerror(errno));
    return providers;
}

namespace {

using Clock = std::chrono::steady_clock;

// One running provider.
struct Job {
    size_t index = 0;
    pid_t pid = -1;
    int out_fd = -1;
    int err_fd = -1;
    bool exited = false;
    int wait_status = 0;
    Clock::time_point started;
    Clock::time_point deadline;
};

void close_fd(int& fd) {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

// Starts `provider` with its outputs on two pipes. A command that cannot be
// executed reports why on its standard error and exits with 127.
Job start(const ProviderCommand& provider, size_t index) {
    int out_pipe[2];
    int err_pipe[2];
    if (::pipe2(out_pipe, O_CLOEXEC) != 0)
        throw ToolError(kExitError, std::string("cannot create a pipe: ") + std::strerror(errno));
    if (::pipe2(err_pipe, O_CLOEXEC) != 0) {
        ::close(out_pipe[0]);
        ::close(out_pipe[1]);
        throw ToolError(kExitError, std::string("cannot create a pipe: ") + std::strerror(errno));
    }
    std::vector<char*> argv;
    for (const auto& arg : provider.argv) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);

    Job job;
    job.index = index;
    job.started = Clock::now();
    job.deadline = job.started + std::chrono::duration_cast<Clock::duration>(
                                     std::chrono::duration<double>(provider.timeout));
    const pid_t pid = ::fork();
    if (pid < 0) {
        for (int fd : {out_pipe[0], out_pipe[1], err_pipe[0], err_pipe[1]}) ::close(fd);
        throw ToolError(kExitError,
                        std::string("cannot start a provider: ") + std::strerror(errno));
    }
    if (pid == 0) {
        // Child: only async-signal-safe calls from here on.
        ::setpgid(0, 0);
        ::signal(SIGPIPE, SIG_DFL);
        const int null_fd = ::open("/dev/null", O_RDONLY);
        if (null_fd >= 0) ::dup2(null_fd, STDIN_FILENO);
        ::dup2(out_pipe[1], STDOUT_FILENO);
        ::dup2(err_pipe[1], STDERR_FILENO);
        ::execvp(argv[0], argv.data());
        const int error = errno;
        const char* prefix = "vesk-datastore: cannot run ";
        const char* reason = ::strerror(error);
        ssize_t ignored = ::write(STDERR_FILENO, prefix, std::strlen(prefix));
        ignored = ::write(STDERR_FILENO, argv[0], std::strlen(argv[0]));
        ignored = ::write(STDERR_FILENO, ": ", 2);
        ignored = ::write(STDERR_FILENO, reason, std::strlen(reason));
        ignored = ::write(STDERR_FILENO, "\n", 1);
        (void)ignored;
        ::_exit(kNotStartedStatus);
    }
    ::setpgid(pid, pid);  // also from here, so the group exists before any kill
    ::close(out_pipe[1]);
    ::close(err_pipe[1]);
    job.pid = pid;
    job.out_fd = out_pipe[0];
    job.err_fd = err_pipe[0];
    ::fcntl(job.out_fd, F_SETFL, O_NONBLOCK);
    ::fcntl(job.err_fd, F_SETFL, O_NONBLOCK);
    return job;
}

// Reads what is available; closes the descriptor at end of file. True
// when bytes beyond `max_output` were dropped.
bool drain(int& fd, std::string& into, size_t max_output) {
    char buffer[65536];
    bool cut = false;
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n > 0) {
            const size_t room = into.size() < max_output ? max_output - into.size() : 0;
            into.append(buffer, std::min(room, size_t(n)));
            cut = cut || room < size_t(n);
            continue;
        }
        if (n == 0) close_fd(fd);
        if (n < 0 && errno == EINTR) continue;
        return cut;  // EAGAIN: nothing more for now
    }
}

int64_t now_seconds() {
    timeval tv{};
    ::gettimeofday(&tv, nullptr);
    return tv.tv_sec;
}

}  // namespace

std::vector<ProviderResult> run_providers(const std::vector<ProviderCommand>& providers,
                                          size_t jobs, size_t max_output,
                                          const ProgressFn& progress) {
    std::vector<ProviderResult> results(providers.size());
    std::vector<Job> running;
    size_t next = 0;
    size_t done = 0;
    if (jobs == 0) jobs = 1;

    auto report = [&] {
        if (!progress) return;
        std::vector<std::string> names;
        for (const auto& job : running) names.push_back(providers[job.index].name);
        progress(done, providers.size(), names);
    };
    auto finish = [&](Job& job) {
        auto& result = results[job.index];
        result.duration = std::chrono::duration<double>(Clock::now() - job.started).count();
        if (result.timed_out) {
            result.exit_status = kTimeoutStatus;
            std::ostringstream note;
            note << (result.std_err.empty() || result.std_err.back() == '\n' ? "" : "\n")
                 << "vesk-datastore: provider timed out after " << providers[job.index].timeout
                 << " s and was killed\n";
            result.std_err += note.str();
        } else if (WIFEXITED(job.wait_status)) {
            result.exit_status = WEXITSTATUS(job.wait_status);
        } else if (WIFSIGNALED(job.wait_status)) {
            const int sig = WTERMSIG(job.wait_status);
            result.exit_status = 128 + sig;
            result.std_err +=
                std::string(result.std_err.empty() || result.std_err.back() == '\n' ? "" : "\n") +
                "vesk-datastore: provider killed by signal " + std::to_string(sig) + " (" +
                ::strsignal(sig) + ")\n";
        }
        ++done;
    };

    while (next < providers.size() || !running.empty()) {
        bool changed = false;
        while (next < providers.size() && running.size() < jobs) {
            auto& result = results[next];
            result.name = providers[next].name;
            result.option_id = providers[next].option_id;
            result.start = now_seconds();
            running.push_back(start(providers[next], next));
            ++next;
            changed = true;
        }
        if (changed) report();

        // Wait for output, an exit or the nearest deadline.
        std::vector<pollfd> fds;
        std::vector<std::pair<size_t, int*>> owners;  // job position, descriptor
        auto nearest = Clock::time_point::max();
        for (size_t j = 0; j < running.size(); ++j) {
            for (int* fd : {&running[j].out_fd, &running[j].err_fd}) {
                if (*fd < 0) continue;
                fds.push_back({*fd, POLLIN, 0});
                owners.push_back({j, fd});
            }
            nearest = std::min(nearest, running[j].deadline);
        }
        // Exits are noticed by polling waitpid: a short wait while a
        // provider has closed its outputs but not exited yet.
        int wait_ms =
            int(std::chrono::duration_cast<std::chrono::milliseconds>(nearest - Clock::now())
                    .count()) +
            1;
        if (wait_ms < 0) wait_ms = 0;
        const bool outputs_closed = fds.size() < running.size() * 2;
        if (outputs_closed) wait_ms = std::min(wait_ms, 10);
        wait_ms = std::min(wait_ms, 250);
        const int ready = ::poll(fds.data(), fds.size(), wait_ms);
        if (ready < 0 && errno != EINTR)
            throw ToolError(kExitError, std::string("poll failed: ") + std::strerror(errno));
        for (size_t k = 0; ready > 0 && k < fds.size(); ++k) {
            if (fds[k].revents == 0) continue;
            Job& job = running[owners[k].first];
            auto& result = results[job.index];
            if (drain(*owners[k].second,
                      owners[k].second == &job.out_fd ? result.std_out : result.std_err,
                      max_output))
                result.output_cut = true;
        }

        const auto now = Clock::now();
        bool finished_any = false;
        for (size_t j = 0; j < running.size();) {
            Job& job = running[j];
            auto& result = results[job.index];
            if (!job.exited) {
                const pid_t r = ::waitpid(job.pid, &job.wait_status, WNOHANG);
                if (r == job.pid) job.exited = true;
            }
            if (job.exited) {
                // The provider is gone; what its outputs still hold is read
                // now, and a lingering child of it is not waited for.
                if (job.out_fd >= 0 && drain(job.out_fd, result.std_out, max_output))
                    result.output_cut = true;
                if (job.err_fd >= 0 && drain(job.err_fd, result.std_err, max_output))
                    result.output_cut = true;
                if ((job.out_fd >= 0 || job.err_fd >= 0) && now < job.deadline) {
                    ++j;
                    continue;
                }
                if (job.out_fd >= 0 || job.err_fd >= 0) ::kill(-job.pid, SIGKILL);
            } else if (now >= job.deadline) {
                ::kill(-job.pid, SIGKILL);
                ::kill(job.pid, SIGKILL);
                while (::waitpid(job.pid, &job.wait_status, 0) < 0 && errno == EINTR) {
                }
                job.exited = true;
                result.timed_out = true;
                if (job.out_fd >= 0 && drain(job.out_fd, result.std_out, max_output))
                    result.output_cut = true;
                if (job.err_fd >= 0 && drain(job.err_fd, result.std_err, max_output))
                    result.output_cut = true;
            } else {
                ++j;
                continue;
            }
            close_fd(job.out_fd);
            close_fd(job.err_fd);
            finish(job);
            running.erase(running.begin() + std::ptrdiff_t(j));
            finished_any = true;
        }
        if (finished_any) report();
    }
    return results;
}

}  // namespace vesk::tool
