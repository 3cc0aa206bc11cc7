#pragma once

#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/Containers.h"
#include "harl/foundation/kz/P.h"
#include "harl/foundation/kz/TPathImpl.h"

#include <cstdint>

namespace harl {

class CVMDKDisk;

// The state that a host's reverse incremental writer keeps: two paths, the disk it writes,
// the grains whose writing it put off, and one 64-bit value. The library defines the record
// and how it copies; what the fields stand for is the host's.
//
// A copy has its own paths and its own list, with copies of every postponed grain, and
// shares the disk and the objects behind each grain's `data`. Moving copies too: the source
// keeps its values, and every shared object counts one reference more. Destruction releases
// the list (with each grain's data), then the disk, then the second and the first path.
class CVMDKReverseIncrementalWriter : public kz::CBase {
public:
    struct PostponedGrain {
        std::uint64_t first = 0;
        kz::P<kz::CBase> data;
        std::uint64_t second = 0;
    };

    CVMDKReverseIncrementalWriter(const kz::TPathImpl<kz::CWindowsPathTraits>& firstPath,
                                  const kz::TPathImpl<kz::CWindowsPathTraits>& secondPath,
                                  CVMDKDisk* disk, std::uint64_t value);
    CVMDKReverseIncrementalWriter(const CVMDKReverseIncrementalWriter& other);
    CVMDKReverseIncrementalWriter(CVMDKReverseIncrementalWriter&& other);
    CVMDKReverseIncrementalWriter& operator=(const CVMDKReverseIncrementalWriter& other);
    CVMDKReverseIncrementalWriter& operator=(CVMDKReverseIncrementalWriter&& other);
    ~CVMDKReverseIncrementalWriter() override;

    kz::TPathImpl<kz::CWindowsPathTraits> firstPath;
    kz::TPathImpl<kz::CWindowsPathTraits> secondPath;
    kz::P<CVMDKDisk> disk;
    kz::TList<PostponedGrain> postponedGrains;
    std::uint64_t value;
};

}  // namespace harl
