#pragma once

#include "harl/foundation/kz/IBase.h"

namespace kz {

// Alignment needs of a stream, in bytes: of positions and lengths, of the caller's buffers,
// and the position alignment at which transfers run fastest.
class IAlignedStreamBase : public virtual IBase {
public:
    virtual int getPositionAlign() = 0;
    virtual int getBufferAlign() = 0;
    virtual int getBestPerformancePositionAlign() = 0;
};

}  // namespace kz
