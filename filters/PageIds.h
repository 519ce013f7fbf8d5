// The property pages of the filters, in the order in which they are shown.
#pragma once

#include "platform/com/Guid.h"

namespace tessel {

inline constexpr CLSID kPropertyPageIds[] = {
    MakeGuid("{EDC4108C-47BC-46F4-85F5-E3B32B37416F}"),  // services
    MakeGuid("{16BC6888-F359-4C18-B061-FA41809F1E42}"),  // program association table
    MakeGuid("{7C05A56A-4600-410B-9482-BCEB073377C7}"),  // service description table
    MakeGuid("{C8AF5993-6E41-4E64-A120-41B111F33A31}"),  // network information table
    MakeGuid("{5A260328-79B2-4D6C-82CE-73AB70203861}"),  // service guide table
    MakeGuid("{1954BF10-E024-41B8-BFD9-975DBC1C0EBC}"),  // genre lookup table
    MakeGuid("{446034CF-A673-4954-B1F1-425886307156}"),  // conditional access table
    MakeGuid("{BE9B4264-CD85-460F-B55A-0262A54A1066}"),  // virtual channel table
    MakeGuid("{4C47A739-7296-44CE-A2C7-298E9B8C6AD9}"),  // PID mapping
    MakeGuid("{27AC42C8-A188-41E4-92B4-C2676ED5B888}"),  // output pins
};

}  // namespace tessel
