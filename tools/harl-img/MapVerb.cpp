#include "harl/foundation/kz/CLocalFileSystem.h"

#include "CSourceImage.h"
#include "CommandLine.h"
#include "Verbs.h"

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <nlohmann/json.hpp>
#include <vector>

namespace harlimg {

namespace {

using Json = nlohmann::ordered_json;

constexpr long long kRawChunkBytes = 65536;

struct CMapArguments {
    CCommonOptions common;
    std::string format;
    std::string passwordFile;
    std::string file;
};

// A run of the image with one answer: held at `depth` (0 the image itself, 1 its parent, ...)
// or, with depth -1, held nowhere and read as zeros.
struct CRange {
    long long start = 0;
    long long length = 0;
    int depth = -1;
    bool zero = true;
};

// The disks of the chain, opened as the walk first reaches each of them.
class CChain {
public:
    CChain(kz::IFileSystem* fileSystem, const CSourceImage& image)
        : fileSystem(fileSystem), password(image.getPassword()), disks{image.getDisk()} {}

    // Which disk of the chain holds the grain at `position`; -1 for none.
    int depthOf(long long position) {
        for (size_t depth = 0; depth < disks.size(); ++depth) {
            disks[depth]->seek(position);
            if (disks[depth]->isGrainWrittenAndIndependentOfParent()) {
                return static_cast<int>(depth);
            }
            if (!disks[depth]->isGrainWritten()) {
                return -1;
            }
            if (depth + 1 == disks.size()) {
                disks.push_back(CSourceImage::openDisk(
                    fileSystem, disks[depth]->getParentDiskMainURI(), password));
            }
        }
        return -1;
    }

    std::string fileAt(int depth) const {
        return kz::CLocalFileSystem::toLocalPath(disks[depth]->getMainFileURI()).toUTF8();
    }

private:
    kz::IFileSystem* fileSystem;
    kz::String password;
    std::vector<kz::P<harl::CVMDKDisk>> disks;
};

void append(std::vector<CRange>& ranges, const CRange& range) {
    if (!ranges.empty() && ranges.back().depth == range.depth && ranges.back().zero == range.zero) {
        ranges.back().length += range.length;
    } else {
        ranges.push_back(range);
    }
}

// Asks grain by grain, each extent counting its grains from its own start.
std::vector<CRange> mapDisk(CChain& chain, const CSourceImage& image) {
    std::vector<CRange> ranges;
    const long long grain = image.getDisk()->getGrainSizeBytes();
    for (long long position = 0; position < image.getSizeBytes();) {
        const long long start = image.extentStartOf(position);
        const long long end = std::min(start + ((position - start) / grain + 1) * grain,
                                       image.nextExtentStart(position));
        const int depth = chain.depthOf(position);
        append(ranges, {position, end - position, depth, depth < 0});
        position = end;
    }
    return ranges;
}

std::vector<CRange> mapRaw(const CSourceImage& image) {
    std::vector<CRange> ranges;
    std::vector<unsigned char> chunk(kRawChunkBytes);
    for (long long position = 0; position < image.getSizeBytes(); position += kRawChunkBytes) {
        const long long count = std::min(kRawChunkBytes, image.getSizeBytes() - position);
        image.getStream().seek(position);
        image.getStream().read(chunk.data(), static_cast<int>(count));
        const bool zero = std::all_of(chunk.begin(), chunk.begin() + count,
                                      [](unsigned char byte) { return byte == 0; });
        append(ranges, {position, count, 0, zero});
    }
    return ranges;
}

int runMap(CMapArguments& a) {
    const kz::P<CConfinedFileSystem> fileSystem = makeFileSystem(a.common, {a.file});
    const CSourceImage image(fileSystem.get(), a.file, a.format, a.passwordFile);
    CChain chain(fileSystem.get(), image);
    const std::vector<CRange> ranges = image.isVMDK() ? mapDisk(chain, image) : mapRaw(image);
    if (a.common.output == "json") {
        Json list = Json::array();
        for (const CRange& r : ranges) {
            list.push_back({{"start", r.start},
                            {"length", r.length},
                            {"depth", r.depth},
                            {"present", r.depth >= 0},
                            {"zero", r.zero},
                            {"data", !r.zero}});
        }
        std::cout << list.dump(4) << std::endl;
        return 0;
    }
    std::printf("%-16s%-16s%s\n", "Offset", "Length", "File");
    for (const CRange& r : ranges) {
        if (!r.zero) {
            std::printf("%#-16llx%#-16llx%s\n", r.start, r.length,
                        image.isVMDK() ? chain.fileAt(r.depth).c_str() : a.file.c_str());
        }
    }
    return 0;
}

}  // namespace

void addMapVerb(CLI::App& app, int& exitCode) {
    auto arguments = std::make_shared<CMapArguments>();
    CLI::App* verb = app.add_subcommand(
        "map", "Show which ranges of an image hold data and which read as zeros");
    addImageOptions(*verb, arguments->common, arguments->format, arguments->passwordFile,
                    arguments->file, {"raw", "vmdk"});
    verb->callback([arguments, &exitCode] { exitCode = runMap(*arguments); });
}

}  // namespace harlimg
