#pragma once

#include "harl/foundation/kz/IBase.h"

namespace kz {

// Orders writes on streams that may complete them later: a write made with a barrier is
// complete when the barrier's wait() returns. Synchronous streams complete every write before
// returning, so for them a barrier is a formality and a null barrier is always allowed.
class IWriteBarrier : public virtual IBase {
public:
    virtual void wait() = 0;
};

}  // namespace kz
