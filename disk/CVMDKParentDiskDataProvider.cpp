#include "harl/disk/CVMDKParentDiskDataProvider.h"

#include "harl/disk/CVMDKDisk.h"
#include "harl/format/VMDKFileReference.h"
#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/Log.h"
#include "harl/grain/CVMDKDataPreparer.h"
#include "harl/grain/CVMDKGrainTableCache.h"

#include <algorithm>
#include <cstring>

namespace harl {

namespace {

kz::String hexID(unsigned int contentID) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    do {
        text.insert(text.begin(), digits[contentID % 16]);
        contentID /= 16;
    } while (contentID != 0);
    return kz::String(text.c_str());
}

kz::String boolText(bool value) {
    return value ? "true" : "false";
}

}  // namespace

CVMDKParentDiskDataProvider::CVMDKParentDiskDataProvider(
    kz::IFileSystem* fileSystem, const kz::CURI& childURI, unsigned int expectedContentID,
    const kz::String& parentFileReference, long long grainSizeSectors, const kz::String& password,
    int compressionLevel, CVMDKGrainTableCache* grainTableCache, CVMDKDisk* parentDisk)
    : fileSystem(fileSystem),
      childURI(childURI.toNormalized()),
      expectedContentID(expectedContentID),
      parentFileReference(parentFileReference),
      grainSizeSectors(grainSizeSectors),
      compressionLevel(compressionLevel),
      grainTableCache(grainTableCache),
      parentURI(vmdkFileReferenceToURI(this->childURI.getParent(), parentFileReference)),
      parentDisk(parentDisk),
      password(password),
      descendants{this->childURI} {
    fetchParentDiskSize();
}

CVMDKParentDiskDataProvider::CVMDKParentDiskDataProvider(const CVMDKParentDiskDataProvider&) =
    default;
CVMDKParentDiskDataProvider& CVMDKParentDiskDataProvider::operator=(
    const CVMDKParentDiskDataProvider&) = default;
CVMDKParentDiskDataProvider::~CVMDKParentDiskDataProvider() = default;

void CVMDKParentDiskDataProvider::setDescendants(const kz::TArray<kz::CURI>& descendantURIs) {
    descendants = descendantURIs;
}

void CVMDKParentDiskDataProvider::checkChain() const {
    const bool loops = std::find(descendants.begin(), descendants.end(),
                                 parentURI.toNormalized()) != descendants.end();
    if (loops || descendants.size() >= static_cast<size_t>(kMaxChainLength)) {
        throw kz::CIOError(kz::CIOError::CorruptFormat,
                           loops ? kz::String("VMDK parent chain loops back to a disk of its own.")
                                 : "VMDK parent chain is longer than " +
                                       kz::String::number(kMaxChainLength) + " disks.",
                           kz::CProps()
                               .add("parentURI", parentURI.toString(true))
                               .add("childURI", childURI.toString(true)));
    }
}

void CVMDKParentDiskDataProvider::ensureParentDiskOpen() {
    if (parentDisk) {
        return;
    }
    try {
        checkChain();
        kz::P<CVMDKDisk> opened(new CVMDKDisk(fileSystem.get(), parentURI,
                                              kz::IIOStream::AccessRead, password, compressionLevel,
                                              grainTableCache.get(), nullptr));
        const unsigned int actualContentID = opened->getDescriptor()->getContentID();
        if (actualContentID != expectedContentID) {
            throw kz::CIOError(kz::CIOError::CorruptFormat,
                               "VMDK parent disk has changed, but a child disk depended on it.",
                               kz::CProps()
                                   .add("parentURI", parentURI.toString(true))
                                   .add("childURI", childURI.toString(true))
                                   .add("expectedContentID", hexID(expectedContentID))
                                   .add("actualContentID", hexID(actualContentID)));
        }
        if (const kz::P<CVMDKParentDiskDataProvider> grandParent = opened->getParentProvider()) {
            kz::TArray<kz::CURI> chain = descendants;
            chain.push_back(opened->getMainFileURI());
            grandParent->setDescendants(chain);
        }
        parentDisk = opened;
    } catch (const kz::CError& e) {
        kz::logError("Error while opening VMDK parent disk (parent URI: '" +
                         parentURI.toString(true) + "', child URI: '" + childURI.toString(true) +
                         "')",
                     e, "");
        throw;
    }
    fetchParentDiskSize();
}

void CVMDKParentDiskDataProvider::fetchParentDiskSize() {
    parentDiskSize = parentDisk ? parentDisk->getSizeBytes() : -1;
}

void CVMDKParentDiskDataProvider::getData(long long position, void* buffer, int size) {
    ensureParentDiskOpen();
    auto* out = static_cast<unsigned char*>(buffer);
    if (position >= parentDiskSize) {
        std::memset(out, 0, static_cast<size_t>(std::max(size, 0)));
        return;
    }
    parentDisk->seek(position);
    const long long available = parentDiskSize - position;
    if (available > size) {
        parentDisk->read(out, size);
        return;
    }
    parentDisk->read(out, static_cast<int>(available));
    std::memset(out + available, 0, static_cast<size_t>(size - available));
}

void CVMDKParentDiskDataProvider::getPreparedGrainData(long long position,
                                                       kz::TBuffer<unsigned char>& data,
                                                       int grainSize, bool compressed) {
    ensureParentDiskOpen();
    if (parentDisk->getGrainSizeBytes() != grainSize || parentDisk->getCompressed() != compressed) {
        throw kz::CError("Parent disk is incompatible with diff disk.", kz::String(), -1,
                         kz::CProps()
                             .add("parentURI", parentURI.toString(true))
                             .add("childURI", childURI.toString(true))
                             .add("expectedGrainSize", grainSize)
                             .add("expectedCompressed", boolText(compressed))
                             .add("actualGrainSize", parentDisk->getGrainSizeBytes())
                             .add("actualCompressed", boolText(parentDisk->getCompressed())));
    }
    if (position < parentDiskSize) {
        parentDisk->seek(position);
        parentDisk->readPreparedGrainData(data);
        return;
    }
    // Preparing may compress a whole grain, so the zero grain is prepared once and only its
    // grain index is patched for each later position.
    if (!dataPreparer) {
        dataPreparer = parentDisk->createDataPreparer();
    }
    if (!zeroGrain) {
        zeroGrain = kz::makeP<kz::TBuffer<unsigned char>>(static_cast<size_t>(grainSize));
        std::memset(zeroGrain->getData(), 0, zeroGrain->getUsed());
    }
    if (!preparedZeroGrain) {
        auxBuffer = kz::makeP<kz::TBuffer<unsigned char>>();
        preparedZeroGrain = dataPreparer->prepareGrainData(zeroGrain.get(), 0, auxBuffer.get());
    }
    data.assign(preparedZeroGrain->getData(), preparedZeroGrain->getUsed());
    dataPreparer->patchGrainIndexInPreparedGrainData(data, position / grainSize);
}

bool CVMDKParentDiskDataProvider::isGrainWritten(long long position) {
    ensureParentDiskOpen();
    if (position >= parentDiskSize) {
        return false;
    }
    parentDisk->seek(position);
    return parentDisk->isGrainWritten();
}

}  // namespace harl
