#include "tools/tessel/ModuleLibrary.h"

#include <dlfcn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>
#include <optional>

#include "tools/tessel/Failure.h"

namespace tessel::tool {

namespace {

namespace fs = std::filesystem;

constexpr const char* kFile = "cvneTessel.ax";
constexpr const char* kVariable = "TESSEL_REGISTRY";

// The first that exists counts, whatever it is: another one further on would be of another version.
std::string FindModule() {
    std::error_code error;
    const fs::path folder = fs::read_symlink("/proc/self/exe", error).parent_path();
    for (const char* place : {".", "lib", "../lib", "../lib/tessel"}) {
        const fs::path path = (folder / place / kFile).lexically_normal();
        if (fs::exists(path, error))
            return path.string();
    }
    throw Failure(std::string("there is no ") + kFile + " in " + folder.string() + ", nor in a lib folder beside it");
}

// The system's loader trusts a file that is cut short, and dies of it: a child tries first.
void TryToLoad(const std::string& path) {
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_DUMPABLE, 0);  // no core file
        // Nobody who watches this process shall report it.
        for (const int number : {SIGBUS, SIGSEGV})
            std::signal(number, SIG_DFL);
        dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        _exit(0);
    }
    int status = 0;
    while (child > 0 && waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (child > 0 && WIFSIGNALED(status))
        throw Failure("cannot load the module: " + path + ": the file is damaged (" + strsignal(WTERMSIG(status)) +
                      ")");
}

// Sets the variable that tells the module where to register, and puts it back.
class RegistryVariable {
public:
    explicit RegistryVariable(const std::string& path) {
        if (const char* before = std::getenv(kVariable))
            m_before = before;
        // Without it the module would change the user's own registry.
        if (setenv(kVariable, path.c_str(), 1) != 0)
            throw std::bad_alloc();
    }
    ~RegistryVariable() {
        if (m_before)
            setenv(kVariable, m_before->c_str(), 1);
        else
            unsetenv(kVariable);
    }
    RegistryVariable(const RegistryVariable&) = delete;
    RegistryVariable& operator=(const RegistryVariable&) = delete;

private:
    std::optional<std::string> m_before;
};

}  // namespace

ModuleLibrary::ModuleLibrary() : m_path(FindModule()) {
    TryToLoad(m_path);
    m_library = dlopen(m_path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (m_library == nullptr) {
        // The text begins with the path.
        const std::string text = dlerror();
        throw Failure("cannot load the module: " + text);
    }
    try {
        Find("DllGetClassObject");
        Find("DllCanUnloadNow");
        m_register = reinterpret_cast<EntryPoint>(Find("DllRegisterServer"));
        m_unregister = reinterpret_cast<EntryPoint>(Find("DllUnregisterServer"));
    } catch (...) {
        dlclose(m_library);
        throw;
    }
}

ModuleLibrary::~ModuleLibrary() {
    dlclose(m_library);
}

void* ModuleLibrary::Find(const char* name) const {
    void* entry = dlsym(m_library, name);
    if (entry == nullptr)
        throw Failure(m_path + ": is no module of classes: it has no " + name);
    return entry;
}

HRESULT ModuleLibrary::Call(EntryPoint entry, const std::string& registry) const {
    if (registry.empty())
        return entry();
    const RegistryVariable variable(registry);
    return entry();
}

}  // namespace tessel::tool
