#pragma once

#include "harl/descriptor/CVMDKDescriptorEntry.h"
#include "harl/foundation/kz/P.h"
#include "harl/foundation/kz/String.h"

namespace harl {

// The descriptor line of one extent: its access, its size, its kind and the file that holds
// it. It is a line of the descriptor text and the record from which a disk builds its extent
// map. Its fields are set by the constructor and never change.
//
// Line grammar: access, one or more blanks, the size in sectors in decimal, one or more
// blanks, the type, one or more blanks, the file name in double quotes, and optionally white
// space and a decimal offset:
//
//     RW 4192256 SPARSE "disk-s001.vmdk"
//     RW 2048 FLAT "flat.vmdk" 0
//
// Only a blank separates words, not a tab. Access and type are not interpreted here. A file
// name may hold blanks and "=", but not a double quote: the name ends at the second quote of
// the line. A line without a quoted name (the line of an extent without a file) is no extent
// line.
class CVMDKExtentInfo : public CVMDKDescriptorEntry {
public:
    // `offset` -1 stands for a line without an offset.
    CVMDKExtentInfo(const kz::String& access, long long sizeSectors, const kz::String& type,
                    const kz::String& filename, long long offset);

    kz::String getAccess() const { return access; }

    long long getSizeSectors() const { return sizeSectors; }

    kz::String getType() const { return type; }

    kz::String getFilename() const { return filename; }

    // The offset as the line gives it, or -1 when the line has none.
    long long getOffset() const { return offset; }

    // `<access> <sizeSectors> <type> "<filename>"`, single blanks, behind it ` <offset>` when
    // there is one.
    kz::String toString() const override;
    kz::P<CVMDKDescriptorEntry> cloneDescriptorEntry() const override;

    // The entry of an extent line, or null when `line` does not follow the grammar above. A
    // refused line is no error: nothing is thrown.
    static kz::P<CVMDKExtentInfo> tryParseDescriptorLine(const kz::String& line);

private:
    kz::String access;
    long long sizeSectors;
    kz::String type;
    kz::String filename;
    long long offset;
};

}  // namespace harl
