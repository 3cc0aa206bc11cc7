#include "CProgressMeter.h"
#include "CSourceImage.h"
#include "CommandLine.h"
#include "Verbs.h"

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <unistd.h>
#include <vector>

namespace harlimg {

namespace {

// qemu-img compare's exit code for an error: 1 means "the images differ".
constexpr int kExitCompareError = 2;
constexpr long long kChunkBytes = 1 << 20;

struct CCompareArguments {
    CCommonOptions common;
    std::string firstFormat;
    std::string secondFormat;
    std::string firstPasswordFile;
    std::string secondPasswordFile;
    bool strict = false;
    std::string first;
    std::string second;
};

// Reads up to `count` bytes at `position`, zeros past the image's end.
void readAt(const CSourceImage& image, long long position, unsigned char* buffer, long long count) {
    const long long inside = std::clamp(image.getSizeBytes() - position, 0LL, count);
    std::fill(buffer + inside, buffer + count, 0);
    if (inside > 0) {
        image.getStream().seek(position);
        image.getStream().read(buffer, static_cast<int>(inside));
    }
}

// The first offset at which the two differ, or -1.
long long findMismatch(const CSourceImage& a, const CSourceImage& b, CProgressMeter& progress) {
    const long long size = std::max(a.getSizeBytes(), b.getSizeBytes());
    std::vector<unsigned char> first(kChunkBytes);
    std::vector<unsigned char> second(kChunkBytes);
    for (long long position = 0; position < size; position += kChunkBytes) {
        const long long count = std::min(kChunkBytes, size - position);
        readAt(a, position, first.data(), count);
        readAt(b, position, second.data(), count);
        const auto [at, other] =
            std::mismatch(first.begin(), first.begin() + count, second.begin());
        if (at != first.begin() + count) {
            return position + (at - first.begin());
        }
        progress.report(position + count);
    }
    progress.finish();
    return -1;
}

int runCompare(CCompareArguments& a) {
    const kz::P<CConfinedFileSystem> fileSystem = makeFileSystem(a.common, {a.first, a.second});
    const CSourceImage first(fileSystem.get(), a.first, a.firstFormat, a.firstPasswordFile);
    const CSourceImage second(fileSystem.get(), a.second, a.secondFormat, a.secondPasswordFile);
    if (first.getSizeBytes() != second.getSizeBytes()) {
        if (a.strict) {
            std::cout << "Strict mode: Image size mismatch!" << std::endl;
            return 1;
        }
        std::cout << "Warning: Image size mismatch!" << std::endl;
    }
    CProgressMeter progress(wantsProgress(a.common),
                            std::max(first.getSizeBytes(), second.getSizeBytes()));
    const long long mismatch = findMismatch(first, second, progress);
    if (mismatch >= 0) {
        std::cout << "Content mismatch at offset " << mismatch << "!" << std::endl;
        return 1;
    }
    std::cout << "Images are identical." << std::endl;
    return 0;
}

}  // namespace

void addCompareVerb(CLI::App& app, int& exitCode) {
    auto arguments = std::make_shared<CCompareArguments>();
    CLI::App* verb = app.add_subcommand(
        "compare", "Compare two images (raw or VMDK): equal, or the first offset that differs");
    verb->add_option("-f", arguments->firstFormat, "Format of the first image")
        ->check(CLI::IsMember({"raw", "vmdk"}));
    verb->add_option("-F", arguments->secondFormat, "Format of the second image")
        ->check(CLI::IsMember({"raw", "vmdk"}));
    verb->add_flag("-s", arguments->strict, "Strict: images of different sizes differ");
    verb->add_option("--password-file", arguments->firstPasswordFile,
                     "File whose first line is the first disk's password");
    verb->add_option("--second-password-file", arguments->secondPasswordFile,
                     "File whose first line is the second disk's password");
    addProgressOptions(*verb, arguments->common);
    addAllowDirOption(*verb, arguments->common);
    verb->add_option("filename1", arguments->first, "The first image")->required();
    verb->add_option("filename2", arguments->second, "The second image")->required();
    verb->callback([arguments, &exitCode] {
        try {
            exitCode = runCompare(*arguments);
        } catch (const std::exception& e) {
            std::fprintf(stderr, "harl-img: %s\n", e.what());
            exitCode = kExitCompareError;
        }
    });
}

}  // namespace harlimg
