// SPDX-License-Identifier: Apache-2.0
//
// Calls every public function while memory runs out: its n-th allocation fails, once, and then for good, for n = 1, 2,
// ... until the call needs fewer allocations. The short form leaves out some n above 20. Then allocations fail by
// chance. After each call the case demands what the header promises, nothing may be leaked, and no lock may be taken.

#include <fcntl.h>
#include <glib.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <thread>

#include "MemoryCases.h"
#include "SystemLog.h"
#include "Torture.h"

namespace {

constexpr unsigned int kBoundSeconds = 30;  ///< for one try, with all that follows it
constexpr int kShownProblems = 3;           ///< of one case

std::mutex g_logMutex;
constexpr std::size_t kKeptLines = 32;
char g_lines[kKeptLines][200];  ///< the last lines; guarded by g_logMutex
int g_logged = 0;               ///< guarded by g_logMutex

char g_current[300];  ///< what is being tried, for the handler of SIGALRM

/// Names the try that hangs or ends the process.
void OnFatalSignal(int signal) {
    constexpr char kEnds[] = "NOT AS PROMISED: hangs or ends the process: ";
    [[maybe_unused]] ssize_t written = write(STDERR_FILENO, kEnds, sizeof(kEnds) - 1);
    written = write(STDERR_FILENO, g_current, std::strlen(g_current));
    written = write(STDERR_FILENO, "\n", 1);
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

struct Result {
    std::string problem;  ///< empty if everything was as promised
    bool isUntouched = false;
    bool hasAborted = false;
};

std::string Describe(const Case& tried, const Allocations::Plan& plan) {
    std::string how = "without a failure";
    if (plan.permille > 0) {
        how = std::to_string(plan.permille) + " in 1000 fail, seed " + std::to_string(plan.seed);
    } else if (plan.failAt > 0) {
        how = "allocation " + std::to_string(plan.failAt) + (plan.isForGood ? " and all later ones fail" : " fails");
    }
    return std::string(tried.function) + ": " + how;
}

/// Tries again when blocks are left: what is kept for the next call is not allocated every time. The C library keeps
/// the stacks of up to five ended threads, one or more after each try.
Result TryHere(const Case& tried, const Allocations::Plan& plan) {
    constexpr int kAttempts = 8;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        const long before = Allocations::Live();
        Result result;
        {
            MemoryLog::Clear();
            Try attempted(plan);
            tried.body(attempted);
            result.problem = attempted.Problem();
            result.isUntouched = attempted.IsUntouched();
        }
        if (!result.problem.empty() || Allocations::Live() <= before) {
            return result;
        }
    }
    return {"leaks", false, false};
}

std::string ReadAll(int descriptor) {
    std::string text;
    char buffer[4096];
    for (ssize_t count = read(descriptor, buffer, sizeof(buffer)); count > 0;
         count = read(descriptor, buffer, sizeof(buffer))) {
        text.append(buffer, static_cast<std::size_t>(count));
    }
    close(descriptor);
    return text;
}

[[noreturn]] void RunChild(const Case& tried, const Allocations::Plan& plan, int results, int errors) {
    const rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    dup2(errors, STDERR_FILENO);
    alarm(kBoundSeconds);
    const Result result = TryHere(tried, plan);
    const std::string text = (result.isUntouched ? "1" : "0") + result.problem;
    const bool isWritten = write(results, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    _exit(isWritten ? 0 : 1);
}

/// Tries in a child process, which may end with the case's assertion.
Result TryInChild(const Case& tried, const Allocations::Plan& plan) {
    int results[2];
    int errors[2];
    if (pipe2(results, O_CLOEXEC) != 0 || pipe2(errors, O_CLOEXEC) != 0) {
        return {"no pipe", true, false};
    }
    const pid_t child = fork();
    if (child == 0) {
        RunChild(tried, plan, results[1], errors[1]);
    }
    close(results[1]);
    close(errors[1]);
    const std::string error = ReadAll(errors[0]);
    const std::string text = ReadAll(results[0]);
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0 && !text.empty()) {
        if (plan.isShown) {
            std::fputs(error.c_str(), stderr);
        }
        return {text.substr(1), text[0] == '1', false};
    }
    // Without any memory the C library cannot print the expression.
    const bool isStated = WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT && *tried.assertion != '\0' &&
                          (error.find("Assertion `" + std::string(tried.assertion) + "' failed") != std::string::npos ||
                           (plan.isForGood && error.compare(0, 18, "Unexpected error.\n") == 0));
    return {isStated ? "" : "ends the process: " + error + text, false, isStated};
}

class MemoryTorture {
public:
    explicit MemoryTorture(Torture& torture) : m_torture(torture) {}

    /// Tries a case with every number of the allocation that fails.
    void TryEveryNumber(const Case& tried) {
        m_problems = 0;
        m_aborts = 0;
        Run(tried, {});  // allocates what is kept for later calls
        for (const bool isForGood : {false, true}) {
            Allocations::Plan plan;
            plan.isForGood = isForGood;
            do {
                // The short form takes a sample of the later ones.
                plan.failAt += m_torture.IsLong() ? 1 : 1 + plan.failAt / 20;
            } while (!Run(tried, plan));
        }
        if (tried.assertion != nullptr && *tried.assertion != '\0' && m_aborts == 0) {
            m_torture.Count(false, std::string(tried.function) + ": never failed the stated assertion");
        }
        std::printf("%6ld  %s\n", m_tries, tried.function);
        m_tries = 0;
    }

    /// The chance depends on the seed, the function and the round alone, so that `--only` repeats it.
    void TryByChance(const Case& tried, int round) {
        const std::size_t mixed = std::hash<std::string>()(tried.function + std::to_string(round)) + m_torture.Seed();
        std::mt19937 random(static_cast<std::uint32_t>(mixed));
        Allocations::Plan plan;
        plan.permille = std::uniform_int_distribution<>(5, 300)(random);
        plan.seed = static_cast<std::uint32_t>(random());
        m_problems = 0;
        Run(tried, plan);
    }

private:
    /// @return true when no allocation failed.
    bool Run(const Case& tried, Allocations::Plan plan) {
        const std::string what = Describe(tried, plan);
        std::strncpy(g_current, what.c_str(), sizeof(g_current) - 1);
        alarm(kBoundSeconds + 1);  // a child has its own alarm, which comes first
        const auto run = tried.assertion != nullptr ? TryInChild : TryHere;
        const Result result = run(tried, plan);
        m_aborts += result.hasAborted ? 1 : 0;
        ++m_tries;
        if (!result.problem.empty() && ++m_problems <= kShownProblems) {
            plan.isShown = true;
            run(tried, plan);
        }
        m_torture.Count(result.problem.empty(), what + ": " + result.problem);
        alarm(0);
        return result.isUntouched;
    }

    Torture& m_torture;
    long m_tries = 0;
    int m_problems = 0;
    int m_aborts = 0;
};

Cases AllCases(const Torture& torture) {
    Cases all;
    for (Cases (*cases)() : {BaseCases, DocumentCases, ThreadCases, DatabaseCases, NetworkCases, ProviderCases,
                             CurationCases, BanditCases}) {
        for (const Case& one : cases()) {
            if (torture.IsWanted(one.function)) {
                all.push_back(one);
            }
        }
    }
    return all;
}

}  // namespace

void Try::Elsewhere(const std::function<void()>& function) {
    std::thread([&] {
        Allocations::ExemptThread();
        function();
    }).join();
}

void MemoryLog::Clear() {
    const std::lock_guard<std::mutex> lock(g_logMutex);
    g_logged = 0;
}

bool MemoryLog::Has(const char* text) {
    const std::lock_guard<std::mutex> lock(g_logMutex);
    for (int i = 0; i < g_logged && i < static_cast<int>(kKeptLines); ++i) {
        if (std::strstr(g_lines[i], text) != nullptr) {
            return true;
        }
    }
    return false;
}

/// Keeps the line without an allocation.
int lumora_log_print(int /*buffer*/, int /*priority*/, const char* /*tag*/, const char* format, ...) {
    const std::lock_guard<std::mutex> lock(g_logMutex);
    char* line = g_lines[static_cast<std::size_t>(g_logged++) % kKeptLines];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(line, sizeof(g_lines[0]), format, arguments);
    va_end(arguments);
    return length;
}

// Waiting and durability are not what this program tries: without them it makes more tries.
extern "C" {

int usleep(useconds_t /*microseconds*/) {
    const timespec pause{0, 1000000};
    return nanosleep(&pause, nullptr);
}

void g_usleep(gulong /*microseconds*/) {
    usleep(0);
}

int fsync(int /*descriptor*/) {
    return 0;
}

int fdatasync(int /*descriptor*/) {
    return 0;
}

void sync() noexcept {}

}  // extern "C"

int main(int argc, char** argv) {
    Torture torture("memory", argc, argv);
    for (const int signal : {SIGALRM, SIGABRT, SIGSEGV, SIGBUS, SIGFPE}) {
        std::signal(signal, OnFatalSignal);
    }
    std::signal(SIGPIPE, SIG_IGN);
    setenv("TZ", "Europe/Berlin", /*overwrite=*/1);
    tzset();
    sqlite3_config(SQLITE_CONFIG_LOOKASIDE, 0, 0);  // every allocation of SQLite is one of malloc()
    MemoryTorture tries(torture);
    const Cases cases = AllCases(torture);
    for (const Case& tried : cases) {
        tries.TryEveryNumber(tried);
    }
    constexpr int kShortRounds = 2;
    for (int round = 0; torture.IsLong() ? torture.HasTime({}) : round < kShortRounds; ++round) {
        for (const Case& tried : cases) {
            tries.TryByChance(tried, round);
        }
    }
    sqlite3_shutdown();
    return torture.End();
}
