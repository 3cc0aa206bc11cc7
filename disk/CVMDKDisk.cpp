#include "harl/disk/CVMDKDisk.h"

#include "harl/extent/CVMDKContentIDUpdater.h"
#include "harl/extent/CVMDKOnDemandExtentFile.h"
#include "harl/extent/CVMDKSparseExtentFile.h"
#include "harl/format/VMDKFileReference.h"
#include "harl/format/VMDKFileStream.h"
#include "harl/format/VMDKMarkers.h"
#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/foundation/kz/CLockFile.h"
#include "harl/foundation/kz/CLockFileError.h"
#include "harl/foundation/kz/CMTRand.h"
#include "harl/foundation/kz/CMutexLock.h"
#include "harl/foundation/kz/Log.h"
#include "harl/foundation/kz/SecureZero.h"
#include "harl/foundation/kz/Text.h"
#include "harl/foundation/vesk/CCipher_AES256CBC.h"
#include "harl/foundation/vesk/CDigestType_SHA256.h"
#include "harl/foundation/vesk/IDigest.h"
#include "harl/foundation/vesk/KeyDerivation.h"
#include "harl/grain/CVMDKGrainTableCache.h"
#include "harl/grain/VMDKEmptyExtent.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <limits>

namespace harl {

namespace {

// The largest disk whose every byte position fits a long long.
constexpr long long kMaxSizeSectors = std::numeric_limits<long long>::max() / kSectorSizeBytes;

const char* const kShortPreparedRead =
    "Internal error: CVMDKDisk::beginIOOp in CVMDKDisk::tryRreparedGrainData returned less "
    "than the grain size.";
const char* const kShortPreparedWrite =
    "Internal error: CVMDKDisk::beginIOOp in CVMDKDisk::writePreparedGrainData returned less "
    "than the grain size.";
const char* const kNotWritable =
    "Internal error: CVMDKDisk::write was called, but the disk was not opened for writing.";

// The only key derivation: PBKDF2 with HMAC-SHA1, its iteration count behind the colon.
const char* const kKeyDerivationPrefix = "pkcs5-pbkdf2-hmac-sha1:";
// Fewer iterations or a shorter salt would make the password cheap to guess.
constexpr long long kMinKeyDerivationIterations = 1000;
constexpr size_t kMinKeyDerivationSaltBytes = 8;

// The cache a disk makes for itself holds this many grain tables.
constexpr int kOwnGrainTableCacheTables = 1024;

// Geometry of a disk that create() makes.
constexpr long long kNewGrainSizeSectors = 128;
constexpr long long kNewGrainSizeBytes = kNewGrainSizeSectors * kSectorSizeBytes;
constexpr long long kMinDiskSizeBytes = 8 * 1024 * 1024;
// The largest extent file, and the largest disk in one file.
constexpr long long kMaxExtentFileBytes = 2LL * 1024 * 1024 * 1024 * 1024;
// Entries of a new grain table, and sectors a table of them takes.
constexpr long long kNewTableEntries = 512;
constexpr long long kNewTableSectors = kNewTableEntries * 4 / kSectorSizeBytes;
// Bytes of an extent line beside its file name, and the most lines the descriptor space of
// an embedded descriptor is sized for.
constexpr long long kExtentLineBytesBesideName = 48;
constexpr long long kWorstCaseExtentLines = 32768;
// Room for everything of a descriptor but its extent lines: 65 sectors less one byte, so that
// a division rounds the lines up to whole sectors with it.
constexpr long long kDescriptorRoomBytes = 33279;

// The file `name` in the folder of `file`. The name is a path segment, never parsed as a URI
// reference: a name with ":", "?" or "#" stays a name.
kz::CURI siblingURI(const kz::CURI& file, const kz::String& name) {
    return file.getParent() << kz::CURI(kz::String(), kz::String(), kz::String(), kz::String(), -1,
                                        name, kz::String(), kz::String());
}

// The lock file of the disk whose main file is `uri`: "<main file name>.lock" beside it.
kz::CURI lockFileURI(const kz::CURI& uri) {
    return siblingURI(uri, uri.getName() + ".lock");
}

kz::CProps uriProps(const kz::CURI& uri) {
    return kz::CProps().add("uri", uri.toString(true));
}

// SHA-256 of the data key, compared with the key hash of the descriptor.
kz::TBuffer<unsigned char> hashKey(const kz::TCryptBuffer<unsigned char>& key) {
    kz::P<vesk::IDigest> digest;
    vesk::CDigestType_SHA256().createDigest(digest);
    digest->update(key.getData(), static_cast<int>(key.getUsed()));
    digest->finish();
    kz::TBuffer<unsigned char> hash;
    hash.assign(digest->getData(), static_cast<size_t>(digest->getSize()));
    return hash;
}

}  // namespace

CVMDKDisk::CVMDKDisk(kz::IFileSystem* fileSystem, const kz::CURI& uri, kz::IIOStream::Access access,
                     const kz::String& password, int compressionLevel,
                     CVMDKGrainTableCache* grainTableCache, CVMDKDisk* parentDisk)
    : fileSystem(fileSystem),
      mainFileURI(uri.toNormalized()),
      access(access),
      compressionLevel(compressionLevel),
      grainSizeSectors(getGrainSizeSectors()),
      grainSizeBytes(getGrainSizeSectors() * kSectorSizeBytes) {
    // The lock comes before any read of the disk's files, so that no writer changes them
    // under this opening.
    takeLock(uri);
    this->grainTableCache = grainTableCache
                                ? kz::P<CVMDKGrainTableCache>(grainTableCache)
                                : kz::makeP<CVMDKGrainTableCache>(kOwnGrainTableCacheTables);
    loadDescriptor(uri);
    if (!descriptor->getKzEncryptionAlgorithm().isEmpty()) {
        setUpEncryption(uri, password);
    }
    createExtentFilesOnDemand = descriptor->getKzCreateExtentFilesOnDemand();
    descriptor->getExtentEntries(extentInfos);
    for (const kz::P<CVMDKExtentInfo>& line : extentInfos) {
        if (line->getType() != "SPARSE") {
            throw kz::CIOError(
                kz::CIOError::CorruptFormat,
                "VMDK disk has an unsupported extent type: '" + line->getType() + "'.",
                uriProps(uri));
        }
        appendExtentRange(vmdkFileReferenceToURI(mainFileURI.getParent(), line->getFilename()),
                          line->getSizeSectors());
    }
    if (extentMap.empty()) {
        throw kz::CIOError(kz::CIOError::CorruptFormat, "VMDK disk has no extents.", uriProps(uri));
    }
    readGeometry();
    const unsigned int parentContentID = descriptor->getParentContentID();
    if (parentContentID != 0xFFFFFFFFu) {
        parentDataProvider = kz::makeP<CVMDKParentDiskDataProvider>(
            fileSystem, mainFileURI, parentContentID, descriptor->getParentFileNameHint(),
            grainSizeSectors, password, compressionLevel, this->grainTableCache.get(), parentDisk);
        parentDiskMainURI = parentDataProvider->getParentDiskMainFileURI();
    }
    contentIDUpdater = kz::makeP<CVMDKContentIDUpdater>(fileSystem, mainFileURI, descriptor.get());
}

long long CVMDKDisk::getVirtualDiskSizeBytesFromMinSizeBytes(long long minSizeBytes) {
    const long long wanted = std::max(minSizeBytes, kMinDiskSizeBytes);
    // No disk that large can be made; the answer only has to stay a multiple of a grain.
    constexpr long long kLargest = std::numeric_limits<long long>::max() / kNewGrainSizeBytes;
    if (wanted / kNewGrainSizeBytes >= kLargest) {
        return kLargest * kNewGrainSizeBytes;
    }
    return (wanted + kNewGrainSizeBytes - 1) / kNewGrainSizeBytes * kNewGrainSizeBytes;
}

namespace {

// How create() cuts a disk into extent files; nothing of it outlives the call.
struct CCreatePlan {
    long long sizeBytes = 0;
    long long totalGrains = 0;
    bool embedDescriptor = false;
    long long grainsPerExtent = 0;
    long long descriptorSectors = 0;
};

// The room that metadata takes in an extent file of `extentFileBytes`, at its worst: the
// directories and tables twice, the header, the slot size structures and the closing sectors
// of a compressed file, and an embedded descriptor of kWorstCaseExtentLines lines.
long long estimateOverheadBytes(long long extentFileBytes, bool compressed, bool embedDescriptor,
                                long long worstCaseDescriptorBytes) {
    const long long grains = extentFileBytes / kNewGrainSizeBytes;
    const long long tables = (grains + kNewTableEntries - 1) / kNewTableEntries;
    const long long directorySectors = (tables * 4 + kSectorSizeBytes - 1) / kSectorSizeBytes;
    long long overhead =
        (directorySectors + tables * kNewTableSectors) * 2 * kSectorSizeBytes + kSectorSizeBytes;
    if (compressed) {
        overhead += (tables * 5 + directorySectors + 3) * kSectorSizeBytes;
    }
    if (embedDescriptor) {
        overhead += worstCaseDescriptorBytes;
    }
    overhead = (overhead + kNewGrainSizeBytes - 1) / kNewGrainSizeBytes * kNewGrainSizeBytes;
    if (compressed) {
        overhead += (grains + 3) * kSectorSizeBytes;
    }
    return overhead;
}

CCreatePlan planDisk(const kz::CURI& uri, long long minSizeBytes, bool compressed,
                     long long fileSizeLimit, const kz::String& sParentRelPath,
                     unsigned int parentContentID) {
    const char* const where = "CVMDKDisk::create";
    if (sParentRelPath.isEmpty() != (parentContentID == 0xFFFFFFFFu)) {
        char hex[16];
        std::snprintf(hex, sizeof hex, "%x", parentContentID);
        throw kz::CInvalidArgError(where,
                                   "sParentRelPath and parentContentID must either both be "
                                   "specified or both have the default values.",
                                   kz::CProps()
                                       .add("parentRelPath", sParentRelPath)
                                       .add("parentContentID", kz::String(hex)));
    }
    if (fileSizeLimit != -1 && fileSizeLimit > kMaxExtentFileBytes) {
        fileSizeLimit = kMaxExtentFileBytes;
    }
    CCreatePlan plan;
    plan.sizeBytes = CVMDKDisk::getVirtualDiskSizeBytesFromMinSizeBytes(minSizeBytes);
    if (plan.sizeBytes > kMaxExtentFileBytes && fileSizeLimit == -1) {
        throw kz::CInvalidArgError(where,
                                   "Invalid VMDK disk size for single unsplittable disk file: " +
                                       kz::String::number(plan.sizeBytes) + " bytes.",
                                   kz::CProps().add("sizeBytes", plan.sizeBytes));
    }
    plan.totalGrains = (plan.sizeBytes + kNewGrainSizeBytes - 1) / kNewGrainSizeBytes;
    long long extentFileBytes;
    if (fileSizeLimit == -1) {
        // 1 MiB and tenfold: a single file never meets its estimate's bound.
        extentFileBytes = (plan.sizeBytes + 1048576) * 10;
        plan.embedDescriptor = true;
    } else if (!compressed) {
        extentFileBytes = fileSizeLimit - 1;
    } else {
        // A compressed grain that grows out of its slot moves, so a compressed file may come
        // to twice its payload.
        extentFileBytes = (fileSizeLimit - 1) / 2;
        plan.embedDescriptor = true;
    }
    const long long lineBytes =
        kExtentLineBytesBesideName + static_cast<long long>(uri.getName().toUTF8().size());
    const long long worstCaseDescriptorBytes =
        (lineBytes * kWorstCaseExtentLines + kDescriptorRoomBytes) / kSectorSizeBytes *
        kSectorSizeBytes;
    const long long overhead = estimateOverheadBytes(
        extentFileBytes, compressed, plan.embedDescriptor, worstCaseDescriptorBytes);
    const long long maxExtentPayloadBytes =
        (extentFileBytes - overhead) / kNewGrainSizeBytes * kNewGrainSizeBytes;
    if (maxExtentPayloadBytes < kNewGrainSizeBytes) {
        throw kz::CError(
            "Internal error: calculated VMDK maxExtentPayloadBytes is less than grain size: " +
            kz::String::number(maxExtentPayloadBytes));
    }
    const long long expectedExtents = plan.sizeBytes / maxExtentPayloadBytes + 1;
    plan.descriptorSectors =
        (expectedExtents * lineBytes + kDescriptorRoomBytes) / kSectorSizeBytes;
    if (plan.descriptorSectors * kSectorSizeBytes > worstCaseDescriptorBytes) {
        throw kz::CError(
            "Internal error: calculated VMDK descriptor size exceeds estimated worst case "
            "descriptor size (calculated: " +
            kz::String::number(plan.descriptorSectors * kSectorSizeBytes) +
            ", worstCase: " + kz::String::number(worstCaseDescriptorBytes) + ")");
    }
    plan.grainsPerExtent = maxExtentPayloadBytes / kNewGrainSizeBytes;
    return plan;
}

void drawRandom(void* data, size_t length) {
    kz::CMutexLock lock(kz::CMTRand::getGlobalInstanceMutex());
    kz::CMTRand::getGlobal()->randData(data, length);
}

// Sets the encryption keys of a new disk's descriptor under `password`, and returns the hash
// of the new data key, which every extent header repeats. The data key is forgotten here: the
// disk gets it back from the password when it is opened.
kz::TBuffer<unsigned char> setUpNewEncryption(CVMDKDescriptor& descriptor,
                                              const kz::String& password) {
    const kz::P<vesk::ICipher> cipher(new vesk::CCipher_AES256CBC);
    const size_t keyBytes = static_cast<size_t>(cipher->getKeySize());
    descriptor.setKzEncryptionAlgorithm("aes256cbc");
    kz::TBuffer<unsigned char> iv(static_cast<size_t>(cipher->getIVSize()));
    drawRandom(iv.getData(), iv.getUsed());
    descriptor.setKzEncryptionIV(iv);
    const kz::String derivation = kz::String(kKeyDerivationPrefix) + "10000";
    descriptor.setKzEncryptionKeyDerivationAlgorithm(derivation);
    kz::TBuffer<unsigned char> salt(keyBytes);
    drawRandom(salt.getData(), salt.getUsed());
    descriptor.setKzEncryptionKeyDerivationSalt(salt);
    kz::TCryptBuffer<unsigned char> derivedKey;
    CVMDKDisk::deriveEncryptKey(derivedKey, static_cast<int>(keyBytes), password, derivation, salt);
    kz::TCryptBuffer<unsigned char> dataKey(keyBytes);
    drawRandom(dataKey.getData(), dataKey.getUsed());
    kz::TBuffer<unsigned char> wrappedKey(keyBytes);
    cipher->encrypt(derivedKey, dataKey.getData(), static_cast<int>(keyBytes), wrappedKey, false,
                    iv.getData());
    descriptor.setKzEncryptedEncryptionKey(wrappedKey);
    descriptor.setKzEncryptionKeyHashAlgorithm("sha256");
    kz::TBuffer<unsigned char> keyHash = hashKey(dataKey);
    descriptor.setKzEncryptionKeyHash(keyHash);
    return keyHash;
}

// The extent file names of a new disk: the main file itself for an embedded descriptor's
// first extent, else "<title>-s<index, 5 digits><extension>" counting from 0.
kz::String extentFileName(const kz::CURI& uri, long long index, bool embedDescriptor) {
    if (index == 0 && embedDescriptor) {
        return uri.getName();
    }
    char digits[32];
    std::snprintf(digits, sizeof digits, "%05lld", index);
    return uri.getTitle() + "-s" + kz::String(digits) + uri.getExtension();
}

}  // namespace

kz::P<CVMDKDisk> CVMDKDisk::create(kz::IFileSystem* fileSystem, const kz::CURI& uri,
                                   long long minSizeBytes, const kz::String& password,
                                   bool compressed, int compressionLevel, long long fileSizeLimit,
                                   const kz::String& sParentRelPath, unsigned int parentContentID,
                                   bool createExtentFilesOnDemand) {
    const CCreatePlan plan =
        planDisk(uri, minSizeBytes, compressed, fileSizeLimit, sParentRelPath, parentContentID);
    const kz::P<CVMDKDescriptor> descriptor(new CVMDKDescriptor);
    descriptor->addGenericLine("# Disk DescriptorFile", true);
    descriptor->setVersion(1);
    descriptor->setEncodingUTF8();
    {
        kz::CMutexLock lock(kz::CMTRand::getGlobalInstanceMutex());
        descriptor->setContentID(kz::CMTRand::getGlobal()->rand32());
    }
    if (sParentRelPath.isEmpty()) {
        descriptor->setParentContentID(0xFFFFFFFFu);
    } else {
        descriptor->setParentFileNameHint(sParentRelPath);
        descriptor->setParentContentID(parentContentID);
    }
    descriptor->setCreateType(compressed            ? "streamOptimized"
                              : fileSizeLimit == -1 ? "monolithicSparse"
                                                    : "twoGbMaxExtentSparse");
    if (createExtentFilesOnDemand) {
        descriptor->setKzCreateExtentFilesOnDemand(true);
    }
    kz::TBuffer<unsigned char> keyHash;
    if (!password.isEmpty()) {
        keyHash = setUpNewEncryption(*descriptor, password);
    }
    descriptor->addGenericLine("", true);
    descriptor->addGenericLine("# Extent description", false);
    kz::TArray<std::pair<kz::String, long long>> extents;
    for (long long doneGrains = 0, index = 0; doneGrains < plan.totalGrains; ++index) {
        const long long grainCount = std::min(plan.totalGrains - doneGrains, plan.grainsPerExtent);
        const kz::String name = extentFileName(uri, index, plan.embedDescriptor);
        extents.emplace_back(name, grainCount);
        descriptor->addExtentEntry(
            kz::makeP<CVMDKExtentInfo>("RW", grainCount * kNewGrainSizeSectors, "SPARSE", name, -1)
                .get());
        doneGrains += grainCount;
    }
    descriptor->addGenericLine("", false);
    descriptor->addGenericLine("# The Disk Data Base", false);
    descriptor->addGenericLine("#DDB", false);
    descriptor->setAdapterType("lsilogic");
    descriptor->setGeometrySectors(63);
    descriptor->setGeometryHeads(255);
    descriptor->setGeometryCylinders((plan.sizeBytes / kSectorSizeBytes + 16064) / 16065);

    {
        // The files of a disk that is open elsewhere are not replaced under its user: the lock
        // that opening takes is held while they are written.
        const kz::P<kz::CLockFile> lock(new kz::CLockFile(
            fileSystem, lockFileURI(uri), kz::CLockFile::Exclusive));
        writeNewDiskFiles(fileSystem, uri, plan.embedDescriptor, plan.descriptorSectors,
                          compressed, createExtentFilesOnDemand, *descriptor, extents, keyHash);
    }
    return kz::makeP<CVMDKDisk>(fileSystem, uri, kz::IIOStream::AccessReadWrite, password,
                                compressionLevel, nullptr, nullptr);
}

void CVMDKDisk::writeNewDiskFiles(kz::IFileSystem* fileSystem, const kz::CURI& uri,
                                  bool embedDescriptor, long long descriptorSectors,
                                  bool compressed, bool createExtentFilesOnDemand,
                                  CVMDKDescriptor& descriptor,
                                  const kz::TArray<std::pair<kz::String, long long>>& extents,
                                  const kz::TBuffer<unsigned char>& keyHash) {
    // Every fill below comes from this buffer, so it stays zero.
    kz::TBuffer<unsigned char> zeroBuffer(
        static_cast<size_t>(std::max(descriptorSectors * kSectorSizeBytes, kNewGrainSizeBytes)));
    std::memset(zeroBuffer.getData(), 0, zeroBuffer.getUsed());
    if (!embedDescriptor) {
        const kz::P<kz::IIOStream> stream =
            openVMDKFileStream(fileSystem, uri, kz::IIOStream::AccessReadWrite);
        descriptor.store(*stream, static_cast<int>(descriptorSectors * kSectorSizeBytes),
                         zeroBuffer);
        // A longer file of an earlier disk would leave its tail behind the new descriptor.
        stream->setLength(descriptorSectors * kSectorSizeBytes);
        stream->flush();
        stream->close();
    }
    for (size_t index = 0; index < extents.size(); ++index) {
        const auto& [name, grainCount] = extents[index];
        const kz::CURI extentURI = siblingURI(uri, name);
        // A file of an earlier disk of this name goes, also where no new file takes its place.
        fileSystem->deleteFile(extentURI, true);
        if (createExtentFilesOnDemand && index > 0) {
            continue;
        }
        createEmptyVMDKSparseExtentFile(
            fileSystem, extentURI, compressed, grainCount, kNewGrainSizeSectors, zeroBuffer,
            index == 0 && embedDescriptor ? &descriptor : nullptr, descriptorSectors, keyHash);
    }
}

void CVMDKDisk::takeLock(const kz::CURI& uri) {
    const kz::CURI lockURI = lockFileURI(uri);
    const int lockType =
        access == kz::IIOStream::AccessReadWrite ? kz::CLockFile::Exclusive : kz::CLockFile::Shared;
    try {
        lockFile = kz::makeP<kz::CLockFile>(fileSystem.get(), lockURI, lockType, false, true);
    } catch (const kz::CLockFileError& e) {
        // Tell the user whom the lock waits for, where the lock file says.
        if (const kz::P<kz::CLockHolder> holder = e.getLockHolder()) {
            holder->report();
        }
        if (access != kz::IIOStream::AccessRead || fileSystem->exists(lockURI)) {
            throw;
        }
    } catch (const kz::CError&) {
        // A reader on a medium where no lock file can be made goes on without one; a lock
        // file that exists is another user's, and must be respected.
        if (access != kz::IIOStream::AccessRead || fileSystem->exists(lockURI)) {
            throw;
        }
    }
}

void CVMDKDisk::loadDescriptor(const kz::CURI& uri) {
    // A writer opens files so that a missing one is created; opening must create nothing, so
    // a missing main file fails as it fails for a reader.
    if (access == kz::IIOStream::AccessReadWrite && !fileSystem->exists(mainFileURI)) {
        openVMDKFileStream(fileSystem.get(), mainFileURI, kz::IIOStream::AccessRead);
    }
    {
        // The accessor and its stream go at the end of this block: no stream of the main file
        // stays open behind the descriptor.
        const kz::P<CVMDKDescriptorAccessor> accessor = openDescriptorAccessor();
        descriptor = accessor->getDescriptor();
    }
    if (!descriptor) {
        throw kz::CIOError(kz::CIOError::CorruptFormat, "No descriptor found in main VMDK file.",
                           uriProps(uri));
    }
    const kz::String createType = descriptor->getCreateType();
    if (createType != "twoGbMaxExtentSparse" && createType != "streamOptimized" &&
        createType != "monolithicSparse") {
        throw kz::CIOError(kz::CIOError::CorruptFormat,
                           "VMDK disk has an unsupported create type: '" + createType + "'.",
                           uriProps(uri));
    }
}

void CVMDKDisk::setUpEncryption(const kz::CURI& uri, const kz::String& password) {
    const kz::String algorithm = descriptor->getKzEncryptionAlgorithm();
    if (algorithm != "aes256cbc") {
        throw kz::CError("Unsupported encryption algorithm used in VMDK: " + algorithm,
                         kz::String(), -1, uriProps(uri));
    }
    cipher = kz::makeP<vesk::CCipher_AES256CBC>();
    if (password.isEmpty()) {
        throw kz::CError("VMDK is encrypted but no password provided", kz::String(), -1,
                         uriProps(uri));
    }
    kz::TCryptBuffer<unsigned char> derivedKey;
    deriveEncryptKey(derivedKey, cipher->getKeySize(), password,
                     descriptor->getKzEncryptionKeyDerivationAlgorithm(),
                     descriptor->getKzEncryptionKeyDerivationSalt());
    encryptionIV = descriptor->getKzEncryptionIV();
    // The cipher wants an IV of one block; a descriptor with another is no disk of ours.
    if (encryptionIV.getUsed() != static_cast<size_t>(cipher->getIVSize())) {
        throw kz::CIOError(kz::CIOError::CorruptFormat,
                           "VMDK encryption IV has an invalid size: " +
                               kz::String::number(static_cast<long long>(encryptionIV.getUsed())),
                           uriProps(uri));
    }
    const kz::TBuffer<unsigned char> wrappedKey = descriptor->getKzEncryptedEncryptionKey();
    // Only whole blocks decrypt; a wrapped key of another length cannot be the data key.
    if (wrappedKey.getUsed() != static_cast<size_t>(cipher->getKeySize())) {
        throw kz::CIOError(kz::CIOError::CorruptFormat,
                           "VMDK encrypted key has an invalid size: " +
                               kz::String::number(static_cast<long long>(wrappedKey.getUsed())),
                           uriProps(uri));
    }
    cipher->decrypt(derivedKey, wrappedKey.getData(), static_cast<int>(wrappedKey.getUsed()),
                    encryptionKey, false, encryptionIV.getData());
    const kz::String hashAlgorithm = descriptor->getKzEncryptionKeyHashAlgorithm();
    if (hashAlgorithm != "sha256") {
        throw kz::CError("Unsupported key hash algorithm used in VMDK: " + hashAlgorithm,
                         kz::String(), -1, uriProps(uri));
    }
    const kz::TBuffer<unsigned char> hash = hashKey(encryptionKey);
    encryptionKeyHash = descriptor->getKzEncryptionKeyHash();
    // Decryption under a wrong key gives bytes, not an error: only the hash tells.
    if (encryptionKeyHash.getUsed() != hash.getUsed() ||
        std::memcmp(encryptionKeyHash.getData(), hash.getData(), hash.getUsed()) != 0) {
        throw kz::CError("Specified VMDK encryption password is not correct.", kz::String(), -1,
                         uriProps(uri));
    }
}

void CVMDKDisk::deriveEncryptKey(kz::TCryptBuffer<unsigned char>& key, int keyBytes,
                                 const kz::String& password, const kz::String& algorithm,
                                 const kz::TBuffer<unsigned char>& salt) {
    const char* const where = "CVMDKDisk::deriveEncryptKey";
    // The UTF-8 bytes live only in a buffer that wipes itself.
    kz::TCryptBuffer<unsigned char> passwordBytes;
    {
        std::string utf8 = password.toUTF8();
        passwordBytes.assign(reinterpret_cast<const unsigned char*>(utf8.data()), utf8.size());
        kz::secureZero(utf8.data(), utf8.size());
    }
    key.setUsed(static_cast<size_t>(std::max(keyBytes, 0)));
    const std::string text = algorithm.toUTF8();
    if (text.rfind(kKeyDerivationPrefix, 0) != 0) {
        throw kz::CInvalidArgError(where,
                                   "Unknown encryption key derivation algorithm: " + algorithm);
    }
    const long long iterations =
        kz::parseInt64(kz::String::fromUTF8(text.data() + strlen(kKeyDerivationPrefix),
                                            text.size() - strlen(kKeyDerivationPrefix)),
                       false);
    if (salt.getUsed() < kMinKeyDerivationSaltBytes) {
        throw kz::CInvalidArgError(
            where, "Key derivation salt is too small: " +
                       kz::String::number(static_cast<long long>(salt.getUsed())) + " bytes");
    }
    if (iterations < kMinKeyDerivationIterations) {
        throw kz::CInvalidArgError(
            where, "Key derivation iterations are too small: " + kz::String::number(iterations));
    }
    // The engine counts in int; a count beyond it would take years, so it is refused as well.
    if (iterations > std::numeric_limits<int>::max() ||
        salt.getUsed() > static_cast<size_t>(std::numeric_limits<int>::max())) {
        throw kz::CInvalidArgError(
            where, "Key derivation iterations are too large: " + kz::String::number(iterations));
    }
    vesk::deriveKey_PKCS5_PBKDF2_HMAC_SHA1(
        passwordBytes.getData(), static_cast<int>(passwordBytes.getUsed()), salt.getData(),
        static_cast<int>(salt.getUsed()), static_cast<int>(iterations),
        static_cast<int>(key.getUsed()), key.getData());
}

void CVMDKDisk::readGeometry() {
    // The first extent tells the grain geometry of the whole disk. It is read only, also for
    // a disk opened for writing, and it must exist, also on a disk with on-demand extents.
    const kz::P<kz::IIOStream> stream =
        openVMDKFileStream(fileSystem.get(), firstExtentFileURI, kz::IIOStream::AccessRead);
    long long firstGrainSizeSectors = 0;
    bool firstCompressed = false;
    {
        const kz::P<CVMDKSparseExtentFile> first(new CVMDKSparseExtentFile(
            stream.get(), kz::IIOStream::AccessRead, 0, compressionLevel, grainTableCache.get(),
            nullptr, nullptr, cipher.get(), encryptionKey, encryptionIV));
        firstGrainSizeSectors = first->getGrainSizeSectors();
        firstCompressed = first->getCompressed();
    }
    finishExtentMap(firstGrainSizeSectors, firstCompressed);
}

kz::P<IVMDKExtentFile> CVMDKDisk::makeExtentFile(const kz::CURI& uri, long long startGrainIndex,
                                                 long long rangeSizeSectors) {
    if (createExtentFilesOnDemand && !fileSystem->exists(uri)) {
        return kz::makeP<CVMDKOnDemandExtentFile>(
            fileSystem.get(), uri, access, startGrainIndex, grainSizeSectors, rangeSizeSectors,
            kSectorSizeBytes, compressed, compressionLevel, parentDataProvider.get(),
            grainTableCache.get(), contentIDUpdater.get(), cipher.get(), encryptionKey,
            encryptionIV, encryptionKeyHash);
    }
    // As for the main file: a missing extent file is an error, never an empty new file.
    if (access == kz::IIOStream::AccessReadWrite && !fileSystem->exists(uri)) {
        openVMDKFileStream(fileSystem.get(), uri, kz::IIOStream::AccessRead);
    }
    const kz::P<kz::IIOStream> stream = openVMDKFileStream(fileSystem.get(), uri, access);
    return kz::makeP<CVMDKSparseExtentFile>(stream.get(), access, startGrainIndex, compressionLevel,
                                            grainTableCache.get(), parentDataProvider.get(),
                                            contentIDUpdater.get(), cipher.get(), encryptionKey,
                                            encryptionIV);
}

kz::P<CVMDKDescriptorAccessor> CVMDKDisk::openDescriptorAccessor() {
    kz::P<kz::IIOStream> stream;
    if (currentExtent && currentExtentURI.toNormalized() == mainFileURI) {
        // The open extent holds the main file already: a second stream on it would see
        // neither the extent's unflushed state nor its position.
        if (const auto* sparse = dynamic_cast<CVMDKSparseExtentFile*>(currentExtent.get())) {
            stream = sparse->getStream();
        }
    }
    if (!stream) {
        stream = openVMDKFileStream(fileSystem.get(), mainFileURI, access);
    }
    return kz::makeP<CVMDKDescriptorAccessor>(stream.get(), access);
}

void CVMDKDisk::storeDescriptor() {
    if (access != kz::IIOStream::AccessReadWrite) {
        throw kz::CError(
            "Internal error: CVMDKDisk::storeDescriptor was called, but the disk was not opened "
            "for writing.");
    }
    const kz::P<CVMDKDescriptorAccessor> accessor = openDescriptorAccessor();
    *accessor->getDescriptor() = *descriptor;
    accessor->storeDescriptor(true);
}

void CVMDKDisk::changeParentRelPath(const kz::String& sParentRelPath) {
    if (access != kz::IIOStream::AccessReadWrite) {
        throw kz::CError(
            "Internal error: CVMDKDisk::changeParentRelPath was called, but the disk was not "
            "opened for writing.");
    }
    descriptor->setParentFileNameHint(sParentRelPath);
    storeDescriptor();
}

CVMDKDisk::CVMDKDisk(kz::IFileSystem* fileSystem, const kz::CURI& mainFileURI,
                     kz::IIOStream::Access access, int compressionLevel)
    : fileSystem(fileSystem),
      mainFileURI(mainFileURI.toNormalized()),
      access(access),
      compressionLevel(compressionLevel),
      grainTableCache(new CVMDKGrainTableCache),
      grainSizeSectors(getGrainSizeSectors()),
      grainSizeBytes(getGrainSizeSectors() * kSectorSizeBytes) {
}

void CVMDKDisk::setAutomaticGrainTableFlushingEnabled(bool enabled) {
    const kz::P<CVMDKGrainTableCache> cache = grainTableCache;
    cache->setAutoEnforceLimit(enabled);
}

void CVMDKDisk::setContentIDUpdatesEnabled(bool enabled) {
    if (contentIDUpdater) {
        contentIDUpdater->setContentIDUpdatesEnabled(enabled);
    }
}

CVMDKDisk::~CVMDKDisk() {
    if (access != kz::IIOStream::AccessRead && currentExtent) {
        try {
            currentExtent->flushChanges();
        } catch (const std::exception& e) {
            kz::onExceptionInDestructorIgnored("harl::CVMDKDisk", e, true);
        }
    }
}

void CVMDKDisk::appendExtentRange(const kz::CURI& fileURI, long long rangeSizeSectors) {
    // A disk larger than this could not be addressed in bytes, so such a descriptor is corrupt.
    if (rangeSizeSectors < 0 || rangeSizeSectors > kMaxSizeSectors - sizeSectors) {
        throw kz::CIOError(
            kz::CIOError::CorruptFormat,
            "VMDK disk has an extent of invalid size: " + kz::String::number(rangeSizeSectors),
            kz::CProps().add("uri", mainFileURI.toString(true)));
    }
    if (firstExtentFileURI.isEmpty()) {
        firstExtentFileURI = fileURI;
    }
    if (rangeSizeSectors > 0) {
        extentMap.insert_or_assign(CExtentKey{sizeSectors, rangeSizeSectors},
                                   CExtentValue{fileURI, -1});
    }
    sizeSectors += rangeSizeSectors;
    sizeBytes = sizeSectors * kSectorSizeBytes;
}

void CVMDKDisk::finishExtentMap(long long diskGrainSizeSectors, bool diskCompressed) {
    // Extents hand the grain size on as an int of bytes.
    if (diskGrainSizeSectors <= 0 ||
        diskGrainSizeSectors > std::numeric_limits<int>::max() / kSectorSizeBytes) {
        throw kz::CInvalidArgError(
            "CVMDKDisk::finishExtentMap",
            "Invalid grain size: " + kz::String::number(diskGrainSizeSectors), mainFileProps());
    }
    grainSizeSectors = diskGrainSizeSectors;
    grainSizeBytes = grainSizeSectors * kSectorSizeBytes;
    compressed = diskCompressed;
    for (auto& [key, value] : extentMap) {
        value.startGrainIndex = (key.startSector + grainSizeSectors - 1) / grainSizeSectors;
    }
    sizeBytes = sizeSectors * kSectorSizeBytes;
    currentExtentStartBytes = -1;
    currentExtentSizeBytes = 0;
    position = 0;
}

void CVMDKDisk::seek(long long newPosition) {
    if (newPosition < 0 || newPosition > sizeBytes) {
        throw kz::CIOError(kz::CIOError::BadSeek,
                           "Bad seek position in VMDK disk: " + kz::String::number(newPosition),
                           mainFileProps().add("diskSize", sizeBytes));
    }
    position = newPosition;
}

void CVMDKDisk::read(void* buffer, int bytes) {
    if (bytes > sizeBytes - position) {
        throw kz::CIOError(kz::CIOError::EndOfData, "Read exceeds VMDK disk size.",
                           mainFileProps().add("position", position).add("bytesToRead", bytes));
    }
    auto* out = static_cast<unsigned char*>(buffer);
    kz::P<IVMDKExtentFile> extent;
    long long opBytes = 0;
    while (bytes > 0) {
        beginIOOp(bytes, extent, opBytes);
        extent->read(out, static_cast<int>(opBytes));
        out += opBytes;
        bytes -= static_cast<int>(opBytes);
        position += opBytes;
    }
}

void CVMDKDisk::write(const void* buffer, int bytes) {
    if (bytes > sizeBytes - position) {
        throw kz::CIOError(kz::CIOError::WritePastEnd, "Write exceeds VMDK disk size.",
                           mainFileProps().add("position", position).add("bytesToWrite", bytes));
    }
    if (access != kz::IIOStream::AccessReadWrite) {
        throw kz::CError(kNotWritable);
    }
    const auto* in = static_cast<const unsigned char*>(buffer);
    kz::P<IVMDKExtentFile> extent;
    long long opBytes = 0;
    while (bytes > 0) {
        beginIOOp(bytes, extent, opBytes);
        extent->write(in, static_cast<int>(opBytes));
        in += opBytes;
        bytes -= static_cast<int>(opBytes);
        position += opBytes;
    }
}

void CVMDKDisk::checkPreparedGrainRange(const char* what) const {
    if (grainSizeBytes > sizeBytes - position) {
        throw kz::CIOError(kz::CIOError::WritePastEnd,
                           kz::String("Prepared grain ") + what + " exceeds VMDK disk size.",
                           mainFileProps()
                               .add("position", position)
                               .add("grainSize", grainSizeBytes)
                               .add("diskSize", sizeBytes));
    }
    if (position % grainSizeBytes != 0) {
        throw kz::CIOError(
            kz::CIOError::OffGrainBoundary,
            kz::String("Prepared grain ") + what +
                " in VMDK disk can only be done on a grain boundary.",
            mainFileProps().add("position", position).add("grainSize", grainSizeBytes));
    }
}

void CVMDKDisk::readPreparedGrainData(kz::TBuffer<unsigned char>& buffer) {
    checkPreparedGrainRange("read");
    kz::P<IVMDKExtentFile> extent;
    long long opBytes = 0;
    beginIOOp(grainSizeBytes, extent, opBytes);
    testGrainOpBytes(opBytes, kShortPreparedRead);
    extent->readPreparedGrainData(buffer);
    position += opBytes;
}

void CVMDKDisk::writePreparedGrainData(const kz::TBuffer<unsigned char>& buffer) {
    checkPreparedGrainRange("write");
    if (access != kz::IIOStream::AccessReadWrite) {
        throw kz::CError(kNotWritable);
    }
    kz::P<IVMDKExtentFile> extent;
    long long opBytes = 0;
    beginIOOp(grainSizeBytes, extent, opBytes);
    testGrainOpBytes(opBytes, kShortPreparedWrite);
    extent->writePreparedGrainData(buffer);
    position += opBytes;
}

bool CVMDKDisk::isGrainWritten() {
    kz::P<IVMDKExtentFile> extent;
    long long opBytes = 0;
    beginIOOp(1, extent, opBytes);
    return extent->isGrainWritten();
}

bool CVMDKDisk::isGrainWrittenAndIndependentOfParent() {
    kz::P<IVMDKExtentFile> extent;
    long long opBytes = 0;
    beginIOOp(1, extent, opBytes);
    return extent->isGrainWrittenAndIndependentOfParent();
}

long long CVMDKDisk::makeGrainIndependentOfParent(long long grainIndex) {
    if (access != kz::IIOStream::AccessReadWrite) {
        throw kz::CError(
            "Internal error: CVMDKDisk::makeGrainIndependentOfParent was called, but the disk "
            "was not opened for writing.");
    }
    // An index whose byte position overflows lies far behind any disk; it cannot be named in
    // the seek error, so it gets its own.
    if (grainIndex > std::numeric_limits<long long>::max() / grainSizeBytes ||
        grainIndex < std::numeric_limits<long long>::min() / grainSizeBytes) {
        throw kz::CInvalidArgError("CVMDKDisk::makeGrainIndependentOfParent",
                                   "Invalid grain index: " + kz::String::number(grainIndex),
                                   mainFileProps().add("diskSize", sizeBytes));
    }
    seek(grainIndex * grainSizeBytes);
    kz::P<IVMDKExtentFile> extent;
    long long opBytes = 0;
    beginIOOp(grainSizeBytes, extent, opBytes);
    testGrainOpBytes(opBytes, kShortPreparedWrite);
    const long long result =
        extent->makeGrainIndependentOfParent(grainIndex - extent->getStartGrainIndex());
    position += opBytes;
    return result;
}

void CVMDKDisk::flushChanges() {
    // Only the open extent can hold changes: an extent is flushed whenever it is left.
    if (access != kz::IIOStream::AccessRead && currentExtent) {
        currentExtent->flushChanges();
    }
}

void CVMDKDisk::close() {
    if (!currentExtent) {
        return;
    }
    // A read-only extent has nothing to write; its close only lets the file go.
    currentExtent->close();
    currentExtent = nullptr;
    currentExtentURI = kz::CURI();
}

kz::P<CVMDKSpaceInfo> CVMDKDisk::gatherSpaceInfo() {
    const long long savedPosition = position;
    const kz::P<CVMDKSpaceInfo> result(new CVMDKSpaceInfo);
    try {
        seek(0);
        kz::P<IVMDKExtentFile> extent;
        long long opBytes = 0;
        while (position < sizeBytes) {
            beginIOOp(sizeBytes - position, extent, opBytes);
            result->addSpaceInfo(*extent->gatherSpaceInfo());
            position += opBytes;
        }
    } catch (const std::exception&) {
        position = savedPosition;
        throw;
    }
    seek(savedPosition);
    return result;
}

kz::P<CVMDKDataPreparer> CVMDKDisk::createDataPreparer() const {
    return kz::makeP<CVMDKDataPreparer>(grainSizeSectors, compressed, compressionLevel);
}

void CVMDKDisk::beginIOOp(long long bytes, kz::P<IVMDKExtentFile>& extent, long long& opBytes) {
    // The caller's reference to the previous extent must not keep it alive: a split disk
    // closes one file before it opens the next.
    extent = nullptr;
    // The end of the range is not part of it: a position at an extent's first byte belongs to
    // the next extent. A failing flush leaves the extent open and current.
    if (currentExtent && (position < currentExtentStartBytes ||
                          position - currentExtentStartBytes >= currentExtentSizeBytes)) {
        currentExtent->flushChanges();
        currentExtent = nullptr;
        currentExtentURI = kz::CURI();
    }
    if (!currentExtent) {
        openExtentAtPosition();
    }
    // Sequential work inside one extent needs no extent seek.
    const long long offset = position - currentExtentStartBytes;
    if (currentExtent->getPosition() != offset) {
        currentExtent->seek(offset);
    }
    opBytes = std::min(bytes, currentExtentSizeBytes - offset);
    extent = currentExtent;
}

// The one place where extent objects are made. On failure no extent is open and the same
// position can be tried again.
void CVMDKDisk::openExtentAtPosition() {
    const long long sector = position / kSectorSizeBytes;
    const auto entry = extentMap.lower_bound(CExtentKey{sector, 1});
    if (entry == extentMap.end() || entry->first.startSector > sector) {
        throw kz::CError(
            "Internal error: cannot find VMDK extent for position " + kz::String::number(position),
            kz::String(), -1, kz::CProps().add("mainURI", mainFileURI.toString(true)));
    }
    const CExtentKey& key = entry->first;
    const CExtentValue& value = entry->second;
    try {
        currentExtentURI = value.uri.toNormalized();
        currentExtent = makeExtentFile(currentExtentURI, value.startGrainIndex, key.sizeSectors);
    } catch (const kz::CError& e) {
        currentExtentURI = kz::CURI();
        kz::logError("Error opening VMDK extent file on demand (path: '" +
                         value.uri.toString(true) + "'). Letting exception through.",
                     e, "");
        throw;
    } catch (...) {
        currentExtentURI = kz::CURI();
        throw;
    }
    currentExtentStartBytes = key.startSector * kSectorSizeBytes;
    currentExtentSizeBytes = key.sizeSectors * kSectorSizeBytes;
}

void CVMDKDisk::testGrainOpBytes(long long opBytes, const char* message) const {
    if (opBytes != grainSizeBytes) {
        throw kz::CError(message, kz::String(), -1,
                         mainFileProps()
                             .add("position", position)
                             .add("grainSize", grainSizeBytes)
                             .add("opBytes", opBytes)
                             .add("diskSize", sizeBytes));
    }
}

kz::CProps CVMDKDisk::mainFileProps() const {
    return kz::CProps().add("mainFileURI", mainFileURI.toString(true));
}

}  // namespace harl
