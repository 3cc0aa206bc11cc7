#include "harl/descriptor/CVMDKDescriptorAccessor.h"

#include "harl/format/CVMDKSparseExtentHeader.h"
#include "harl/foundation/kz/CDataInStream.h"
#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/CMTRand.h"
#include "harl/foundation/kz/Log.h"

#include <limits>

namespace harl {

namespace {

constexpr unsigned int kPlainMagic = 0x564D444B;
constexpr unsigned int kEncryptedMagic = 0x05644B45;
constexpr unsigned long long kSectorSizeBytes = 512;
constexpr unsigned int kNoParentContentID = 0xFFFFFFFF;

// Sectors as bytes; a count too large for a byte position gives -1, which every caller
// refuses as "no descriptor" or "too big".
long long sectorsToBytes(unsigned long long sectors) {
    if (sectors >
        static_cast<unsigned long long>(std::numeric_limits<long long>::max()) / kSectorSizeBytes) {
        return -1;
    }
    return static_cast<long long>(sectors * kSectorSizeBytes);
}

// Runs `step` and puts the stream back at `position` if it throws; an error of that seek
// is dropped, so that the first error is the one the caller sees.
template <class Step>
void restoringPositionOnError(kz::IIOStream& stream, long long position, Step step) {
    try {
        step();
    } catch (const kz::CError&) {
        try {
            stream.seek(position);
        } catch (const kz::CError&) {
        }
        throw;
    }
}

}  // namespace

CVMDKDescriptorAccessor::CVMDKDescriptorAccessor(kz::IIOStream* stream,
                                                 kz::IIOStream::Access access)
    : stream(stream), access(access) {
    const long long position = this->stream->getPosition();
    restoringPositionOnError(*this->stream, position, [&] {
        locateDescriptor();
        kz::TBuffer<unsigned char> text(static_cast<size_t>(descriptorSize));
        this->stream->seek(descriptorOffset);
        this->stream->read(text.getData(), static_cast<int>(descriptorSize));
        descriptor = kz::P<CVMDKDescriptor>(new CVMDKDescriptor(text));
        this->stream->seek(position);
    });
}

kz::CProps CVMDKDescriptorAccessor::uriProps() const {
    return kz::CProps().add("uri", stream->getURI().toString(true));
}

void CVMDKDescriptorAccessor::locateDescriptor() {
    stream->seek(0);
    kz::CDataInStream in(stream.get());
    const unsigned int magic = in.readUInt32();
    if (magic == kPlainMagic || magic == kEncryptedMagic) {
        embeddedInSparseExtentFile = true;
        stream->seek(0);
        CVMDKSparseExtentHeader header;
        header.load(in);
        if (header.getVersion() < 1 || header.getVersion() > 3) {
            throw kz::CIOError(kz::CIOError::UnsupportedVersion,
                               "VMDK file has an unsupported version: " +
                                   kz::String::numberUnsigned(header.getVersion()),
                               uriProps());
        }
        descriptorOffset = sectorsToBytes(header.getDescriptorOffsetSectors());
        descriptorSize = sectorsToBytes(header.getDescriptorSizeSectors());
        if (descriptorOffset <= 0 || descriptorSize <= 0) {
            throw kz::CIOError(kz::CIOError::CorruptFormat,
                               "No VMDK descriptor found in VMDK file.", uriProps());
        }
    } else {
        kz::logInfo("Unsupported VMDK type identifier (0x" + kz::String::hex(magic) +
                    "). Handle as not embedded descriptor...");
        embeddedInSparseExtentFile = false;
        descriptorOffset = 0;
        descriptorSize = stream->getLength();
    }
    if (descriptorSize > kMaxDescriptorSizeBytes) {
        throw kz::CIOError(
            kz::CIOError::CorruptFormat,
            "VMDK descriptor is too big (" + kz::String::number(descriptorSize) + " bytes).",
            uriProps());
    }
}

void CVMDKDescriptorAccessor::storeDescriptor(bool flush) {
    if (access != kz::IIOStream::AccessReadWrite) {
        throw kz::CError(
            "Internal error: CVMDKDescriptorAccessor::storeDescriptor was called, but the "
            "accessor was not opened for writing.");
    }
    const long long position = stream->getPosition();
    restoringPositionOnError(*stream, position, [&] {
        stream->seek(descriptorOffset);
        kz::TBuffer<unsigned char> zeros(static_cast<size_t>(descriptorSize));
        zeros.fill(0);
        descriptor->store(*stream, static_cast<int>(descriptorSize), zeros);
        if (flush) {
            stream->flush();
        }
        stream->seek(position);
    });
}

unsigned int CVMDKDescriptorAccessor::changeContentID() {
    if (access != kz::IIOStream::AccessReadWrite) {
        throw kz::CError(
            "Internal error: CVMDKDescriptorAccessor::changeContentID was called, but the "
            "accessor was not opened for writing.");
    }
    const unsigned int current = descriptor->getContentID();
    unsigned int contentID = 0;
    while (contentID == 0 || contentID == kNoParentContentID || contentID == current) {
        kz::CMutexLock lock(kz::CMTRand::getGlobalInstanceMutex());
        contentID = kz::CMTRand::getGlobal()->rand32();
    }
    descriptor->setContentID(contentID);
    return contentID;
}

}  // namespace harl
