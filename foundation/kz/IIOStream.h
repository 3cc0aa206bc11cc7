#pragma once

#include "harl/foundation/kz/IInStream.h"
#include "harl/foundation/kz/IOutStream.h"

namespace kz {

// A stream that reads and writes with one shared position.
class IIOStream : public virtual IInStream, public virtual IOutStream {
public:
    // How a file is opened. Every test in the system compares with these two values.
    enum Access { AccessRead = 1, AccessReadWrite = 3 };
};

}  // namespace kz
