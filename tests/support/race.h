// Child processes of the tests, and attackers of a decision by name among
// them: processes that exchange two names in one directory (renameat2
// RENAME_EXCHANGE), a file for a file or a directory for a link, either
// without pause or guided by what the victim does.
#pragma once

#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/inotify.h>

#include "handles.h"
#include "test_support.h"

namespace kzol_test {

inline void exchange(const std::string& a, const std::string& b)
{
    renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE);
}

// A child process that runs `body` and ends, killed with the object unless it
// ended first.
class Child {
public:
    Child() = default;
    explicit Child(const std::function<void()>& body)
    {
        m_pid = fork();
        if (m_pid == 0) {
            body();
            _exit(127);
        }
    }
    ~Child() { stop(SIGKILL); }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    Child(Child&& other) noexcept : m_pid(std::exchange(other.m_pid, -1)) {}
    bool running() const { return m_pid > 0; }
    pid_t pid() const { return m_pid; }
    // Waits up to `seconds` for the child's end: its exit status, 200 + the
    // signal that ended it, or -1 while it still runs.
    int wait(int seconds = 600)
    {
        int status = 0;
        for (int waited = 0; m_pid > 0 && waited <= seconds * 100; ++waited) {
            if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
                m_pid = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : 200 + WTERMSIG(status);
            }
            usleep(10000);
        }
        return -1;
    }
    // Sends `signal` and waits (up to ten seconds) as wait() does.
    int stop(int signal) { return m_pid > 0 && kill(m_pid, signal) == 0 ? wait(10) : -1; }

protected:
    pid_t m_pid = -1;
};
using Attacker = Child;

// Runs `body` in a child process as user and group 65534 (nobody); its answer
// is the child's exit status.
class AsNobody : public Child {
public:
    explicit AsNobody(const std::function<int()>& body)
        : Child([&body] {
              const bool nobody = setgroups(0, nullptr) == 0 && setresgid(65534, 65534, 65534) == 0 &&
                                  setresuid(65534, 65534, 65534) == 0;
              _exit(nobody ? body() : 127);
          })
    {
    }
};

// Exchanges `a` and `b` as fast as it can.
class Swapper : public Child {
public:
    Swapper(const std::string& a, const std::string& b)
        : Child([&a, &b] {
              for (;;) {
                  exchange(a, b);
              }
          })
    {
    }
};

// Exchanges `a` and `b` as soon as the file `watched` is opened, and back once
// nothing has opened or read it for `quietMs`; restored() then answers true.
class GuidedSwapper : public Child {
public:
    GuidedSwapper(const std::string& watched, const std::string& a, const std::string& b, int quietMs = 5)
    {
        int ends[2] = {-1, -1};
        const UniqueFd events(inotify_init1(IN_CLOEXEC));
        if (!events || inotify_add_watch(events.get(), watched.c_str(), IN_OPEN | IN_ACCESS) < 0 ||
            pipe2(ends, O_CLOEXEC) != 0) {
            return;
        }
        m_restored.reset(ends[0]);
        const UniqueFd done(ends[1]);
        m_pid = fork();
        if (m_pid != 0) {
            return;
        }
        alignas(inotify_event) char buffer[4096];
        for (;;) {
            const ssize_t n = read(events.get(), buffer, sizeof(buffer));
            bool opened = false;
            for (ssize_t at = 0; at < n;) {
                const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
                opened = opened || (event->mask & IN_OPEN) != 0;
                at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            }
            if (!opened) {
                continue;
            }
            exchange(a, b);
            pollfd entry{events.get(), POLLIN, 0};
            while (poll(&entry, 1, quietMs) == 1 && read(events.get(), buffer, sizeof(buffer)) > 0) {}
            exchange(a, b);
            (void)write(done.get(), "", 1);
        }
    }
    // Waits (up to five seconds) until the names are back after an attack.
    bool restored()
    {
        pollfd entry{m_restored.get(), POLLIN, 0};
        char byte = 0;
        return poll(&entry, 1, 5000) == 1 && read(m_restored.get(), &byte, 1) == 1;
    }

private:
    UniqueFd m_restored;
};

}  // namespace kzol_test
