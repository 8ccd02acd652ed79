// The library mutex and fault containment.
#include <setjmp.h>
#include <signal.h>

#include <chrono>
#include <mutex>
#include <thread>

#include "platform/platform.h"

namespace tesslin::platform {

// ---- The library mutex ------------------------------------------------
// One process-wide mutex stands for the named mutex "Tesslin_mutex"; on
// Linux one loaded copy of the library serves the process. Waiting is
// bounded to 5 seconds by polling try_lock with growing pauses rather than
// std::timed_mutex: its try_lock_for goes through pthread_mutex_clocklock,
// which ThreadSanitizer does not see, so every unlock looked unmatched. It
// is held only for a table search, so a waiter rarely polls more than once.

namespace {
std::mutex& library_mutex() {
    static std::mutex m;
    return m;
}
thread_local bool t_holds_mutex = false;
}  // namespace

int32_t mutex_lock() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(5000);
    auto pause = std::chrono::microseconds(1);
    while (!library_mutex().try_lock()) {
        if (std::chrono::steady_clock::now() >= deadline) return -1;
        if (pause.count() < 1000) pause *= 2;
        std::this_thread::sleep_for(pause);
    }
    t_holds_mutex = true;
    return 0;
}

int32_t mutex_unlock() {
    if (!t_holds_mutex) return -1;
    t_holds_mutex = false;
    library_mutex().unlock();
    return 0;
}

// ---- Fault containment ------------------------------------------------
// While at least one guarded call runs, SIGSEGV and SIGBUS go to our handler.
// A fault on a thread that is inside a guarded call jumps back to that call;
// any other fault is passed to the handler that was installed before ours.

namespace {

__attribute__((tls_model("initial-exec"))) thread_local sigjmp_buf* t_fault_jump = nullptr;

std::mutex g_guard_lock;
int g_guard_users = 0;
struct sigaction g_previous_segv;
struct sigaction g_previous_bus;

void forward(int sig, siginfo_t* info, void* context) {
    struct sigaction* previous = sig == SIGSEGV ? &g_previous_segv : &g_previous_bus;
    if (previous->sa_flags & SA_SIGINFO) {
        if (previous->sa_sigaction) {
            previous->sa_sigaction(sig, info, context);
            return;
        }
    } else if (previous->sa_handler != SIG_DFL && previous->sa_handler != SIG_IGN) {
        previous->sa_handler(sig);
        return;
    }
    // Default action: restore it and return; the faulting instruction runs
    // again and the process ends as it would have without us.
    signal(sig, SIG_DFL);
}

void on_fault(int sig, siginfo_t* info, void* context) {
    sigjmp_buf* jump = t_fault_jump;
    if (jump) siglongjmp(*jump, 1);
    forward(sig, info, context);
}

void enter_guard() {
    std::lock_guard<std::mutex> hold(g_guard_lock);
    if (g_guard_users++ == 0) {
        struct sigaction action = {};
        action.sa_sigaction = on_fault;
        action.sa_flags = SA_SIGINFO | SA_NODEFER;
        sigemptyset(&action.sa_mask);
        sigaction(SIGSEGV, &action, &g_previous_segv);
        sigaction(SIGBUS, &action, &g_previous_bus);
    }
}

void leave_guard() {
    std::lock_guard<std::mutex> hold(g_guard_lock);
    if (--g_guard_users == 0) {
        sigaction(SIGSEGV, &g_previous_segv, nullptr);
        sigaction(SIGBUS, &g_previous_bus, nullptr);
    }
}

}  // namespace

int64_t run_guarded(int64_t (*fn)(void*), void* context, int64_t fault_result) {
    enter_guard();
    sigjmp_buf jump;
    sigjmp_buf* const outer = t_fault_jump;
    if (sigsetjmp(jump, 1) != 0) {
        t_fault_jump = outer;
        leave_guard();
        return fault_result;
    }
    t_fault_jump = &jump;
    int64_t result = fn(context);
    t_fault_jump = outer;
    leave_guard();
    return result;
}

}  // namespace tesslin::platform
