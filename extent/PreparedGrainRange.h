#pragma once

#include "harl/foundation/kz/CProps.h"

namespace harl {

// A prepared grain moves whole: every extent refuses a prepared read or write at `position`
// that does not cover one whole grain inside the extent. Past the end comes first (a CIOError
// WritePastEnd, also for reads, as the callers have always reported it), then a position off a
// grain boundary (OffGrainBoundary). `fileProps` name the extent file; the errors add the
// position, the grain size and, past the end, the extent size.
void checkPreparedGrainRange(const char* operation, long long position, long long grainSizeBytes,
                             long long extentSizeBytes, const kz::CProps& fileProps);

}  // namespace harl
