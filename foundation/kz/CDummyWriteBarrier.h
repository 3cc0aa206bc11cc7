#pragma once

#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/IWriteBarrier.h"

namespace kz {

// The barrier of a synchronous stream: there is never anything to wait for.
class CDummyWriteBarrier : public CBase, public IWriteBarrier {
public:
    void wait() override {}
};

}  // namespace kz
