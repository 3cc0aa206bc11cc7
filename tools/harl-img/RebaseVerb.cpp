#include "harl/disk/CVMDKDisk.h"
#include "harl/format/VMDKFileReference.h"
#include "harl/foundation/kz/CError.h"

#include "CSourceImage.h"
#include "CommandLine.h"
#include "Verbs.h"

#include <iostream>

namespace harlimg {

namespace {

struct CRebaseArguments {
    CCommonOptions common;
    bool unsafe = false;
    std::string backingFile;
    std::string backingFormat;
    std::string passwordFile;
    std::string file;
};

// Warns when the new parent would not serve the child: missing, unreadable, or of another
// content than the child recorded.
void warnAboutNewParent(kz::IFileSystem* fileSystem, const harl::CVMDKDisk& child,
                        const std::string& reference) {
    try {
        const kz::CURI uri =
            harl::vmdkFileReferenceToURI(child.getMainFileURI().getParent(), reference);
        const unsigned int contentID = readDescriptor(fileSystem, uri)->getContentID();
        if (contentID != child.getDescriptor()->getParentContentID()) {
            std::cerr << "harl-img: warning: '" << reference
                      << "' has another content ID than the child recorded for its parent; "
                         "the child will not open until they agree"
                      << std::endl;
        }
    } catch (const std::exception& e) {
        std::cerr << "harl-img: warning: the new parent cannot be read: " << e.what() << std::endl;
    }
}

int runRebase(CRebaseArguments& a) {
    if (!a.unsafe) {
        throw kz::CError("Only rebase -u is supported: it names a new parent file, copies no data");
    }
    if (a.backingFile.empty() || (!a.backingFormat.empty() && a.backingFormat != "vmdk")) {
        throw kz::CError("rebase -u needs the new parent's file name (-b) of a VMDK disk");
    }
    const kz::P<CConfinedFileSystem> fileSystem = makeFileSystem(a.common, {a.file});
    const kz::CURI uri = uriOfPath(a.file);
    const kz::String password =
        CSourceImage::passwordFor(fileSystem.get(), uri, a.file, a.passwordFile);
    const kz::P<harl::CVMDKDisk> disk = kz::makeP<harl::CVMDKDisk>(
        fileSystem.get(), uri, kz::IIOStream::AccessReadWrite, password, -1, nullptr, nullptr);
    if (disk->getParentDiskMainURI().isEmpty()) {
        throw kz::CError("'" + a.file + "' has no parent to replace");
    }
    warnAboutNewParent(fileSystem.get(), *disk, a.backingFile);
    disk->changeParentRelPath(a.backingFile);
    disk->flushChanges();
    return 0;
}

}  // namespace

void addRebaseVerb(CLI::App& app, int& exitCode) {
    auto arguments = std::make_shared<CRebaseArguments>();
    CLI::App* verb = app.add_subcommand(
        "rebase", "Point a differencing disk at another parent file (-u: no data is copied)");
    verb->add_flag("-u", arguments->unsafe, "Change the parent's file name only");
    verb->add_option("-b,--backing", arguments->backingFile,
                     "The new parent, relative to the disk's folder")
        ->required();
    verb->add_option("-F", arguments->backingFormat, "Format of the new parent (vmdk)");
    verb->add_option("--password-file", arguments->passwordFile,
                     "File whose first line is the disk's password");
    addAllowDirOption(*verb, arguments->common);
    verb->add_option("filename", arguments->file, "The differencing disk")->required();
    verb->callback([arguments, &exitCode] { exitCode = runRebase(*arguments); });
}

}  // namespace harlimg
