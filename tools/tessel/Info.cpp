#include "tools/tessel/Info.h"

#include "tables/TableFactory.h"
#include "tools/tessel/Failure.h"

namespace tessel::tool {

namespace {

// Complete, and no table that would add names or channel numbers is still on its way.
bool NothingMoreToCome(StreamReader& reader) {
    return reader.Services()->IsComplete() == S_OK &&
           NoNamesToCome(reader, [&](uint32_t pid) { return reader.PidStatus().IsPresent(pid); });
}

void ReadTables(InputFile& input, bool allPids, StreamReader& reader) {
    std::vector<uint8_t> head;
    for (auto bytes = input.Read(); !bytes.empty(); bytes = input.Read()) {
        reader.Push(bytes);
        if (input.BytesRead() <= kByteLimit)
            head.insert(head.end(), bytes.begin(), bytes.end());
        if (!allPids && (input.BytesRead() >= kByteLimit || NothingMoreToCome(reader)))
            break;
    }
    reader.Finish();
    // A program map table counts once packets of its PCR PID have been seen. In a short recording every copy
    // may come before the first of them: with the PIDs known, the tables are read once more.
    if (reader.FoundPackets() && reader.Services()->IsPmtComplete() != S_OK) {
        reader.Restart();
        reader.Push(head);
        reader.Finish();
    }
}

}  // namespace

StreamInfo ReadStreamInfo(InputFile& input, bool allPids) {
    const ComPtr<StreamReader> reader = MakeStreamReader();
    ReadTables(input, allPids, *reader);
    if (!reader->FoundPackets())
        throw Failure(NoStreamText(input));

    StreamInfo info;
    CDvbServices& list = *reader->Services();
    info.packetSize = reader->Parser().PacketSize();
    info.bytesRead = input.BytesRead();
    info.complete = list.IsComplete() == S_OK;
    info.tables = reader->TableVersions();
    info.named = HasTable(*reader, kServiceDescriptionTable) || HasTable(*reader, kVirtualChannelTable);
    uint32_t id = 0;
    if (HasTable(*reader, kProgramAssociationTable)) {
        list.GetTransportStreamId(&id);
        info.transportStreamId = id;
    }
    if (HasTable(*reader, kServiceDescriptionTable)) {
        list.GetOriginalNetworkId(&id);
        info.originalNetworkId = id;
    }

    // Closing the list drops services whose table never came; they are shown as far as they are known.
    ComPtr<IDvbMapping> services;
    list.GetServices(services.Put());
    if (!info.complete)
        list.FinishWithoutNames();
    for (int32_t i = 0; const auto service = ItemAs<IDvbService>(services.Get(), i); ++i)
        info.services.push_back(DescribeService(service.Get(), *reader, info.named));

    for (uint32_t pid = 0; pid < kPidCount; ++pid)
        if (reader->PidStatus().IsPresent(pid))
            info.pids.push_back({pid, reader->PidStatus().IsScrambled(pid)});
    return info;
}

}  // namespace tessel::tool
