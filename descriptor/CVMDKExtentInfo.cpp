#include "harl/descriptor/CVMDKExtentInfo.h"

#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/Text.h"

namespace harl {

namespace {

// Splits the first word off `rest`, which is trimmed on the left first. False when no blank
// follows the word.
bool takeWord(kz::String& rest, kz::String& word) {
    rest = rest.trimmedLeft();
    const size_t blank = rest.find(L' ');
    if (blank == kz::String::npos) {
        return false;
    }
    word = rest.substring(0, blank);
    rest = rest.substring(blank + 1);
    return true;
}

// Whether `word` has the form parseInt64 accepts: a sign, then at least one digit. Words of
// other forms are refused without the cost of an exception, which matters for long texts that
// are not descriptors at all; a number out of range is still refused by the parse.
bool looksDecimal(const kz::String& word) {
    const size_t start = !word.isEmpty() && (word.at(0) == L'-' || word.at(0) == L'+') ? 1 : 0;
    if (start == word.getLength()) {
        return false;
    }
    for (size_t i = start; i < word.getLength(); ++i) {
        if (word.at(i) < L'0' || word.at(i) > L'9') {
            return false;
        }
    }
    return true;
}

}  // namespace

CVMDKExtentInfo::CVMDKExtentInfo(const kz::String& access, long long sizeSectors,
                                 const kz::String& type, const kz::String& filename,
                                 long long offset)
    : access(access), sizeSectors(sizeSectors), type(type), filename(filename), offset(offset) {
}

kz::String CVMDKExtentInfo::toString() const {
    kz::String line =
        access + " " + kz::String::number(sizeSectors) + " " + type + " \"" + filename + "\"";
    if (offset != -1) {
        line += " " + kz::String::number(offset);
    }
    return line;
}

kz::P<CVMDKDescriptorEntry> CVMDKExtentInfo::cloneDescriptorEntry() const {
    return kz::P<CVMDKDescriptorEntry>(
        new CVMDKExtentInfo(access, sizeSectors, type, filename, offset));
}

kz::P<CVMDKExtentInfo> CVMDKExtentInfo::tryParseDescriptorLine(const kz::String& line) {
    try {
        // The access word is not trimmed: a line that begins with a blank has an empty one.
        const size_t blank = line.find(L' ');
        if (blank == kz::String::npos) {
            return nullptr;
        }
        const kz::String access = line.substring(0, blank);
        kz::String rest = line.substring(blank + 1);
        kz::String sizeWord;
        kz::String type;
        if (!takeWord(rest, sizeWord) || !looksDecimal(sizeWord)) {
            return nullptr;
        }
        const long long sizeSectors = kz::parseInt64(sizeWord, false);
        if (!takeWord(rest, type)) {
            return nullptr;
        }
        rest = rest.trimmedLeft();
        if (rest.isEmpty() || rest.at(0) != L'"') {
            return nullptr;
        }
        const size_t closingQuote = rest.find(L'"', 1);
        if (closingQuote == kz::String::npos) {
            return nullptr;
        }
        const kz::String filename = rest.substring(1, closingQuote - 1);
        rest = rest.substring(closingQuote + 1).trimmed();
        if (!rest.isEmpty() && !looksDecimal(rest)) {
            return nullptr;
        }
        const long long offset = rest.isEmpty() ? -1 : kz::parseInt64(rest, false);
        return kz::P<CVMDKExtentInfo>(
            new CVMDKExtentInfo(access, sizeSectors, type, filename, offset));
    } catch (const kz::CError&) {
        // Text that is no number: the line is simply no extent line.
        return nullptr;
    }
}

}  // namespace harl
