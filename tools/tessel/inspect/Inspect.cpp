#include "tools/tessel/inspect/Inspect.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstdio>

#include "tools/tessel/InputKind.h"
#include "tools/tessel/Interrupt.h"
#include "tools/tessel/Utf8.h"
#include "tools/tessel/inspect/Server.h"

extern char** environ;

namespace tessel::tool {

namespace {

constexpr int64_t kForever = 3'600'000;

void Warn(const std::string& text) {
    std::fprintf(stderr, "tessel: %s\n", text.c_str());
}

// What the browser has to say is not our output.
void OpenBrowser(const std::string& url) {
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    for (const int descriptor : {0, 1, 2})
        posix_spawn_file_actions_addopen(&files, descriptor, "/dev/null", descriptor == 0 ? O_RDONLY : O_WRONLY, 0);
    std::string program = "xdg-open", argument = url;
    char* const arguments[] = {program.data(), argument.data(), nullptr};
    pid_t process = 0;
    const int error = posix_spawnp(&process, program.c_str(), &files, nullptr, arguments, environ);
    posix_spawn_file_actions_destroy(&files);
    if (error != 0)
        Warn("cannot open a browser (xdg-open is missing); open " + url + " yourself");
}

}  // namespace

void Inspect(std::unique_ptr<InputFile> input, const InspectRequest& request) {
    const std::string name = ToTerminal(input->Name());
    const std::string doubt = input->CanRewind() ? WhyNoStream(input->Descriptor()).value_or("") : "";
    if (!doubt.empty())
        Warn(name + ": seems to be no transport stream: " + doubt);
    InspectServer server(request.listen, {std::move(input), name, request.loop, nullptr, doubt}, request.allowUploads);
    if (!request.listen.IsLoopback())
        Warn(server.Url() + " can be reached from other machines: whoever reaches it sees the stream and may map PIDs" +
             (request.allowUploads ? ", replace the stream, and fill the folder of temporary files" : ""));
    server.Start();
    Print("Inspecting " + name + " at " + server.Url() + " (Ctrl-C ends it)\n");
    if (request.open)
        OpenBrowser(server.Url());
    while (!Interrupted())
        SleepUnlessInterrupted(kForever);
}

}  // namespace tessel::tool
