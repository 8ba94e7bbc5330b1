// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_TORTURE_CHILD_H
#define LUMORA_COMMON_TESTS_TORTURE_CHILD_H

#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

/// A child process that runs one action. A crash, a hang or an early end of the action is then a result like any other.
///
/// The parent must have no threads and no open database when it creates a child.
class Child {
public:
    struct Ending {
        bool isOk;         ///< the action returned
        std::string text;  ///< what it returned, or how the process ended instead
    };

    /// @param action   returns a std::string.
    /// @param seconds  how long the action may take; then SIGALRM ends the process.
    template <class Action>
    explicit Child(Action action, unsigned int seconds = 20) {
        std::array<int, 2> ends{};
        if (pipe(ends.data()) != 0) {
            std::abort();
        }
        std::fflush(nullptr);
        m_process = fork();
        if (m_process < 0) {
            std::abort();
        }
        if (m_process == 0) {
            close(ends[0]);
            alarm(seconds);
            const auto run = [&]() noexcept { Write(ends[1], action()); };  // an exception must not reach the caller
            run();
            _exit(EXIT_SUCCESS);
        }
        close(ends[1]);
        m_output = ends[0];
    }
    ~Child() {
        if (m_process > 0) {
            Kill();
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t Id() const { return m_process; }

    /// Waits for the end.
    Ending Wait() {
        std::string text;
        std::array<char, 4096> buffer{};
        for (ssize_t size = 0; (size = read(m_output, buffer.data(), buffer.size())) > 0;) {
            text.append(buffer.data(), static_cast<std::size_t>(size));
        }
        const int status = Reap();
        if (WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS) {
            return {true, text};
        }
        return {false, Description(status)};
    }

    /// Ends the process with SIGKILL.
    /// @return an empty text, or how the process had ended before.
    std::string Kill() {
        kill(m_process, SIGKILL);
        const int status = Reap();
        return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL ? "" : Description(status);
    }

private:
    static void Write(int file, const std::string& text) {
        for (std::size_t done = 0; done < text.size();) {
            const ssize_t size = write(file, text.data() + done, text.size() - done);
            if (size <= 0) {
                _exit(EXIT_FAILURE);
            }
            done += static_cast<std::size_t>(size);
        }
    }

    static std::string Description(int status) {
        if (!WIFSIGNALED(status)) {
            return "ended with status " + std::to_string(WEXITSTATUS(status));
        }
        return WTERMSIG(status) == SIGALRM ? "hung" : "ended by signal " + std::to_string(WTERMSIG(status));
    }

    int Reap() {
        int status = 0;
        waitpid(std::exchange(m_process, -1), &status, 0);
        close(m_output);
        return status;
    }

    pid_t m_process = -1;
    int m_output = -1;
};

#endif  // LUMORA_COMMON_TESTS_TORTURE_CHILD_H
