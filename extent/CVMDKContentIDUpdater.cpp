#include "harl/extent/CVMDKContentIDUpdater.h"

#include "harl/descriptor/CVMDKDescriptor.h"
#include "harl/descriptor/CVMDKDescriptorAccessor.h"
#include "harl/extent/CVMDKSparseExtentFile.h"
#include "harl/format/VMDKFileStream.h"

namespace harl {

CVMDKContentIDUpdater::CVMDKContentIDUpdater(kz::IFileSystem* fileSystem, const kz::CURI& uri,
                                             CVMDKDescriptor* descriptor)
    : fileSystem(fileSystem), uri(uri.toNormalized()), descriptor(descriptor) {
}

void CVMDKContentIDUpdater::onDiskAboutToChange(CVMDKSparseExtentFile& file) {
    if (contentIDChanged || !contentIDUpdatesEnabled) {
        return;
    }
    kz::P<kz::IIOStream> stream =
        uri == file.getURI().toNormalized()
            ? file.getStream()
            : openVMDKFileStream(fileSystem.get(), uri, kz::IIOStream::AccessReadWrite);
    // The text written is the file's own with the new ID: the accessor reads it afresh.
    kz::P<CVMDKDescriptorAccessor> accessor(
        new CVMDKDescriptorAccessor(stream.get(), kz::IIOStream::AccessReadWrite));
    const unsigned int contentID = accessor->changeContentID();
    accessor->storeDescriptor(true);
    descriptor->setContentID(contentID);
    contentIDChanged = true;
}

}  // namespace harl
