#include "harl/descriptor/CVMDKDescriptor.h"

#include "harl/descriptor/CVMDKExtentInfo.h"
#include "harl/format/VMDKMarkers.h"
#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/foundation/kz/Log.h"
#include "harl/foundation/kz/Text.h"

#include <climits>
#include <cstring>
#include <string>

namespace harl {

namespace {

constexpr unsigned int kNoParentContentID = 0xFFFFFFFF;

bool beginsWith(const kz::String& text, wchar_t c) {
    return !text.isEmpty() && text.at(0) == c;
}

bool isExtent(const kz::P<CVMDKDescriptorEntry>& entry) {
    return dynamic_cast<const CVMDKExtentInfo*>(entry.get()) != nullptr;
}

// The encoding name as compared: lower case, without "_" and "-".
kz::String normalizedEncoding(const kz::String& encoding) {
    return encoding.toLower().replaced("_", "").replaced("-", "");
}

[[noreturn]] void throwOutOfRange(const char* name, const kz::String& text) {
    throw kz::CError(kz::String("VMDK descriptor value '") + name + "' is out of range.",
                     kz::String(), -1, kz::CProps().add("value", text));
}

}  // namespace

kz::P<CVMDKDescriptor::CNameValueEntry> CVMDKDescriptor::CNameValueEntry::tryParse(
    const kz::String& line) {
    const size_t equals = line.find(L'=');
    if (equals == kz::String::npos) {
        return nullptr;
    }
    const kz::String name = line.substring(0, equals).trimmed();
    if (name.isEmpty() || name.find(L' ') != kz::String::npos) {
        return nullptr;
    }
    kz::String value = line.substring(equals + 1).trimmed();
    // A lone quote counts as both the opening and the closing one: an empty quoted value.
    const bool quoted = beginsWith(value, L'"') && value.at(value.getLength() - 1) == L'"';
    if (quoted) {
        value = value.getLength() < 2 ? kz::String() : value.substring(1, value.getLength() - 2);
    }
    return kz::P<CNameValueEntry>(new CNameValueEntry(name, value, quoted));
}

CVMDKDescriptor::CNameValueEntry::CNameValueEntry(const kz::String& name, const kz::String& value,
                                                  bool quoted)
    : name(name), value(value), quoted(quoted) {
}

kz::String CVMDKDescriptor::CNameValueEntry::toString() const {
    const kz::String shown = quoted ? "\"" + value + "\"" : value;
    // The disk database lines are written with blanks around "=", the header lines without.
    return name + (name.startsWith("ddb.") ? " = " : "=") + shown;
}

kz::P<CVMDKDescriptorEntry> CVMDKDescriptor::CNameValueEntry::cloneDescriptorEntry() const {
    return kz::P<CVMDKDescriptorEntry>(new CNameValueEntry(name, value, quoted));
}

kz::P<CVMDKDescriptorEntry> CVMDKDescriptor::CGenericEntry::cloneDescriptorEntry() const {
    return kz::P<CVMDKDescriptorEntry>(new CGenericEntry(line));
}

CVMDKDescriptor::CVMDKDescriptor(const kz::TBuffer<unsigned char>& text) {
    const unsigned char* data = text.getData();
    size_t length = text.getUsed();
    // Padding behind the text is zero; what stands behind the first zero is never looked at.
    if (length > 0) {
        const void* zero = std::memchr(data, 0, length);
        if (zero != nullptr) {
            length = static_cast<size_t>(static_cast<const unsigned char*>(zero) - data);
        }
    }
    // The first pass only finds the "encoding" line, which Latin-1 reads whatever the bytes.
    parseText(kz::String::fromLatin1(data, length));
    parseText(decodeText(data, length));
}

kz::String CVMDKDescriptor::decodeText(const unsigned char* data, size_t length) const {
    kz::String encoding;
    tryGetValue("encoding", encoding);
    const kz::String normalized = normalizedEncoding(encoding);
    try {
        if (normalized.isEmpty() || normalized == "utf8") {
            return kz::String::fromUTF8(data, length);
        }
        if (normalized != "latin1" && normalized != "iso88591") {
            kz::logWarning("Unknown VMDK descriptor encoding '" + encoding +
                           "'. Using Latin-1 instead.");
        }
    } catch (const std::exception& error) {
        kz::logWarning("Ignoring VMDK descriptor decoding error (encoding: '" + encoding +
                           "'. Using Latin-1 encoding instead.",
                       error, kz::String());
    }
    return kz::String::fromLatin1(data, length);
}

void CVMDKDescriptor::parseText(const kz::String& text) {
    entries.clear();
    headerInsertIndex = 0;
    for (const kz::String& line : text.split(L'\n')) {
        if (beginsWith(line, L'#')) {
            entries.push_back(kz::P<CVMDKDescriptorEntry>(new CGenericEntry(line)));
        } else if (kz::P<CNameValueEntry> value = CNameValueEntry::tryParse(line)) {
            entries.emplace_back(value);
        } else if (kz::P<CVMDKExtentInfo> extent = CVMDKExtentInfo::tryParseDescriptorLine(line)) {
            entries.emplace_back(extent);
        } else {
            entries.push_back(kz::P<CVMDKDescriptorEntry>(new CGenericEntry(line)));
        }
    }
    // The piece behind the final line end is no line of its own.
    if (!entries.empty() && entries.back()->toString().isEmpty()) {
        entries.pop_back();
    }
    for (size_t i = 0; i < entries.size() && !isExtent(entries[i]); ++i) {
        if (dynamic_cast<const CNameValueEntry*>(entries[i].get()) != nullptr) {
            headerInsertIndex = static_cast<int>(i) + 1;
        }
    }
}

CVMDKDescriptor& CVMDKDescriptor::operator=(const CVMDKDescriptor& other) {
    if (this == &other) {
        return *this;
    }
    kz::TArray<kz::P<CVMDKDescriptorEntry>> clones;
    clones.reserve(other.entries.size());
    for (const kz::P<CVMDKDescriptorEntry>& entry : other.entries) {
        clones.push_back(entry->cloneDescriptorEntry());
    }
    entries.swap(clones);
    headerInsertIndex = other.headerInsertIndex;
    return *this;
}

kz::P<CVMDKDescriptor::CNameValueEntry> CVMDKDescriptor::findValueEntry(
    const kz::String& name) const {
    const kz::String wanted = name.toLower();
    for (const kz::P<CVMDKDescriptorEntry>& entry : entries) {
        CNameValueEntry* value = dynamic_cast<CNameValueEntry*>(entry.get());
        if (value != nullptr && value->getName().toLower() == wanted) {
            return kz::P<CNameValueEntry>(value);
        }
    }
    return nullptr;
}

bool CVMDKDescriptor::hasValue(const kz::String& name) const {
    return findValueEntry(name) != nullptr;
}

bool CVMDKDescriptor::tryGetValue(const kz::String& name, kz::String& value) const {
    const kz::P<CNameValueEntry> entry = findValueEntry(name);
    value = entry ? entry->getValue() : kz::String();
    return entry != nullptr;
}

kz::String CVMDKDescriptor::getValue(const kz::String& name) const {
    const kz::P<CNameValueEntry> entry = findValueEntry(name);
    if (!entry) {
        throw kz::CError("VMDK descriptor value '" + name + "' not found.");
    }
    return entry->getValue();
}

void CVMDKDescriptor::setValue(const kz::String& name, const kz::String& value, bool quoted,
                               bool inHeader) {
    if (const kz::P<CNameValueEntry> entry = findValueEntry(name)) {
        entry->setValue(value);
        return;
    }
    insertNewLine(kz::P<CVMDKDescriptorEntry>(new CNameValueEntry(name, value, quoted)), inHeader);
}

void CVMDKDescriptor::addGenericLine(const kz::String& line, bool inHeader) {
    insertNewLine(kz::P<CVMDKDescriptorEntry>(new CGenericEntry(line)), inHeader);
}

void CVMDKDescriptor::insertNewLine(const kz::P<CVMDKDescriptorEntry>& entry, bool inHeader) {
    if (!inHeader) {
        entries.push_back(entry);
        return;
    }
    entries.insert(entries.begin() + headerInsertIndex, entry);
    ++headerInsertIndex;
}

void CVMDKDescriptor::addExtentEntry(CVMDKExtentInfo* extent) {
    if (extent == nullptr) {
        throw kz::CInvalidArgError("harl::CVMDKDescriptor::addExtentEntry", "Extent entry is null");
    }
    size_t at = 0;
    while (at < entries.size() && !isExtent(entries[at])) {
        ++at;
    }
    while (at < entries.size() && isExtent(entries[at])) {
        ++at;
    }
    entries.insert(entries.begin() + static_cast<std::ptrdiff_t>(at),
                   kz::P<CVMDKDescriptorEntry>(extent));
}

void CVMDKDescriptor::getExtentEntries(kz::TArray<kz::P<CVMDKExtentInfo>>& out) const {
    for (const kz::P<CVMDKDescriptorEntry>& entry : entries) {
        if (CVMDKExtentInfo* extent = dynamic_cast<CVMDKExtentInfo*>(entry.get())) {
            out.emplace_back(extent);
        }
    }
}

kz::String CVMDKDescriptor::toString() const {
    kz::String text;
    for (const kz::P<CVMDKDescriptorEntry>& entry : entries) {
        text += entry->toString();
        text += L'\n';
    }
    return text;
}

void CVMDKDescriptor::store(kz::IOutStream& out, int targetSize,
                            const kz::TBuffer<unsigned char>& padBuffer) {
    setEncodingUTF8();
    const std::string bytes = toString().toUTF8();
    const long long size = static_cast<long long>(bytes.size());
    if (size > targetSize) {
        throw kz::CError(
            "Internal error: actual VMDK descriptor size exceeds target size (actual size: " +
            kz::String::number(size) + ", target size: " + kz::String::number(targetSize));
    }
    const long long padding = targetSize - size;
    if (static_cast<long long>(padBuffer.getUsed()) < padding) {
        throw kz::CError("Internal error: pad buffer too small (size: " +
                         kz::String::numberUnsigned(padBuffer.getUsed()) +
                         ", needed: " + kz::String::number(padding));
    }
    out.write(bytes.data(), static_cast<int>(size), nullptr);
    vmdkWritePadding(out, static_cast<int>(padding), padBuffer);
}

int CVMDKDescriptor::getVersion() const {
    const kz::String text = getValue("version");
    const long long version = kz::parseInt64(text, false);
    if (version < INT_MIN || version > INT_MAX) {
        throwOutOfRange("version", text);
    }
    return static_cast<int>(version);
}

void CVMDKDescriptor::setVersion(int version) {
    setValue("version", kz::String::number(version), false, true);
}

void CVMDKDescriptor::setEncodingUTF8() {
    setValue("encoding", "UTF-8", true, true);
}

unsigned int CVMDKDescriptor::getContentID() const {
    const kz::String text = getValue("CID");
    const unsigned long long contentID =
        static_cast<unsigned long long>(kz::parseHexInt64(text, false));
    if (contentID > UINT_MAX) {
        throwOutOfRange("CID", text);
    }
    return static_cast<unsigned int>(contentID);
}

void CVMDKDescriptor::setContentID(unsigned int contentID) {
    setValue("CID", kz::String::hex(contentID), false, true);
}

unsigned int CVMDKDescriptor::getParentContentID() const {
    kz::String text;
    if (!tryGetValue("parentCID", text)) {
        return kNoParentContentID;
    }
    const unsigned long long contentID =
        static_cast<unsigned long long>(kz::parseHexInt64(text, true));
    if (contentID > UINT_MAX) {
        throwOutOfRange("parentCID", text);
    }
    return static_cast<unsigned int>(contentID);
}

void CVMDKDescriptor::setParentContentID(unsigned int contentID) {
    setValue("parentCID", kz::String::hex(contentID), false, true);
}

kz::String CVMDKDescriptor::getParentFileNameHint() const {
    return getValue("parentFileNameHint");
}

bool CVMDKDescriptor::tryGetParentFileNameHint(kz::String& hint) const {
    return tryGetValue("parentFileNameHint", hint);
}

void CVMDKDescriptor::setParentFileNameHint(const kz::String& hint) {
    setValue("parentFileNameHint", hint, true, true);
}

kz::String CVMDKDescriptor::getCreateType() const {
    return getValue("createType");
}

void CVMDKDescriptor::setCreateType(const kz::String& createType) {
    setValue("createType", createType, true, true);
}

bool CVMDKDescriptor::getKzCreateExtentFilesOnDemand() const {
    kz::String text;
    return tryGetValue("kzCreateExtentFilesOnDemand", text) && kz::parseBool(text);
}

void CVMDKDescriptor::setKzCreateExtentFilesOnDemand(bool onDemand) {
    setValue("kzCreateExtentFilesOnDemand", onDemand ? "true" : "false", true, true);
}

kz::String CVMDKDescriptor::getKzEncryptionAlgorithm() const {
    kz::String algorithm;
    tryGetValue("kzEncAlg", algorithm);
    return algorithm;
}

void CVMDKDescriptor::setKzEncryptionAlgorithm(const kz::String& algorithm) {
    setValue("kzEncAlg", algorithm, false, true);
}

kz::TBuffer<unsigned char> CVMDKDescriptor::getKzEncryptionIV() const {
    return kz::hexDecode(getValue("kzEncIV"));
}

void CVMDKDescriptor::setKzEncryptionIV(const kz::TBuffer<unsigned char>& iv) {
    setValue("kzEncIV", kz::hexEncode(iv, false), false, true);
}

kz::String CVMDKDescriptor::getKzEncryptionKeyDerivationAlgorithm() const {
    return getValue("kzEncKeyDerivAlg");
}

void CVMDKDescriptor::setKzEncryptionKeyDerivationAlgorithm(const kz::String& algorithm) {
    setValue("kzEncKeyDerivAlg", algorithm, false, true);
}

kz::TBuffer<unsigned char> CVMDKDescriptor::getKzEncryptionKeyDerivationSalt() const {
    return kz::hexDecode(getValue("kzEncKeyDerivSalt"));
}

void CVMDKDescriptor::setKzEncryptionKeyDerivationSalt(const kz::TBuffer<unsigned char>& salt) {
    setValue("kzEncKeyDerivSalt", kz::hexEncode(salt, false), false, true);
}

kz::TBuffer<unsigned char> CVMDKDescriptor::getKzEncryptionKeyHash() const {
    return kz::hexDecode(getValue("kzEncKeyHash"));
}

void CVMDKDescriptor::setKzEncryptionKeyHash(const kz::TBuffer<unsigned char>& hash) {
    setValue("kzEncKeyHash", kz::hexEncode(hash, false), false, true);
}

kz::String CVMDKDescriptor::getKzEncryptionKeyHashAlgorithm() const {
    return getValue("kzEncKeyHashAlg");
}

void CVMDKDescriptor::setKzEncryptionKeyHashAlgorithm(const kz::String& algorithm) {
    setValue("kzEncKeyHashAlg", algorithm, false, true);
}

kz::TBuffer<unsigned char> CVMDKDescriptor::getKzEncryptedEncryptionKey() const {
    return kz::hexDecode(getValue("kzEncEncKey"));
}

void CVMDKDescriptor::setKzEncryptedEncryptionKey(const kz::TBuffer<unsigned char>& key) {
    setValue("kzEncEncKey", kz::hexEncode(key, false), false, true);
}

kz::String CVMDKDescriptor::getAdapterType() const {
    return getValue("ddb.adapterType");
}

void CVMDKDescriptor::setAdapterType(const kz::String& adapterType) {
    setValue("ddb.adapterType", adapterType, true, false);
}

long long CVMDKDescriptor::getGeometryCylinders() const {
    return kz::parseInt64(getValue("ddb.geometry.cylinders"), false);
}

void CVMDKDescriptor::setGeometryCylinders(long long cylinders) {
    setValue("ddb.geometry.cylinders", kz::String::number(cylinders), true, false);
}

long long CVMDKDescriptor::getGeometryHeads() const {
    return kz::parseInt64(getValue("ddb.geometry.heads"), false);
}

void CVMDKDescriptor::setGeometryHeads(long long heads) {
    setValue("ddb.geometry.heads", kz::String::number(heads), true, false);
}

long long CVMDKDescriptor::getGeometrySectors() const {
    return kz::parseInt64(getValue("ddb.geometry.sectors"), false);
}

void CVMDKDescriptor::setGeometrySectors(long long sectors) {
    setValue("ddb.geometry.sectors", kz::String::number(sectors), true, false);
}

}  // namespace harl
