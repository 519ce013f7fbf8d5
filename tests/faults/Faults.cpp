// A library that is preloaded into a program (LD_PRELOAD) and lets the system fail there, where and when the
// environment says:
//
//   FAULT_READ_FILE=PATH         the file whose reads fail with EIO: those of the bytes from FAULT_READ_FROM on,
//                                FAULT_READ_BYTES of them (unless told, all), as unreadable sectors do; or the
//   FAULT_READ=N                 N-th of all reads of the file
//   FAULT_ALLOCATION=N           the N-th allocation since main began gives no memory
//   FAULT_THREAD=N               the N-th thread is not made: EAGAIN
//   FAULT_COUNTS=PATH            gets a line "reads N allocations N threads N" when the program exits
//
// Every number counts from 1.
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#define EXPORTED extern "C" __attribute__((visibility("default")))

// The system's own, which are called behind ours.
extern "C" void* __libc_malloc(size_t size);
extern "C" void* __libc_calloc(size_t count, size_t size);
extern "C" void* __libc_realloc(void* memory, size_t size);
extern "C" void* __libc_memalign(size_t alignment, size_t size);

namespace {

// Counts, and is true of the one that is to fail.
class Fault {
public:
    void Read(const char* name) {
        const char* const text = std::getenv(name);
        m_which = text != nullptr ? std::strtoull(text, nullptr, 10) : 0;
    }
    bool IsNext() { return ++m_count == m_which; }
    uint64_t Count() const { return m_count; }

private:
    uint64_t m_which = 0;
    std::atomic<uint64_t> m_count{0};
};

struct Settings {
    const char* file = nullptr;
    int64_t from = 0;  // the unreadable bytes
    int64_t end = 0;
    const char* counts = nullptr;
    Fault reads;
    Fault allocations;
    Fault threads;
};

Settings g_settings;
// main has begun: what the system does before is none of the program's.
std::atomic<bool> g_inMain{false};

int64_t NumberOr(const char* name, int64_t otherwise) {
    const char* const text = std::getenv(name);
    return text != nullptr ? std::strtoll(text, nullptr, 0) : otherwise;
}

void ReadSettings() {
    g_settings.file = std::getenv("FAULT_READ_FILE");
    g_settings.reads.Read("FAULT_READ");
    const bool single = std::getenv("FAULT_READ") != nullptr;
    g_settings.from = NumberOr("FAULT_READ_FROM", single ? INT64_MAX : 0);
    const int64_t bytes = NumberOr("FAULT_READ_BYTES", INT64_MAX);
    g_settings.end = g_settings.from + std::min(bytes, INT64_MAX - g_settings.from);
    g_settings.allocations.Read("FAULT_ALLOCATION");
    g_settings.threads.Read("FAULT_THREAD");
    g_settings.counts = std::getenv("FAULT_COUNTS");
}

__attribute__((destructor)) void WriteCounts() {
    g_inMain = false;
    if (g_settings.counts == nullptr)
        return;
    char line[128];
    const int length = std::snprintf(line, sizeof(line), "reads %llu allocations %llu threads %llu\n",
                                     static_cast<unsigned long long>(g_settings.reads.Count()),
                                     static_cast<unsigned long long>(g_settings.allocations.Count()),
                                     static_cast<unsigned long long>(g_settings.threads.Count()));
    const int descriptor = open(g_settings.counts, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (descriptor < 0 || write(descriptor, line, static_cast<size_t>(length)) != length)
        std::abort();
    close(descriptor);
}

bool AllocationFails() {
    if (!g_inMain || !g_settings.allocations.IsNext())
        return false;
    errno = ENOMEM;
    return true;
}

bool IsFaultyFile(int descriptor) {
    struct stat faulty {};
    struct stat status {};
    return g_settings.file != nullptr && stat(g_settings.file, &faulty) == 0 && fstat(descriptor, &status) == 0 &&
           faulty.st_dev == status.st_dev && faulty.st_ino == status.st_ino;
}

// How many of length bytes at offset can be read; -1 and errno when none.
ssize_t ReadableBytes(int descriptor, size_t length, int64_t offset) {
    if (!IsFaultyFile(descriptor))
        return static_cast<ssize_t>(length);
    if (g_settings.reads.IsNext() || (length > 0 && offset >= g_settings.from && offset < g_settings.end)) {
        errno = EIO;
        return -1;
    }
    const int64_t before = g_settings.from - offset;
    return before > 0 ? static_cast<ssize_t>(std::min<uint64_t>(length, static_cast<uint64_t>(before)))
                      : static_cast<ssize_t>(length);
}

using Main = int (*)(int, char**, char**);
Main g_main = nullptr;

int BeginMain(int argc, char** argv, char** environment) {
    g_inMain = true;
    return g_main(argc, argv, environment);
}

template <class Function>
Function Next(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

EXPORTED int __libc_start_main(Main main, int argc, char** argv, void (*init)(), void (*fini)(), void (*rtldFini)(),
                               void* stackEnd) {
    using Start = int (*)(Main, int, char**, void (*)(), void (*)(), void (*)(), void*);
    ReadSettings();
    g_main = main;
    return Next<Start>("__libc_start_main")(&BeginMain, argc, argv, init, fini, rtldFini, stackEnd);
}

EXPORTED void* malloc(size_t size) {
    return AllocationFails() ? nullptr : __libc_malloc(size);
}

EXPORTED void* calloc(size_t count, size_t size) {
    return AllocationFails() ? nullptr : __libc_calloc(count, size);
}

EXPORTED void* realloc(void* memory, size_t size) {
    return AllocationFails() ? nullptr : __libc_realloc(memory, size);
}

EXPORTED void* memalign(size_t alignment, size_t size) {
    return AllocationFails() ? nullptr : __libc_memalign(alignment, size);
}

EXPORTED void* aligned_alloc(size_t alignment, size_t size) {
    return memalign(alignment, size);
}

EXPORTED int posix_memalign(void** out, size_t alignment, size_t size) {
    void* const memory = memalign(alignment, size);
    if (memory == nullptr)
        return ENOMEM;
    *out = memory;
    return 0;
}

EXPORTED ssize_t read(int descriptor, void* buffer, size_t length) {
    const ssize_t readable = ReadableBytes(descriptor, length, lseek(descriptor, 0, SEEK_CUR));
    return readable < 0 ? readable : syscall(SYS_read, descriptor, buffer, readable);
}

EXPORTED ssize_t pread(int descriptor, void* buffer, size_t length, off_t offset) {
    const ssize_t readable = ReadableBytes(descriptor, length, offset);
    return readable < 0 ? readable : syscall(SYS_pread64, descriptor, buffer, readable, offset);
}

EXPORTED ssize_t pread64(int descriptor, void* buffer, size_t length, off_t offset) {
    return pread(descriptor, buffer, length, offset);
}

EXPORTED int pthread_create(pthread_t* out, const pthread_attr_t* attributes, void* (*run)(void*), void* argument) {
    using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static const auto create = Next<Create>("pthread_create");
    return g_settings.threads.IsNext() ? EAGAIN : create(out, attributes, run, argument);
}
