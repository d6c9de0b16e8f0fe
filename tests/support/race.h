// Attackers of a decision by name: processes that exchange two names in one
// directory (renameat2 RENAME_EXCHANGE), a file for a file or a directory for
// a link, either without pause or guided by what the victim does.
#pragma once

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/inotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <utility>

#include "handles.h"

namespace kzol_test {

inline void exchange(const std::string& a, const std::string& b)
{
    renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE);
}

// A child process, killed with the object.
class Attacker {
public:
    Attacker() = default;
    ~Attacker()
    {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
    }
    Attacker(const Attacker&) = delete;
    Attacker& operator=(const Attacker&) = delete;
    bool running() const { return m_pid > 0; }

protected:
    pid_t m_pid = -1;
};

// Runs `body` in a child process as user and group 65534 (nobody); the child
// is killed with the object unless waited for.
class AsNobody : public Attacker {
public:
    explicit AsNobody(const std::function<int()>& body)
    {
        m_pid = fork();
        if (m_pid == 0) {
            const bool nobody = setgroups(0, nullptr) == 0 && setresgid(65534, 65534, 65534) == 0 &&
                                setresuid(65534, 65534, 65534) == 0;
            _exit(nobody ? body() : 127);
        }
    }
    // The child's exit status once it ended; 128 if a signal ended it.
    int wait()
    {
        int status = 0;
        waitpid(std::exchange(m_pid, -1), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
    }
};

// Exchanges `a` and `b` as fast as it can.
class Swapper : public Attacker {
public:
    Swapper(const std::string& a, const std::string& b)
    {
        m_pid = fork();
        if (m_pid == 0) {
            for (;;) {
                exchange(a, b);
            }
        }
    }
};

// Exchanges `a` and `b` as soon as the file `watched` is opened, and back once
// nothing has opened or read it for `quietMs`; restored() then answers true.
class GuidedSwapper : public Attacker {
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
