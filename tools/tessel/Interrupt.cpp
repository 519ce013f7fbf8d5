#include "tools/tessel/Interrupt.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>

#include "tools/tessel/Failure.h"

namespace tessel::tool {

namespace {

std::atomic<bool> g_interrupted{false};
// Read end and write end: a byte in it ends every poll, whichever thread the signal came to.
int g_pipe[2] = {-1, -1};

void OnSignal(int) {
    const int error = errno;
    g_interrupted = true;
    [[maybe_unused]] const ssize_t written = write(g_pipe[1], "", 1);
    errno = error;
}

}  // namespace

void CatchInterrupts() {
    if (pipe2(g_pipe, O_CLOEXEC | O_NONBLOCK) != 0)
        throw Failure("cannot make a pipe; too many files are open");
    struct sigaction action {};
    action.sa_handler = OnSignal;
    action.sa_flags = SA_RESTART | static_cast<int>(SA_RESETHAND);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

bool Interrupted() {
    return g_interrupted;
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
