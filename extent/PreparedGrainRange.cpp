#include "harl/extent/PreparedGrainRange.h"

#include "harl/foundation/kz/CIOError.h"

namespace harl {

void checkPreparedGrainRange(const char* operation, long long position, long long grainSizeBytes,
                             long long extentSizeBytes, const kz::CProps& fileProps) {
    if (grainSizeBytes > extentSizeBytes - position) {
        throw kz::CIOError(kz::CIOError::WritePastEnd,
                           kz::String("Prepared grain ") + operation + " exceeds VMDK extent size.",
                           kz::CProps(fileProps)
                               .add("position", position)
                               .add("grainSize", grainSizeBytes)
                               .add("extentSize", extentSizeBytes));
    }
    if (position % grainSizeBytes != 0) {
        throw kz::CIOError(kz::CIOError::OffGrainBoundary,
                           kz::String("Prepared grain ") + operation +
                               " in VMDK extent file can only be done on a grain boundary.",
                           kz::CProps(fileProps).add("position", position).add("grainSize",
                                                                              grainSizeBytes));
    }
}

}  // namespace harl
