#include "harl/format/VMDKFileReference.h"
#include "harl/foundation/kz/CBadPathError.h"
#include "harl/foundation/kz/CError.h"

#include <gtest/gtest.h>

namespace {

using harl::vmdkFileReferenceToURI;
using kz::CURI;
using kz::String;

// The folders of a descriptor written on a Unix system and on a Windows system.
const CURI kUnixFolder = CURI("file:///vms/disks/disk.vmdk").getParent();
const CURI kWindowsFolder = CURI("file:///C:/vms/disks/disk.vmdk").getParent();

String resolve(const CURI& folder, const String& reference) {
    return vmdkFileReferenceToURI(folder, reference).toString(false);
}

TEST(VMDKFileReferenceTest, ResolvesRelativeReferencesAgainstTheFolder) {
    EXPECT_EQ(resolve(kUnixFolder, "disk-s001.vmdk"), "file:///vms/disks/disk-s001.vmdk");
    EXPECT_EQ(resolve(kWindowsFolder, "disk-s001.vmdk"), "file:///C:/vms/disks/disk-s001.vmdk");
    for (const char* reference : {"..\\base.vmdk", "../base.vmdk", ".\\x\\..\\..\\base.vmdk"}) {
        EXPECT_EQ(resolve(kUnixFolder, reference), "file:///vms/base.vmdk") << reference;
        EXPECT_EQ(resolve(kWindowsFolder, reference), "file:///C:/vms/base.vmdk") << reference;
    }
    EXPECT_EQ(resolve(kUnixFolder, "..\\..\\disk.vmdk"), "file:///disk.vmdk");
    EXPECT_EQ(resolve(kWindowsFolder, "..\\..\\..\\disk.vmdk"), "file:///C:/disk.vmdk");
    EXPECT_EQ(resolve(kUnixFolder, "dir/a:b.vmdk"), "file:///vms/disks/dir/a:b.vmdk");
    EXPECT_EQ(resolve(kUnixFolder, ":a.vmdk"), "file:///vms/disks/:a.vmdk");
    EXPECT_EQ(resolve(kUnixFolder, ":a\\b.vmdk"), "file:///vms/disks/:a/b.vmdk");
    EXPECT_EQ(resolve(kUnixFolder, ""), "file:///vms/disks/");
    EXPECT_EQ(resolve(kUnixFolder, "my disk\\Bände-s001.vmdk"),
              "file:///vms/disks/my%20disk/B%C3%A4nde-s001.vmdk");
    EXPECT_EQ(resolve(kUnixFolder, "a%20b.vmdk"), "file:///vms/disks/a%2520b.vmdk");
}

TEST(VMDKFileReferenceTest, KeepsAbsoluteReferencesWhateverTheFolder) {
    for (const CURI& folder : {kUnixFolder, kWindowsFolder}) {
        EXPECT_EQ(resolve(folder, "C:\\images\\disk.vmdk"), "file:///C:/images/disk.vmdk");
        EXPECT_EQ(resolve(folder, "c:/images/./disk.vmdk"), "file:///C:/images/disk.vmdk");
        EXPECT_EQ(resolve(folder, "/images/disk.vmdk"), "file:///images/disk.vmdk");
        EXPECT_EQ(resolve(folder, "\\\\server\\share\\disk.vmdk"), "file://server/share/disk.vmdk");
        EXPECT_EQ(resolve(folder, "file:///images/../disk.vmdk"), "file:///disk.vmdk");
        EXPECT_EQ(resolve(folder, "FILE://LOCALHOST/images/disk.vmdk"), "file:///images/disk.vmdk");
    }
    // Rooted without a drive: the drive of the folder, if it has one.
    EXPECT_EQ(resolve(kWindowsFolder, "\\images\\disk.vmdk"), "file:///C:/images/disk.vmdk");
    EXPECT_EQ(resolve(kUnixFolder, "\\images\\disk.vmdk"), "file:///images/disk.vmdk");

    // A drive without a separator reads as a URI whose scheme is the letter.
    const CURI drive = vmdkFileReferenceToURI(kUnixFolder, "C:disk.vmdk");
    EXPECT_TRUE(drive.isAbsolute());
    EXPECT_EQ(drive.getScheme(), "c");
    EXPECT_EQ(drive.getPath(), "disk.vmdk");
}

TEST(VMDKFileReferenceTest, ReportsBadPathsAndBadURIs) {
    try {
        vmdkFileReferenceToURI(kUnixFolder, "C:\\..\\disk.vmdk");
        ADD_FAILURE() << "a path above its root was accepted";
    } catch (const kz::CBadPathError& e) {
        EXPECT_EQ(e.getMessage(), "Invalid path: C:\\..\\disk.vmdk");
    }
    EXPECT_THROW(vmdkFileReferenceToURI(kUnixFolder, "http://host/%zz"), kz::CError);
    EXPECT_THROW(vmdkFileReferenceToURI(kUnixFolder, "disk 1:a.vmdk"), kz::CError);
    EXPECT_THROW(vmdkFileReferenceToURI(kUnixFolder, "1:\\b.vmdk"), kz::CError);  // no drive
}

}  // namespace
