// Runs the kwz tool as a child process for the tool's smoke tests: one call
// to completion (Run), or a server left running until it is interrupted
// (Background).  Every wait is bounded.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace kwztest {

struct ToolResult {
    int rc = -1;  // the exit status; 128 + signal when killed
    std::string out, err;
};

class ToolProcess {
public:
    // Starts tool with args in directory cwd, stdin fed from input.
    ToolProcess(const std::string& tool, const std::vector<std::string>& args, const std::string& cwd,
                const std::string& input) {
        ::signal(SIGPIPE, SIG_IGN);
        int in[2], out[2], err[2];
        if (::pipe(in) != 0 || ::pipe(out) != 0 || ::pipe(err) != 0) return;
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(in[0], 0);
            ::dup2(out[1], 1);
            ::dup2(err[1], 2);
            for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1]}) ::close(fd);
            if (!cwd.empty() && ::chdir(cwd.c_str()) != 0) ::_exit(126);
            std::vector<char*> argv{const_cast<char*>(tool.c_str())};
            for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
            argv.push_back(nullptr);
            ::execv(tool.c_str(), argv.data());
            ::_exit(127);
        }
        ::close(in[0]);
        ::close(out[1]);
        ::close(err[1]);
        if (!input.empty() && ::write(in[1], input.data(), input.size()) < 0) {
            // the child did not read its input; its output tells the test
        }
        ::close(in[1]);
        fds_[0] = out[0];
        fds_[1] = err[0];
    }
    ~ToolProcess() {
        if (pid_ > 0 && !reaped_) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        for (int fd : fds_)
            if (fd >= 0) ::close(fd);
    }
    ToolProcess(const ToolProcess&) = delete;
    ToolProcess& operator=(const ToolProcess&) = delete;

    // Reads output until stdout contains text or timeoutMs pass.
    bool WaitFor(const std::string& text, int timeoutMs) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (result_.out.find(text) == std::string::npos) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
            if (left.count() <= 0 || !Pump(int(left.count()))) return result_.out.find(text) != std::string::npos;
        }
        return true;
    }
    const std::string& Out() const { return result_.out; }

    // Sends sig (none: 0), reads the rest and waits for the exit, killing
    // the child after timeoutMs.
    ToolResult Finish(int sig, int timeoutMs) {
        if (sig && pid_ > 0) ::kill(pid_, sig);
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        for (;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
            if (left.count() <= 0) {
                ::kill(pid_, SIGKILL);
                result_.err += "\n[killed after the time-out]";
                break;
            }
            if (!Pump(int(left.count()))) break;
        }
        int status = 0;
        if (pid_ > 0 && ::waitpid(pid_, &status, 0) == pid_) {
            result_.rc = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            reaped_ = true;
        }
        return result_;
    }

private:
    // One poll of both pipes; false once both are closed or on time-out.
    bool Pump(int timeoutMs) {
        pollfd p[2];
        nfds_t n = 0;
        for (int i = 0; i < 2; ++i)
            if (fds_[i] >= 0) p[n++] = pollfd{fds_[i], POLLIN, 0};
        if (n == 0 || ::poll(p, n, timeoutMs) <= 0) return false;
        for (nfds_t k = 0; k < n; ++k) {
            if (!(p[k].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            const int which = p[k].fd == fds_[0] ? 0 : 1;
            char buf[65536];
            const ssize_t got = ::read(p[k].fd, buf, sizeof buf);
            if (got <= 0) {
                ::close(fds_[which]);
                fds_[which] = -1;
            } else {
                (which == 0 ? result_.out : result_.err).append(buf, size_t(got));
            }
        }
        return true;
    }

    pid_t pid_ = -1;
    bool reaped_ = false;
    int fds_[2] = {-1, -1};
    ToolResult result_;
};

inline ToolResult RunTool(const std::string& tool, const std::vector<std::string>& args, const std::string& cwd = "",
                          const std::string& input = "", int timeoutMs = 60000) {
    ToolProcess p(tool, args, cwd, input);
    return p.Finish(0, timeoutMs);
}

// The whole content of a file, "" when it cannot be read.
inline std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A scratch directory, removed with its files at the end.
struct ScratchDir {
    std::string path;
    ScratchDir() {
        char name[] = "/tmp/kwz_tool_XXXXXX";
        path = ::mkdtemp(name) ? name : "";
    }
    ~ScratchDir() {
        if (!path.empty()) std::system(("rm -rf '" + path + "'").c_str());
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
    std::string operator/(const std::string& file) const { return path + "/" + file; }
};

}  // namespace kwztest
