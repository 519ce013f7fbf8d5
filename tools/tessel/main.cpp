// The command line: `tessel COMMAND INPUT ...`.
#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <new>

#include "tools/tessel/Classes.h"
#include "tools/tessel/Cut.h"
#include "tools/tessel/DemuxRun.h"
#include "tools/tessel/Extract.h"
#include "tools/tessel/Failure.h"
#include "tools/tessel/Frames.h"
#include "tools/tessel/Info.h"
#include "tools/tessel/Interrupt.h"
#include "tools/tessel/Memory.h"
#include "tools/tessel/PidList.h"
#include "tools/tessel/Unreadable.h"
#include "tools/tessel/Watch.h"
#include "tools/tessel/inspect/Inspect.h"

namespace tessel::tool {
namespace {

struct InfoArguments {
    std::string input;
    bool skipUnreadable = false;
    bool json = false;
    bool pids = false;
    bool push = false;
};

struct SpanArguments {
    std::string from;
    std::string to;
};

// What --follow alone means, as the parser of the command line has it, and with a value.
const char* const kFollow = "true";
const char* const kFollowName = "name";

struct FollowArguments {
    std::string follow;  // none, kFollow or kFollowName
    double idle = 0;     // seconds; 0: not given
};

struct ExtractArguments {
    std::string input;
    bool skipUnreadable = false;
    SpanArguments span;
    FollowArguments follow;
    std::vector<std::string> pids;
    bool sections = false;
    std::string output;
};

struct DemuxArguments {
    std::string input;
    bool skipUnreadable = false;
    SpanArguments span;
    FollowArguments follow;
    std::string directory;
    bool discard = false;
    bool push = false;
    std::string mode;
    std::string service;
    std::string audio;
    std::vector<std::string> pids;
    bool timestamps = false;
    bool json = false;
};

struct CutArguments {
    std::string input;
    bool skipUnreadable = false;
    SpanArguments span;
    std::string service;
    std::string output;
};

struct FramesArguments {
    std::string input;
    bool skipUnreadable = false;
    std::string pid;
    bool json = false;
};

struct WatchArguments {
    std::string input;
    bool skipUnreadable = false;
    bool json = false;
};

struct InspectArguments {
    std::string input;
    bool skipUnreadable = false;
    std::string listen = "127.0.0.1:8210";
    bool open = false;
    bool loop = false;
    bool allowUploads = false;
};

struct ModuleArguments {
    std::string registry;
    bool json = false;
};

// Runs a command on its input. Of what cannot be read the user hears behind what was made of the rest, and before what
// that lacks.
template <class Command>
void RunOn(InputFile& input, bool skipUnreadable, Command command) {
    const auto checkInput = [&] {
        if (input.Unreadable())
            throw Failure(*input.Unreadable());
    };
    if (skipUnreadable)
        SkipUnreadable();
    try {
        command();
    } catch (const Failure&) {
        checkInput();
        throw;
    }
    checkInput();
    if (const PassedOver passedOver = AllPassedOver(); passedOver.bytes != 0)
        Tell(input.Name() + ": " + std::to_string(passedOver.bytes) +
             " bytes could not be read and are left out, the first is byte " + std::to_string(passedOver.first));
}

void RunInfo(const InfoArguments& arguments) {
    InputFile input(arguments.input);
    CatchInterrupts();
    RunOn(input, arguments.skipUnreadable, [&] {
        StreamInfo info = ReadStreamInfo(input, arguments.pids);
        if (!arguments.push && arguments.input != "-")
            info.times = ReadFileTimes(arguments.input, info.packetSize, info.services, info.latePids);
        Print(arguments.json ? InfoAsJson(info, arguments.pids) : InfoAsText(info, arguments.pids));
    });
}

// Only a file can be sought in.
TimeSpan ParseSpan(const SpanArguments& arguments, const std::string& input) {
    const TimeSpan span = ParseTimeSpan(arguments.from, arguments.to);
    if (!span.IsWhole() && input == "-")
        throw Misuse("--from and --to need a file; standard input cannot be sought in");
    return span;
}

// What grows is read as it comes.
void CheckFollow(const FollowArguments& arguments, const TimeSpan& span) {
    if (!arguments.follow.empty() && arguments.follow != kFollow && arguments.follow != kFollowName)
        throw Misuse("--follow=" + arguments.follow + ": there are --follow and --follow=name");
    if (!arguments.follow.empty() && !span.IsWhole())
        throw Misuse("--from and --to are for a file that is complete; leave out --follow");
    if (arguments.follow.empty() && arguments.idle > 0)
        throw Misuse("--idle says when --follow ends; add --follow");
}

// A file that grows has no other end than an interrupt.
void Follow(InputFile& input, const FollowArguments& arguments) {
    CatchInterrupts(arguments.follow.empty() ? Interrupt::kCutsShort : Interrupt::kIsTheEnd);
    if (arguments.follow.empty())
        return;
    const auto idle = std::chrono::milliseconds(std::llround(arguments.idle * 1000));
    input.Follow(arguments.idle > 0 ? std::optional(idle) : std::nullopt, arguments.follow == kFollowName);
}

void RunExtract(const ExtractArguments& arguments) {
    const std::vector<uint32_t> pids = ParsePidList(arguments.pids);
    const TimeSpan span = ParseSpan(arguments.span, arguments.input);
    CheckFollow(arguments.follow, span);
    InputFile input(arguments.input);
    RunOn(input, arguments.skipUnreadable, [&] {
        Follow(input, arguments.follow);
        if (!span.IsWhole())
            ReadOnlyPart(input, pids, span);
        OutputFile output(arguments.output, input);
        Extract(input, pids, arguments.sections ? ExtractWhat::kSections : ExtractWhat::kPackets, output);
    });
}

std::optional<std::string> Given(const std::string& text) {
    return text.empty() ? std::nullopt : std::optional(text);
}

void RunDemux(const DemuxArguments& arguments) {
    DemuxRequest request;
    // A mode of the splitter asks for the splitter.
    request.mode = !arguments.mode.empty() ? ParseMode(arguments.mode)
                   : arguments.push || !arguments.follow.follow.empty() || arguments.input == "-"
                       ? StreamingMode::kRecording
                       : StreamingMode::kFile;
    request.service = Given(arguments.service);
    if (!arguments.audio.empty())
        request.audio = CanonicalLanguage(arguments.audio);
    request.pids = ParsePidRequests(arguments.pids);
    request.span = ParseSpan(arguments.span, arguments.input);
    CheckFollow(arguments.follow, request.span);
    if (!request.span.IsWhole() && request.mode != StreamingMode::kFile)
        throw Misuse("--from and --to are for a file that is played; leave out --push and --mode");
    request.directory = Given(arguments.directory);
    request.timestamps = arguments.timestamps;
    if (request.directory.has_value() == arguments.discard)
        throw Misuse("name a directory with -o, or only measure with --discard; see `tessel demux --help`");
    if (request.directory == "-")
        throw Misuse("demux writes a file for each stream; name a directory with -o");
    if (arguments.discard && request.timestamps)
        throw Misuse("--timestamps writes files, and --discard writes none");
    if (request.audio && !request.pids.empty() && !request.service)
        throw Misuse("--audio chooses among the streams of services, and --pid names streams; add --service");
    InputFile input(arguments.input);
    RunOn(input, arguments.skipUnreadable, [&] {
        Follow(input, arguments.follow);
        const DemuxResult result = Demux(input, request);
        Print(arguments.json ? DemuxAsJson(result) : DemuxAsText(result));
        if (result.aborted)
            throw Failure(arguments.input + ": its clock jumps, or another stream begins, before byte " +
                          std::to_string(result.bytes) + ", where playing it ends; --push goes on beyond that");
        if (result.IsEmpty() && !result.interrupted)
            throw Failure(arguments.input + ": nothing came out; the summary says why");
    });
}

void RunCut(const CutArguments& arguments) {
    if (arguments.input == "-")
        throw Misuse("cut needs a file; standard input cannot be sought in");
    const TimeSpan span = ParseSpan(arguments.span, arguments.input);
    InputFile input(arguments.input);
    CatchInterrupts();
    RunOn(input, arguments.skipUnreadable, [&] {
        const int64_t begin = Cut(input, Given(arguments.service), span, arguments.output);
        if (span.from)
            Tell("the part begins at " + TimeText(begin));
    });
}

void RunFrames(const FramesArguments& arguments) {
    const uint32_t pid = ParsePid(arguments.pid);
    InputFile input(arguments.input);
    CatchInterrupts();
    Feed feed(input);
    RunOn(input, arguments.skipUnreadable, [&] { PrintFrames(feed, pid, arguments.json); });
}

void RunWatch(const WatchArguments& arguments) {
    InputFile input(arguments.input);
    CatchInterrupts();
    RunOn(input, arguments.skipUnreadable,
          [&] { Watch(input, arguments.json ? WatchFormat::kJson : WatchFormat::kText); });
}

void RunInspect(const InspectArguments& arguments) {
    const InspectRequest request{ParseListenAddress(arguments.listen), arguments.open, arguments.loop,
                                 arguments.allowUploads};
    if (arguments.skipUnreadable)
        SkipUnreadable();
    auto input = std::make_unique<InputFile>(arguments.input);
    if (request.loop && !input->CanRewind())
        throw Misuse("--loop plays a file again and again; what a pipe has given is gone");
    CatchInterrupts(Interrupt::kIsTheEnd);
    Inspect(std::move(input), request);
}

void RunClasses(const ModuleArguments& arguments) {
    const std::vector<ClassInfo> classes = ReadClasses(arguments.registry);
    Print(arguments.json ? ClassesAsJson(classes) : ClassesAsText(classes));
}

const char* const kInputHelp = "A transport stream: a file, or - for standard input";

void AddSkipUnreadable(CLI::App* command, bool& skip) {
    command->add_flag("--skip-unreadable", skip, "Go on behind what cannot be read of a file: leave it out");
}

void AddInfo(CLI::App& app, InfoArguments& arguments) {
    CLI::App* info = app.add_subcommand("info", "List the services of a stream");
    info->add_option("INPUT", arguments.input, kInputHelp)->required();
    info->add_flag("--json", arguments.json, "For programs: one JSON object; what is not known is null");
    info->add_flag("--pids", arguments.pids, "Read to the end and list every PID");
    info->add_flag("--push", arguments.push, "Read a file as a pipe is read, without its duration and bit rate");
    AddSkipUnreadable(info, arguments.skipUnreadable);
    info->footer(
        "Examples:\n"
        "  tessel info recording.ts\n"
        "  tessel info --json recording.ts | jq '.services[].name'\n"
        "  cat recording.ts | tessel info -");
    info->callback([&arguments] { RunInfo(arguments); });
}

void AddSpan(CLI::App* command, SpanArguments& span) {
    command
        ->add_option("--from", span.from,
                     "Begin there, or where decoding may begin before that: 90, 1:30, 0:01:30.5 behind the first "
                     "picture")
        ->option_text("TIME");
    command->add_option("--to", span.to, "End there, with all that is shown by then")->option_text("TIME");
}

void AddFollow(CLI::App* command, FollowArguments& arguments) {
    command->add_flag("--follow", arguments.follow,
                      "The file still grows: wait for more at its end, until Ctrl-C. --follow=name: go on with what "
                      "takes the file's place, and with what it begins anew with, from its start");
    command->add_option("--idle", arguments.idle, "End when a file that is followed has not grown for so many seconds")
        ->option_text("SECONDS")
        ->check(CLI::Range(0.001, 1e6));
}

// Each takes a list, and may come several times.
CLI::Option* AddPids(CLI::App* command, std::vector<std::string>& pids, const char* help) {
    return command->add_option("--pid", pids, help)->option_text("PIDS")->allow_extra_args(false);
}

void AddExtract(CLI::App& app, ExtractArguments& arguments) {
    CLI::App* extract = app.add_subcommand("extract", "Take PIDs out of a stream");
    extract->add_option("INPUT", arguments.input, kInputHelp)->required();
    AddPids(extract, arguments.pids, "PIDs, in decimal or 0x hexadecimal: P[-P][,...]")->required();
    extract->add_flag("--sections", arguments.sections, "Complete sections, table_id to CRC, instead of packets");
    extract->add_option("-o,--output", arguments.output, "The file to write, or - for standard output")->required();
    AddSpan(extract, arguments.span);
    AddFollow(extract, arguments.follow);
    AddSkipUnreadable(extract, arguments.skipUnreadable);
    extract->footer(
        "Packets come out as 188 bytes. Left out are scrambled and damaged ones, and the last of the input,\n"
        "which no sync byte follows.\n\n"
        "Examples:\n"
        "  tessel extract recording.ts --pid 256,257 -o av.ts\n"
        "  tessel extract recording.ts --sections --pid 0x11 -o sdt.bin");
    extract->callback([&arguments] { RunExtract(arguments); });
}

void AddDemux(CLI::App& app, DemuxArguments& arguments) {
    CLI::App* demux = app.add_subcommand("demux", "Write the elementary streams of a stream, each to a file");
    demux->add_option("INPUT", arguments.input, kInputHelp)->required();
    demux->add_option("-o,--output", arguments.directory, "The directory to write to; it is made when missing");
    demux->add_flag("--discard", arguments.discard, "Write nothing, only measure");
    demux->add_option("--service", arguments.service, "Of this service alone: its id or its name");
    demux->add_option("--audio", arguments.audio,
                      "Audio in this language alone: a code of ISO 639, deu as well as ger");
    AddPids(demux, arguments.pids,
            "These PIDs: P[-P][:es|packets|sections][,...]; with --service, besides its streams");
    demux->add_flag("--push", arguments.push, "Read a file as a pipe is read, not by the file source");
    demux->add_option(
        "--mode", arguments.mode,
        "How what is pushed goes out; rec: outputs wait for room; strm: as rec, with the checks of a running clock; "
        "live: at the speed of the stream's own clock, and what is late is dropped");
    demux->add_flag("--timestamps", arguments.timestamps,
                    "Beside each elementary stream a CSV file: byte offset, time in 100 ns, flags");
    AddSpan(demux, arguments.span);
    AddFollow(demux, arguments.follow);
    demux->add_flag("--json", arguments.json, "The summary for programs");
    AddSkipUnreadable(demux, arguments.skipUnreadable);
    demux->footer(
        "Files are SERVICE-PID.EXT: m2v, m1v, h264, m4v, mp2, mpa, ac3, aac, sub, ts for packets, psi for sections.\n"
        "A stream begins with its first time stamp. What no pin delivers as an elementary stream, or what shows\n"
        "no time stamp in the first 10,000,000 bytes, is written as packets. The summary says what is missing.\n\n"
        "Examples:\n"
        "  tessel demux recording.ts -o streams\n"
        "  tessel demux recording.ts --service 101 --audio ger --timestamps -o streams\n"
        "  tessel demux recording.ts --pid 256,0x11:sections -o streams\n"
        "  cat recording.ts | tessel demux - --discard --json");
    demux->callback([&arguments] { RunDemux(arguments); });
}

void AddCut(CLI::App& app, CutArguments& arguments) {
    CLI::App* cut = app.add_subcommand("cut", "Take a part of one service out of a file, to be played by itself");
    cut->add_option("INPUT", arguments.input, "A transport stream in a file")->required();
    AddSpan(cut, arguments.span);
    cut->add_option("--service", arguments.service, "Its id or its name; the first that has a program map if left out");
    cut->add_option("-o,--output", arguments.output, "The file to write, or - for standard output")->required();
    AddSkipUnreadable(cut, arguments.skipUnreadable);
    cut->footer(
        "The part holds the packets of the service's program map and streams as they are, each stream from its first\n"
        "whole PES packet to its last, and a PAT that names this service alone. Scrambled packets are left out.\n\n"
        "Examples:\n"
        "  tessel cut recording.ts --from 1:30 --to 2:00 -o part.ts\n"
        "  tessel cut recording.ts --from 0:20:15 --service 101 -o rest.ts");
    cut->callback([&arguments] { RunCut(arguments); });
}

void AddFrames(CLI::App& app, FramesArguments& arguments) {
    CLI::App* frames = app.add_subcommand("frames", "List the frames of an audio stream");
    frames->add_option("INPUT", arguments.input, kInputHelp)->required();
    frames->add_option("--pid", arguments.pid, "The PID of MPEG audio or AC-3, in decimal or 0x hexadecimal")
        ->required();
    frames->add_flag("--json", arguments.json, "For programs: one JSON object a line");
    AddSkipUnreadable(frames, arguments.skipUnreadable);
    frames->footer(
        "Position and length are in bytes of the elementary stream, the time in seconds of its time stamps.\n\n"
        "Examples:\n"
        "  tessel frames recording.ts --pid 257\n"
        "  tessel frames recording.ts --pid 0x101 --json | jq .length");
    frames->callback([&arguments] { RunFrames(arguments); });
}

void AddWatch(CLI::App& app, WatchArguments& arguments) {
    CLI::App* watch = app.add_subcommand("watch", "Print table and service events as they come");
    watch->add_option("INPUT", arguments.input, kInputHelp)->required();
    watch->add_flag("--json", arguments.json, "For programs: one JSON object a line");
    AddSkipUnreadable(watch, arguments.skipUnreadable);
    watch->footer(
        "Examples:\n"
        "  tessel watch recording.ts\n"
        "  cat recording.ts | tessel watch --json -");
    watch->callback([&arguments] { RunWatch(arguments); });
}

void AddInspect(CLI::App& app, InspectArguments& arguments) {
    CLI::App* inspect = app.add_subcommand("inspect", "Show a playing stream in a browser, and map PIDs");
    inspect->add_option("INPUT", arguments.input, kInputHelp)->required();
    inspect
        ->add_option("--listen", arguments.listen,
                     "Where browsers find it; of this machine alone unless told otherwise; port 0: any that is free")
        ->option_text("ADDRESS:PORT [" + arguments.listen + "]");
    inspect->add_flag("--open", arguments.open, "Open the browser");
    inspect->add_flag("--loop", arguments.loop, "Play a file again and again");
    inspect->add_flag("--allow-uploads", arguments.allowUploads,
                      "Other machines that reach the page may send a stream in place of this one");
    AddSkipUnreadable(inspect, arguments.skipUnreadable);
    inspect->footer(
        "A file plays at the speed of its clock, and plays on when it grows; a pipe at the speed at which it comes.\n"
        "The pages stay when the input has ended. Ctrl-C ends it.\n\n"
        "Examples:\n"
        "  tessel inspect recording.ts --open\n"
        "  cat recording.ts | tessel inspect - --listen 127.0.0.1:0");
    inspect->callback([&arguments] { RunInspect(arguments); });
}

void AddModule(CLI::App& app, ModuleArguments& arguments) {
    app.add_option("--registry", arguments.registry,
                   "The file that classes are registered in (tessel/registry in the user's data folder)")
        ->option_text("FILE")
        ->check(CLI::Validator([](const std::string& path) { return path.empty() ? "no file is named" : ""; }, ""));
    CLI::App* classes = app.add_subcommand("classes", "List the classes of the module, and which are registered");
    classes->add_flag("--json", arguments.json, "For programs: one JSON array");
    classes->callback([&arguments] { RunClasses(arguments); });
    CLI::App* add = app.add_subcommand("register", "Register the classes of the module for applications to find");
    add->callback([&arguments] { Print(RegisterModule(arguments.registry)); });
    CLI::App* remove = app.add_subcommand("unregister", "Take the classes of the module out of the registry");
    remove->callback([&arguments] { Print(UnregisterModule(arguments.registry)); });
    for (CLI::App* command : {classes, add, remove})
        command->fallthrough()->footer(
            "The module is cvneTessel.ax, beside this program or in a lib folder beside it.");
}

int Run(int argc, char** argv) {
    CLI::App app("Takes MPEG-2 transport streams apart.", "tessel");
    app.set_version_flag("--version", "tessel " TESSEL_VERSION);
    app.set_help_flag("-h,--help", "Print this help");
    app.require_subcommand(1);
    app.footer(
        "Exit code: 0 done, 1 could not, 2 wrong use, 130 interrupted.\n\n"
        "Examples:\n"
        "  tessel info recording.ts\n"
        "  tessel extract recording.ts --pid 256 -o video.ts\n"
        "  tessel demux recording.ts -o streams\n"
        "`tessel COMMAND --help` says more.");
    InfoArguments info;
    AddInfo(app, info);
    ExtractArguments extract;
    AddExtract(app, extract);
    DemuxArguments demux;
    AddDemux(app, demux);
    CutArguments cut;
    AddCut(app, cut);
    FramesArguments frames;
    AddFrames(app, frames);
    WatchArguments watch;
    AddWatch(app, watch);
    InspectArguments inspect;
    AddInspect(app, inspect);
    ModuleArguments module;
    AddModule(app, module);
    const auto named = [&](CLI::App* command) { return command->check_name(argv[1]); };
    if (argc > 1 && argv[1][0] != '-' && app.get_subcommands(named).empty())
        throw Misuse("there is no command \"" + std::string(argv[1]) + "\"; see `tessel --help`");
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& success) {
        return app.exit(success);
    } catch (const CLI::ParseError& error) {
        const auto commands = app.get_subcommands();
        const std::string command = commands.empty() ? "" : commands.front()->get_name() + " ";
        throw Misuse(std::string(error.what()) + "; see `tessel " + command + "--help`");
    }
    return kDone;
}

int Say(ExitCode code, const std::string& text) {
    Tell(text);
    return code;
}

int Fail(const std::string& text) {
    // What went wrong when memory was out, went wrong for that.
    const std::string why = RanOutOfMemory() ? "out of memory" : text;
    return WasCutShort() ? Say(kInterrupted, "interrupted: " + why) : Say(kCouldNot, why);
}

// A descriptor that was closed at the start would be given to the next file, and what is printed would go into that.
void OpenStandardDescriptors() {
    int descriptor = 0;
    while (descriptor >= 0 && descriptor <= STDERR_FILENO)
        descriptor = open("/dev/null", O_RDWR);
    close(descriptor);
}

int RunAndTell(int argc, char** argv) {
    try {
        WatchMemory();
        const int code = Run(argc, argv);
        if (code == kDone && RanOutOfMemory())
            return Fail({});
        return WasCutShort() ? Say(kInterrupted, "interrupted: what came before that is complete") : code;
    } catch (const OutputClosed&) {
        return kDone;
    } catch (const Failure& failure) {
        return Fail(failure.what());
    } catch (const Misuse& misuse) {
        return Say(kWrongUse, misuse.what());
    } catch (const std::bad_alloc&) {
        return Fail("out of memory");
    } catch (const std::exception& error) {
        return Fail(error.what());
    }
}

int Main(int argc, char** argv) {
    OpenStandardDescriptors();
    std::signal(SIGPIPE, SIG_IGN);
    try {
        return RunAndTell(argc, argv);
    } catch (const std::bad_alloc&) {
        // There was none for the text that says what went wrong.
        std::fputs("tessel: out of memory\n", stderr);
        return kCouldNot;
    }
}

}  // namespace
}  // namespace tessel::tool

int main(int argc, char** argv) {
    return tessel::tool::Main(argc, argv);
}
