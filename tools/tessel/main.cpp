// The command line: `tessel COMMAND INPUT ...`.
#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <new>

#include "tools/tessel/Extract.h"
#include "tools/tessel/Failure.h"
#include "tools/tessel/Info.h"

namespace tessel::tool {
namespace {

struct InfoArguments {
    std::string input;
    bool json = false;
    bool pids = false;
};

struct ExtractArguments {
    std::string input;
    std::string pids;
    bool sections = false;
    std::string output;
};

void RunInfo(const InfoArguments& arguments) {
    InputFile input(arguments.input);
    const StreamInfo info = ReadStreamInfo(input, arguments.pids);
    Print(arguments.json ? InfoAsJson(info, arguments.pids) : InfoAsText(info, arguments.pids));
}

void RunExtract(const ExtractArguments& arguments) {
    const std::vector<uint32_t> pids = ParsePidList(arguments.pids);
    InputFile input(arguments.input);
    OutputFile output(arguments.output, input);
    Extract(input, pids, arguments.sections ? ExtractWhat::kSections : ExtractWhat::kPackets, output);
}

const char* const kInputHelp = "A transport stream: a file, or - for standard input";

void AddInfo(CLI::App& app, InfoArguments& arguments) {
    CLI::App* info = app.add_subcommand("info", "List the services of a stream");
    info->add_option("INPUT", arguments.input, kInputHelp)->required();
    info->add_flag("--json", arguments.json, "For programs: one JSON object; what is not known is null");
    info->add_flag("--pids", arguments.pids, "Read to the end and list every PID");
    info->footer(
        "Examples:\n"
        "  tessel info recording.ts\n"
        "  tessel info --json recording.ts | jq '.services[].name'\n"
        "  cat recording.ts | tessel info -");
    info->callback([&arguments] { RunInfo(arguments); });
}

void AddExtract(CLI::App& app, ExtractArguments& arguments) {
    CLI::App* extract = app.add_subcommand("extract", "Take PIDs out of a stream");
    extract->add_option("INPUT", arguments.input, kInputHelp)->required();
    extract->add_option("--pid", arguments.pids, "PIDs, in decimal or 0x hexadecimal: P[,P...]")->required();
    extract->add_flag("--sections", arguments.sections, "Complete sections, table_id to CRC, instead of packets");
    extract->add_option("-o,--output", arguments.output, "The file to write, or - for standard output")->required();
    extract->footer(
        "Packets come out as 188 bytes. Left out are scrambled and damaged ones, and the last of the input,\n"
        "which no sync byte follows.\n\n"
        "Examples:\n"
        "  tessel extract recording.ts --pid 256,257 -o av.ts\n"
        "  tessel extract recording.ts --sections --pid 0x11 -o sdt.bin");
    extract->callback([&arguments] { RunExtract(arguments); });
}

int Run(int argc, char** argv) {
    CLI::App app("Takes MPEG-2 transport streams apart.", "tessel");
    app.set_version_flag("--version", "tessel " TESSEL_VERSION);
    app.set_help_flag("-h,--help", "Print this help");
    app.require_subcommand(1);
    app.footer(
        "Exit code: 0 done, 1 could not, 2 wrong use.\n\n"
        "Examples:\n"
        "  tessel info recording.ts\n"
        "  tessel extract recording.ts --pid 256 -o video.ts\n"
        "`tessel COMMAND --help` says more.");
    InfoArguments info;
    AddInfo(app, info);
    ExtractArguments extract;
    AddExtract(app, extract);
    const auto named = [&](CLI::App* command) { return command->check_name(argv[1]); };
    if (argc > 1 && argv[1][0] != '-' && app.get_subcommands(named).empty())
        throw Misuse("there is no command \"" + std::string(argv[1]) + "\"; see `tessel --help`");
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& success) {
        return app.exit(success);
    } catch (const CLI::ParseError& error) {
        throw Misuse(std::string(error.what()) + "; see `tessel --help`");
    }
    return kDone;
}

int Say(ExitCode code, const std::string& text) {
    std::fprintf(stderr, "tessel: %s\n", text.c_str());
    return code;
}

int Main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);
    try {
        return Run(argc, argv);
    } catch (const OutputClosed&) {
        return kDone;
    } catch (const Failure& failure) {
        return Say(kCouldNot, failure.what());
    } catch (const Misuse& misuse) {
        return Say(kWrongUse, misuse.what());
    } catch (const std::bad_alloc&) {
        return Say(kCouldNot, "out of memory");
    } catch (const std::exception& error) {
        return Say(kCouldNot, error.what());
    }
}

}  // namespace
}  // namespace tessel::tool

int main(int argc, char** argv) {
    return tessel::tool::Main(argc, argv);
}
