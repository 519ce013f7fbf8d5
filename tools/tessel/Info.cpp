#include "tools/tessel/Info.h"

#include "tables/TableFactory.h"
#include "tools/tessel/Failure.h"
#include "tools/tessel/Progress.h"

namespace tessel::tool {

StreamInfo ReadStreamInfo(InputFile& input, bool allPids) {
    TableReader tables;
    std::optional<Progress> progress(std::in_place, allPids ? input.Size() : std::nullopt);
    for (auto bytes = input.Read(); !bytes.empty(); bytes = input.Read()) {
        tables.Push(bytes);
        progress->Show(input.BytesRead());
        if (!allPids && (input.BytesRead() >= kByteLimit || tables.IsComplete()))
            break;
    }
    progress.reset();
    tables.Finish();
    StreamReader& reader = tables.Reader();
    if (!reader.FoundPackets())
        throw Failure(NoStreamText(input));

    StreamInfo info;
    StreamReader::CDvbServices& list = *reader.Services();
    info.packetSize = reader.Parser().PacketSize();
    info.bytesRead = input.BytesRead();
    info.complete = list.IsComplete() == S_OK;
    info.tables = reader.TableVersions();
    info.named = tables.IsNamed();
    uint32_t id = 0;
    if (HasTable(reader, kProgramAssociationTable)) {
        list.GetTransportStreamId(&id);
        info.transportStreamId = id;
    }
    if (HasTable(reader, kServiceDescriptionTable)) {
        list.GetOriginalNetworkId(&id);
        info.originalNetworkId = id;
    }

    info.services = tables.Services();
    info.latePids = tables.LatePids();
    for (uint32_t pid = 0; pid < kPidCount; ++pid)
        if (reader.PidStatus().IsPresent(pid))
            info.pids.push_back({pid, reader.PidStatus().IsScrambled(pid)});
    return info;
}

}  // namespace tessel::tool
