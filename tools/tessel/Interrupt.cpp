#include "tools/tessel/Interrupt.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <string>

#include "tools/tessel/Failure.h"

namespace tessel::tool {

namespace {

std::atomic<bool> g_interrupted{false};
Interrupt g_meaning = Interrupt::kCutsShort;
// Read end and write end: a byte in it ends every poll, whichever thread the signal came to.
int g_pipe[2] = {-1, -1};

void OnSignal(int number) {
    const int error = errno;
    if (g_interrupted.exchange(true)) {
        signal(number, SIG_DFL);
        raise(number);  // delivered when this returns
    }
    [[maybe_unused]] const ssize_t written = write(g_pipe[1], "", 1);
    errno = error;
}

}  // namespace

void CatchInterrupts(Interrupt meaning) {
    if (pipe2(g_pipe, O_CLOEXEC | O_NONBLOCK) != 0)
        throw Failure(std::string("cannot make a pipe: ") + std::strerror(errno));
    g_meaning = meaning;
    struct sigaction action {};
    action.sa_handler = OnSignal;
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    // Who ignores it, as nohup does, outlives the terminal.
    struct sigaction before {};
    if (sigaction(SIGHUP, nullptr, &before) == 0 && before.sa_handler != SIG_IGN)
        sigaction(SIGHUP, &action, nullptr);
}

bool Interrupted() {
    return g_interrupted;
}

bool WasCutShort() {
    return g_interrupted && g_meaning == Interrupt::kCutsShort;
}

bool WaitForInput(int descriptor) {
    pollfd ready[] = {{descriptor, POLLIN, 0}, {g_pipe[0], POLLIN, 0}};
    while (g_pipe[0] >= 0 && !g_interrupted)
        if (poll(ready, 2, -1) >= 0 || errno != EINTR)
            break;
    return !g_interrupted;
}

void SleepUnlessInterrupted(int64_t milliseconds) {
    pollfd ready[] = {{g_pipe[0], POLLIN, 0}};
    poll(ready, 1, static_cast<int>(std::clamp<int64_t>(milliseconds, 0, INT_MAX)));
}

}  // namespace tessel::tool
