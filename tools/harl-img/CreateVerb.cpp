#include "harl/disk/CVMDKDisk.h"
#include "harl/format/VMDKFileReference.h"
#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CLocalFileSystem.h"

#include "CommandLine.h"
#include "Verbs.h"

#include <iostream>

namespace harlimg {

namespace {

struct CCreateArguments {
    CCommonOptions common;
    CTargetOptions target;
    std::string format = "vmdk";
    std::string backingFormat;
    std::string file;
    std::string size;
};

// The parent's URI, content ID and size, from its descriptor; its folder becomes allowed.
struct CParent {
    kz::CURI uri;
    unsigned int contentID = 0xFFFFFFFF;
    long long sizeBytes = 0;
};

CParent readParent(CConfinedFileSystem& fileSystem, const kz::CURI& childURI,
                   const std::string& reference) {
    CParent parent;
    parent.uri = harl::vmdkFileReferenceToURI(childURI.getParent(), reference);
    fileSystem.allowFolder(
        std::filesystem::path(kz::CLocalFileSystem::toLocalPath(parent.uri).toUTF8())
            .parent_path());
    const kz::P<harl::CVMDKDescriptor> descriptor = readDescriptor(&fileSystem, parent.uri);
    parent.contentID = descriptor->getContentID();
    parent.sizeBytes = descriptorSizeBytes(*descriptor);
    return parent;
}

std::string describe(const CCreateArguments& a, long long sizeBytes) {
    std::string text = "Formatting '" + a.file + "', fmt=vmdk size=" + std::to_string(sizeBytes);
    text += a.target.compressed ? " subformat=streamOptimized" : "";
    if (a.target.fileSizeLimit > 0) {
        text += " split_size=" + std::to_string(a.target.fileSizeLimit);
    }
    text += a.target.onDemand ? " on_demand=on" : "";
    text += a.target.encrypted ? " encrypt=on" : "";
    return text + (a.target.backingFile.empty() ? "" : " backing_file=" + a.target.backingFile);
}

int runCreate(CCreateArguments& a) {
    applyTargetOptionList(a.target);
    if (a.format != "vmdk" || (!a.backingFormat.empty() && a.backingFormat != "vmdk")) {
        throw kz::CError("create makes VMDK disks only (-f vmdk, -F vmdk)");
    }
    const kz::P<CConfinedFileSystem> fileSystem = makeFileSystem(a.common, {a.file});
    const kz::CURI uri = uriOfPath(a.file);
    CParent parent;
    if (!a.target.backingFile.empty()) {
        parent = readParent(*fileSystem, uri, a.target.backingFile);
    }
    const long long sizeBytes = !a.size.empty() ? parseSizeBytes(a.size) : parent.sizeBytes;
    if (sizeBytes <= 0) {
        throw kz::CError("create needs a size, or a parent (-b) whose size the disk takes");
    }
    const kz::String password =
        a.target.encrypted ? obtainPassword(a.target.passwordFile, a.file, true) : kz::String();
    if (!a.common.quiet) {
        std::cout << describe(a, sizeBytes) << std::endl;
    }
    const kz::P<harl::CVMDKDisk> disk = harl::CVMDKDisk::create(
        fileSystem.get(), uri, sizeBytes, password, a.target.compressed, a.target.compressionLevel,
        a.target.fileSizeLimit, a.target.backingFile, parent.contentID, a.target.onDemand);
    disk->flushChanges();
    return 0;
}

}  // namespace

void addCreateVerb(CLI::App& app, int& exitCode) {
    auto arguments = std::make_shared<CCreateArguments>();
    CLI::App* verb = app.add_subcommand("create", "Create a new VMDK disk");
    verb->add_option("-f", arguments->format, "Format of the new image (vmdk)");
    verb->add_option("-b,--backing", arguments->target.backingFile,
                     "Parent disk, relative to the new disk's folder: a differencing disk");
    verb->add_option("-F", arguments->backingFormat, "Format of the parent (vmdk)");
    addTargetOptions(*verb, arguments->target, "--password-file");
    addAllowDirOption(*verb, arguments->common);
    verb->add_flag("-q,--quiet", arguments->common.quiet, "Print nothing but errors");
    verb->add_option("filename", arguments->file, "The new disk's main file")->required();
    verb->add_option("size", arguments->size, "Virtual size: bytes or K, M, G, T");
    verb->callback([arguments, &exitCode] { exitCode = runCreate(*arguments); });
}

}  // namespace harlimg
