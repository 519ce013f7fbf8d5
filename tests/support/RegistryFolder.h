// A folder with a class registry in it, and processes that are killed while they write it.
#pragma once

#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>

#include "platform/com/Result.h"

namespace tessel {

struct RegistryFolder {
    RegistryFolder() {
        std::string name = testing::TempDir() + "registry-XXXXXX";
        if (mkdtemp(name.data()) == nullptr)
            ADD_FAILURE() << "no temporary folder";
        folder = name;
        path = folder / "registry";
    }
    ~RegistryFolder() { std::filesystem::remove_all(folder); }

    void Write(const std::string& text) const { std::ofstream(path, std::ios::binary) << text; }
    std::string Text() const {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    std::filesystem::path folder;
    std::string path;
};

// Runs work in a child that is killed at the first stop for a system call, then in one that is killed at the second,
// and so on until one ends by itself. Before each one prepare, and after each check with its number. False when
// children cannot be traced.
inline bool KilledAtEverySystemCall(const std::function<void()>& prepare, const std::function<HRESULT()>& work,
                                    const std::function<void(size_t)>& check) {
    constexpr size_t kMost = 5'000;
    constexpr int kUntraced = 99;
    for (size_t last = 1; last < kMost && !testing::Test::HasFailure(); ++last) {
        prepare();
        const pid_t child = fork();
        if (child == 0) {
            if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
                _exit(kUntraced);
            alarm(60);  // no child is waited for longer
            raise(SIGSTOP);
            _exit(work() == S_OK ? 0 : 1);
        }
        int status = 0;
        waitpid(child, &status, 0);
        for (size_t stop = 0; stop < last && WIFSTOPPED(status); ++stop) {
            ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
            waitpid(child, &status, 0);
        }
        if (WIFSTOPPED(status)) {
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
        }
        if (WIFEXITED(status) && WEXITSTATUS(status) == kUntraced)
            return false;
        check(last);
        if (WIFEXITED(status)) {
            EXPECT_EQ(WEXITSTATUS(status), 0);
            return true;
        }
    }
    ADD_FAILURE() << "no child came to its end";
    return true;
}

}  // namespace tessel
