#include "harl/descriptor/CVMDKExtentInfo.h"
#include "harl/disk/CVMDKImportDisk.h"
#include "harl/disk/CVMDKParentDiskDataProvider.h"
#include "harl/format/VMDKFileReference.h"
#include "harl/foundation/kz/CFileSystemError.h"
#include "harl/foundation/kz/CLocalFileSystem.h"

#include "CSourceImage.h"
#include "CommandLine.h"
#include "Verbs.h"

#include <cstdio>
#include <iostream>
#include <nlohmann/json.hpp>
#include <set>
#include <vector>

namespace harlimg {

namespace {

using Json = nlohmann::ordered_json;

struct CInfoArguments {
    CCommonOptions common;
    std::string format;
    std::string passwordFile;
    std::string file;
};

std::string hex8(unsigned int value) {
    char text[16];
    std::snprintf(text, sizeof text, "%08x", value);
    return text;
}

std::string pathOf(const kz::CURI& uri) {
    return kz::CLocalFileSystem::toLocalPath(uri).toUTF8();
}

long long fileSize(kz::IFileSystem& fileSystem, const kz::CURI& uri) {
    return fileSystem.open(uri, kz::IIOStream::AccessRead, 0)->getLength();
}

// One extent line as info shows it.
struct CExtentRow {
    std::string filename;
    std::string type;
    long long sizeSectors = 0;
    // Empty for a ZERO extent, which has no file.
    kz::CURI uri;
};

std::vector<CExtentRow> extentRowsOf(const CSourceImage& image) {
    std::vector<CExtentRow> rows;
    if (const auto* imported = dynamic_cast<const harl::CVMDKImportDisk*>(image.getDisk())) {
        for (const harl::CVMDKImportDisk::CExtentLine& line : imported->getExtentLines()) {
            rows.push_back(
                {line.filename.toUTF8(), line.type.toUTF8(), line.sizeSectors, line.uri});
        }
        return rows;
    }
    kz::TArray<kz::P<harl::CVMDKExtentInfo>> lines;
    image.getDisk()->getDescriptor()->getExtentEntries(lines);
    for (const kz::P<harl::CVMDKExtentInfo>& line : lines) {
        rows.push_back(
            {line->getFilename().toUTF8(), line->getType().toUTF8(), line->getSizeSectors(),
             harl::vmdkFileReferenceToURI(image.getURI().getParent(), line->getFilename())});
    }
    return rows;
}

// Every extent line with its file's size; a file that does not exist (yet), and the missing
// file of a ZERO extent, have size null. A file that cannot be reached (outside the allowed
// folders) is shown with the error.
Json describeExtents(kz::IFileSystem& fileSystem, const CSourceImage& image,
                     long long& actualSize) {
    Json extents = Json::array();
    for (const CExtentRow& row : extentRowsOf(image)) {
        const bool hasFile = !row.uri.isEmpty();
        Json extent = {{"filename", row.filename},
                       {"path", hasFile ? Json(pathOf(row.uri)) : Json()},
                       {"type", row.type},
                       {"size-sectors", row.sizeSectors},
                       {"file-size", nullptr}};
        try {
            if (hasFile && fileSystem.exists(row.uri)) {
                extent["file-size"] = fileSize(fileSystem, row.uri);
                actualSize += extent["file-size"].get<long long>();
            }
        } catch (const kz::CFileSystemError& e) {
            extent["error"] = e.what();
        }
        extents.push_back(extent);
    }
    return extents;
}

// How the disk's files spend their bytes; null, with the reason, where the library cannot tell
// (a damaged file of another writer, an extent that cannot be reached).
Json describeSpace(harl::CVMDKDisk& disk, Json& info) {
    try {
        const kz::P<harl::CVMDKSpaceInfo> space = disk.gatherSpaceInfo();
        return {{"payload", space->getPayloadSize()},
                {"payload-in-file", space->getPayloadSizeInFile()},
                {"header", space->getHeaderSize()},
                {"dead-space", space->getDeadSpaceSize()}};
    } catch (const kz::CError& e) {
        info["space-error"] = e.what();
        return nullptr;
    }
}

// The parents from the child down, read from their descriptors; a parent that cannot be read
// ends the chain with its error.
Json describeParents(kz::IFileSystem& fileSystem, kz::CURI uri,
                     kz::P<harl::CVMDKDescriptor> descriptor) {
    Json parents = Json::array();
    std::set<std::string> seen = {uri.toNormalized().toString(false).toUTF8()};
    kz::String hint;
    while (descriptor->getParentContentID() != 0xFFFFFFFF &&
           descriptor->tryGetParentFileNameHint(hint) &&
           parents.size() < harl::CVMDKParentDiskDataProvider::kMaxChainLength) {
        const unsigned int recorded = descriptor->getParentContentID();
        uri = harl::vmdkFileReferenceToURI(uri.getParent(), hint);
        Json parent = {{"filename", hint.toUTF8()},
                       {"path", pathOf(uri)},
                       {"recorded-content-id", hex8(recorded)}};
        try {
            if (!seen.insert(uri.toNormalized().toString(false).toUTF8()).second) {
                throw kz::CError("The chain of parents comes back to this disk");
            }
            descriptor = readDescriptor(&fileSystem, uri);
            parent["content-id"] = hex8(descriptor->getContentID());
            parent["matches"] = descriptor->getContentID() == recorded;
        } catch (const std::exception& e) {
            parent["error"] = e.what();
            parents.push_back(parent);
            break;
        }
        parents.push_back(parent);
    }
    return parents;
}

Json describeVMDK(kz::IFileSystem& fileSystem, const CSourceImage& image) {
    harl::CVMDKDisk& disk = *image.getDisk();
    const kz::P<harl::CVMDKDescriptor> descriptor = CSourceImage::descriptorOf(disk);
    long long actualSize = 0;
    Json extents = describeExtents(fileSystem, image, actualSize);
    const kz::String encryption = descriptor->getKzEncryptionAlgorithm();
    Json info = {{"filename", image.getPath()},
                 {"format", "vmdk"},
                 {"virtual-size", disk.getSizeBytes()},
                 {"actual-size", actualSize},
                 {"create-type", descriptor->getCreateType().toUTF8()},
                 {"grain-size", disk.getGrainSizeBytes()},
                 {"compressed", disk.getCompressed()},
                 {"encrypted", !encryption.isEmpty()},
                 {"encryption", encryption.toUTF8()},
                 {"content-id", hex8(descriptor->getContentID())},
                 {"extents", extents},
                 {"parents", describeParents(fileSystem, image.getURI(), descriptor)}};
    info["space"] = describeSpace(disk, info);
    return info;
}

std::string sizeText(const Json& bytes) {
    return bytes.is_null() ? "not created yet"
                           : formatSize(bytes.get<long long>()) + " (" + bytes.dump() + " bytes)";
}

void printHuman(const Json& info) {
    std::cout << "image: " << info["filename"].get<std::string>() << "\n"
              << "file format: " << info["format"].get<std::string>() << "\n"
              << "virtual size: " << sizeText(info["virtual-size"]) << "\n"
              << "disk size: " << sizeText(info["actual-size"]) << "\n";
    if (info["format"] != "vmdk") {
        return;
    }
    const std::string encryption = info["encryption"];
    std::cout << "create type: " << info["create-type"].get<std::string>() << "\n"
              << "grain size: " << info["grain-size"] << "\n"
              << "compressed: " << (info["compressed"] ? "yes" : "no") << "\n"
              << "encrypted: " << (encryption.empty() ? "no" : "yes, " + encryption) << "\n"
              << "content id: " << info["content-id"].get<std::string>() << "\n"
              << "extents:\n";
    for (const Json& extent : info["extents"]) {
        const std::string name = extent["filename"];
        std::cout << "    " << (name.empty() ? "(no file)" : name) << ": "
                  << extent["type"].get<std::string>() << ", " << extent["size-sectors"]
                  << " sectors";
        if (extent.contains("error")) {
            std::cout << ", " << extent["error"].get<std::string>();
        } else if (!extent["path"].is_null()) {
            std::cout << ", file " << sizeText(extent["file-size"]);
        }
        std::cout << "\n";
    }
    for (const Json& parent : info["parents"]) {
        std::cout << "parent: " << parent["filename"].get<std::string>() << ", content id "
                  << parent.value("content-id", "?") << " ("
                  << (parent.contains("error") ? parent["error"].get<std::string>()
                      : parent["matches"]
                          ? "as recorded"
                          : "recorded " + parent["recorded-content-id"].get<std::string>())
                  << ")\n";
    }
    const Json& space = info["space"];
    if (space.is_null()) {
        std::cout << "space: not known: " << info["space-error"].get<std::string>() << "\n";
        return;
    }
    std::cout << "space:\n"
              << "    payload: " << sizeText(space["payload"]) << "\n"
              << "    payload in file: " << sizeText(space["payload-in-file"]) << "\n"
              << "    header: " << sizeText(space["header"]) << "\n"
              << "    dead space: " << sizeText(space["dead-space"]) << "\n";
}

int runInfo(CInfoArguments& a) {
    const kz::P<CConfinedFileSystem> fileSystem = makeFileSystem(a.common, {a.file});
    const CSourceImage image(fileSystem.get(), a.file, a.format, a.passwordFile);
    Json info;
    if (image.isVMDK()) {
        info = describeVMDK(*fileSystem, image);
    } else {
        info = {{"filename", a.file},
                {"format", "raw"},
                {"virtual-size", image.getSizeBytes()},
                {"actual-size", image.getSizeBytes()}};
    }
    if (a.common.output == "json") {
        std::cout << info.dump(4) << std::endl;
    } else {
        printHuman(info);
    }
    return 0;
}

}  // namespace

void addInfoVerb(CLI::App& app, int& exitCode) {
    auto arguments = std::make_shared<CInfoArguments>();
    CLI::App* verb = app.add_subcommand("info", "Show what an image is and how it uses space");
    addImageOptions(*verb, arguments->common, arguments->format, arguments->passwordFile,
                    arguments->file, {"raw", "vmdk"});
    verb->callback([arguments, &exitCode] { exitCode = runInfo(*arguments); });
}

}  // namespace harlimg
