#pragma once

#include "harl/descriptor/CVMDKDescriptorEntry.h"
#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/Containers.h"
#include "harl/foundation/kz/IOutStream.h"
#include "harl/foundation/kz/P.h"
#include "harl/foundation/kz/String.h"
#include "harl/foundation/kz/TBuffer.h"

namespace harl {

class CVMDKExtentInfo;

// A descriptor text in memory, as an ordered list of lines. Every line is kept with its
// place, so that a descriptor this library did not write goes back with its comments, its
// unknown keys and its order.
//
// Text format: lines end in "\n"; a carriage return is part of its line. The text ends at the
// first zero byte, so that zero padding may stand behind it. Each line is, by the first rule
// that holds:
//
// | line                                   | entry           | written back as               |
// |----------------------------------------|-----------------|-------------------------------|
// | "#" in the first column                | CGenericEntry   | unchanged                     |
// | <name>=<value>, name without blanks    | CNameValueEntry | "ddb." names: `n = v`, others |
// |                                        |                 | `n=v`; value in quotes when   |
// |                                        |                 | it was read so                |
// | an extent line (see CVMDKExtentInfo)   | CVMDKExtentInfo | by its grammar                |
// | anything else                          | CGenericEntry   | unchanged                     |
//
// The "encoding" value names the character set of the text: UTF-8 when it is missing or says
// so ("UTF-8", "utf_8", ...), Latin-1 for "ISO-8859-1" or "latin1" and, with a warning, for
// anything else or for bytes that are not valid UTF-8. `store` always writes UTF-8 and says so.
//
// Value lookups compare names without regard to case, and the first match wins; duplicate
// lines stay and are written back.
class CVMDKDescriptor : public kz::CBase {
public:
    // A `<name>=<value>` line.
    class CNameValueEntry : public CVMDKDescriptorEntry {
    public:
        // `value` without its quotes; `quoted` says whether it is written between them.
        CNameValueEntry(const kz::String& name, const kz::String& value, bool quoted);

        const kz::String& getName() const { return name; }

        const kz::String& getValue() const { return value; }

        void setValue(const kz::String& newValue) { value = newValue; }

        bool isQuoted() const { return quoted; }

        kz::String toString() const override;
        kz::P<CVMDKDescriptorEntry> cloneDescriptorEntry() const override;

        // The entry of a value line, or null: a line without "=", or whose name (trimmed) is
        // empty or holds a blank, is no value line.
        static kz::P<CNameValueEntry> tryParse(const kz::String& line);

    private:
        kz::String name;
        kz::String value;
        bool quoted;
    };

    // A comment, an empty line or any line no other entry accepts, kept as it stood.
    class CGenericEntry : public CVMDKDescriptorEntry {
    public:
        explicit CGenericEntry(const kz::String& line) : line(line) {}

        const kz::String& getLine() const { return line; }

        kz::String toString() const override { return line; }

        kz::P<CVMDKDescriptorEntry> cloneDescriptorEntry() const override;

    private:
        kz::String line;
    };

    CVMDKDescriptor() = default;
    // Parses `text` up to its first zero byte or its used length. Never fails on content: what
    // no rule accepts becomes a generic line. The buffer is not kept.
    explicit CVMDKDescriptor(const kz::TBuffer<unsigned char>& text);
    // Shares the entries with `other`: a value changed through one shows in the other.
    CVMDKDescriptor(const CVMDKDescriptor& other) = default;
    // Replaces the entries with clones of `other`'s, so that the two are independent.
    CVMDKDescriptor& operator=(const CVMDKDescriptor& other);

    const kz::TArray<kz::P<CVMDKDescriptorEntry>>& getEntries() const { return entries; }

    // Where a new header line goes: behind the last value line ahead of the first extent.
    int getHeaderInsertIndex() const { return headerInsertIndex; }

    bool hasValue(const kz::String& name) const;
    // False, with `value` emptied, when the key is missing.
    bool tryGetValue(const kz::String& name, kz::String& value) const;
    // Throws CError "VMDK descriptor value '<name>' not found." when the key is missing.
    kz::String getValue(const kz::String& name) const;

    // Changes the value of the first line of that name and nothing else of it: its quoting,
    // its spelling of the name and its place stay, and both flags are ignored. Without such a
    // line, adds one: in the header (at the header insert index, which moves behind it) when
    // `inHeader`, else at the end.
    void setValue(const kz::String& name, const kz::String& value, bool quoted, bool inHeader);
    // Adds a generic line, placed as setValue places a new line.
    void addGenericLine(const kz::String& line, bool inHeader);
    // Keeps a reference to `extent` and inserts it behind the first unbroken run of extent
    // lines, or at the end when there is none. Throws CInvalidArgError for null.
    void addExtentEntry(CVMDKExtentInfo* extent);
    // Appends every extent line to `out` in file order; `out` is not cleared first.
    void getExtentEntries(kz::TArray<kz::P<CVMDKExtentInfo>>& out) const;

    // Every line followed by "\n".
    kz::String toString() const;

    // Sets the "encoding" line to UTF-8, then writes the text as UTF-8 at the stream's position
    // followed by `targetSize` minus its size bytes of `padBuffer`, which the caller keeps zero
    // so that a reader finds the end of the text. Throws an internal CError, with nothing
    // written, when the text is longer than `targetSize` or `padBuffer` shorter than the
    // padding; the "encoding" line is set all the same.
    void store(kz::IOutStream& out, int targetSize, const kz::TBuffer<unsigned char>& padBuffer);

    // The keys this library reads and writes. A getter of a missing key throws as getValue
    // unless said otherwise; malformed text throws what the number or hex parse throws, and a
    // number outside the getter's type throws a CError.
    int getVersion() const;
    void setVersion(int version);
    void setEncodingUTF8();
    unsigned int getContentID() const;
    void setContentID(unsigned int contentID);
    // 0xFFFFFFFF, "no parent", when the key is missing.
    unsigned int getParentContentID() const;
    void setParentContentID(unsigned int contentID);
    kz::String getParentFileNameHint() const;
    bool tryGetParentFileNameHint(kz::String& hint) const;
    void setParentFileNameHint(const kz::String& hint);
    kz::String getCreateType() const;
    void setCreateType(const kz::String& createType);
    // False when the key is missing.
    bool getKzCreateExtentFilesOnDemand() const;
    void setKzCreateExtentFilesOnDemand(bool onDemand);
    // Empty when the key is missing.
    kz::String getKzEncryptionAlgorithm() const;
    void setKzEncryptionAlgorithm(const kz::String& algorithm);
    kz::TBuffer<unsigned char> getKzEncryptionIV() const;
    void setKzEncryptionIV(const kz::TBuffer<unsigned char>& iv);
    kz::String getKzEncryptionKeyDerivationAlgorithm() const;
    void setKzEncryptionKeyDerivationAlgorithm(const kz::String& algorithm);
    kz::TBuffer<unsigned char> getKzEncryptionKeyDerivationSalt() const;
    void setKzEncryptionKeyDerivationSalt(const kz::TBuffer<unsigned char>& salt);
    kz::TBuffer<unsigned char> getKzEncryptionKeyHash() const;
    void setKzEncryptionKeyHash(const kz::TBuffer<unsigned char>& hash);
    kz::String getKzEncryptionKeyHashAlgorithm() const;
    void setKzEncryptionKeyHashAlgorithm(const kz::String& algorithm);
    kz::TBuffer<unsigned char> getKzEncryptedEncryptionKey() const;
    void setKzEncryptedEncryptionKey(const kz::TBuffer<unsigned char>& key);
    kz::String getAdapterType() const;
    void setAdapterType(const kz::String& adapterType);
    long long getGeometryCylinders() const;
    void setGeometryCylinders(long long cylinders);
    long long getGeometryHeads() const;
    void setGeometryHeads(long long heads);
    long long getGeometrySectors() const;
    void setGeometrySectors(long long sectors);

protected:
    // The first value line whose name equals `name` without regard to case, or null.
    kz::P<CNameValueEntry> findValueEntry(const kz::String& name) const;

private:
    // Replaces the entries with the lines of `text` and places the header insert index.
    void parseText(const kz::String& text);
    kz::String decodeText(const unsigned char* data, size_t length) const;
    void insertNewLine(const kz::P<CVMDKDescriptorEntry>& entry, bool inHeader);

    kz::TArray<kz::P<CVMDKDescriptorEntry>> entries;
    int headerInsertIndex = 0;
};

}  // namespace harl
