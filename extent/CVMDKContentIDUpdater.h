#pragma once

#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/CURI.h"
#include "harl/foundation/kz/IFileSystem.h"
#include "harl/foundation/kz/P.h"

namespace harl {

class CVMDKDescriptor;
class CVMDKSparseExtentFile;

// Gives an opened disk a new content ID, once, before the first change of its data reaches a
// file: a child names its parent by that ID, so a parent that changed must not keep it. Every
// sparse extent of the disk calls onDiskAboutToChange immediately before it changes anything;
// the first call writes the new ID into the file that holds the descriptor, and the rest
// return at once.
class CVMDKContentIDUpdater : public kz::CBase {
public:
    // `uri` is the file that holds the descriptor; `descriptor` the disk's copy in memory.
    CVMDKContentIDUpdater(kz::IFileSystem* fileSystem, const kz::CURI& uri,
                          CVMDKDescriptor* descriptor);

    // Writes and flushes a new content ID into the descriptor file, unless that was done
    // already or updates are disabled. Uses `file`'s own stream when `file` holds the
    // descriptor, and leaves its position alone. On failure nothing is marked done, so the
    // next change tries again.
    void onDiskAboutToChange(CVMDKSparseExtentFile& file);

    void setContentIDUpdatesEnabled(bool enabled) { contentIDUpdatesEnabled = enabled; }

    bool getContentIDChanged() const { return contentIDChanged; }

private:
    kz::P<kz::IFileSystem> fileSystem;
    kz::CURI uri;
    kz::P<CVMDKDescriptor> descriptor;
    bool contentIDChanged = false;
    bool contentIDUpdatesEnabled = true;
};

}  // namespace harl
