#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CIOError.h"

#include "CDiskChecker.h"
#include "CSourceImage.h"
#include "CommandLine.h"
#include "Verbs.h"

#include <cstdio>
#include <iostream>
#include <nlohmann/json.hpp>

namespace harlimg {

namespace {

using Json = nlohmann::ordered_json;

struct CCheckArguments {
    CCommonOptions common;
    std::string format;
    std::string passwordFile;
    std::string file;
};

Json findingsOf(const std::vector<CDiskChecker::CFinding>& findings) {
    Json list = Json::array();
    for (const CDiskChecker::CFinding& f : findings) {
        list.push_back({{"kind", f.kind}, {"file", f.file}, {"message", f.message}});
    }
    return list;
}

void printHuman(const CDiskChecker& checker) {
    for (const CDiskChecker::CFinding& f : checker.getWarnings()) {
        std::cout << "Warning: " << f.file << ": " << f.message << "\n";
    }
    for (const CDiskChecker::CFinding& f : checker.getCorruptions()) {
        std::cout << "ERROR " << f.kind << ": " << f.file << ": " << f.message << "\n";
    }
    if (checker.getCorruptionCount() > 0) {
        std::cout << "\n"
                  << checker.getCorruptionCount() << " errors were found on the image.\n"
                  << "Data may be corrupted, or further writes to the image may corrupt it.\n";
    }
    if (checker.getLeakedBytes() > 0) {
        std::cout << "\n"
                  << formatSize(checker.getLeakedBytes())
                  << " of leaked (dead) space were found on the image.\n"
                  << "This means waste of disk space, but no harm to data. Converting the disk "
                     "into a new file drops it.\n";
    }
    if (checker.getCorruptionCount() == 0 && checker.getLeakedBytes() == 0) {
        std::cout << "No errors were found on the image.\n";
    }
    const long long total = std::max(1LL, checker.getTotalGrains());
    std::printf("%lld/%lld = %.2f%% allocated, %.2f%% compressed grains\n",
                checker.getAllocatedGrains(), checker.getTotalGrains(),
                100.0 * static_cast<double>(checker.getAllocatedGrains()) / total,
                100.0 * static_cast<double>(checker.getCompressedGrains()) /
                    std::max(1LL, checker.getAllocatedGrains()));
}

int runCheck(CCheckArguments& a) {
    const kz::P<CConfinedFileSystem> fileSystem = makeFileSystem(a.common, {a.file});
    const kz::CURI uri = uriOfPath(a.file);
    if (!CSourceImage::looksLikeVMDK(fileSystem.get(), uri)) {
        throw kz::CError("'" + a.file + "' is no VMDK disk; check tests VMDK disks only");
    }
    kz::String password;
    try {
        password = CSourceImage::passwordFor(fileSystem.get(), uri, a.file, a.passwordFile);
    } catch (const kz::CIOError&) {
        // A descriptor that does not read is the checker's first finding.
    }
    CDiskChecker checker(fileSystem.get(), uri, password);
    checker.run();
    if (a.common.output == "json") {
        const Json report = {{"filename", a.file},
                             {"format", "vmdk"},
                             {"check-errors", 0},
                             {"corruptions", checker.getCorruptionCount()},
                             {"leaked-bytes", checker.getLeakedBytes()},
                             {"total-grains", checker.getTotalGrains()},
                             {"allocated-grains", checker.getAllocatedGrains()},
                             {"compressed-grains", checker.getCompressedGrains()},
                             {"problems", findingsOf(checker.getCorruptions())},
                             {"warnings", findingsOf(checker.getWarnings())}};
        std::cout << report.dump(4) << std::endl;
    } else {
        printHuman(checker);
    }
    return checker.getCorruptionCount() > 0 ? kExitCorrupt
           : checker.getLeakedBytes() > 0   ? kExitLeaks
                                            : 0;
}

}  // namespace

void addCheckVerb(CLI::App& app, int& exitCode) {
    auto arguments = std::make_shared<CCheckArguments>();
    CLI::App* verb = app.add_subcommand(
        "check",
        "Check a VMDK disk for corruption and leaked space (exit 0 clean, 2 corrupt, "
        "3 leaks only, 1 not checked)");
    addImageOptions(*verb, arguments->common, arguments->format, arguments->passwordFile,
                    arguments->file, {"vmdk"});
    verb->callback([arguments, &exitCode] { exitCode = runCheck(*arguments); });
}

}  // namespace harlimg
