#pragma once

#include "harl/descriptor/CVMDKDescriptor.h"
#include "harl/foundation/kz/CURI.h"
#include "harl/foundation/kz/P.h"
#include "harl/foundation/kz/String.h"

#include "CConfinedFileSystem.h"

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace harlimg {

// What the verbs share: options that every verb takes in the same spelling, and the helpers
// that turn command line text into what the library takes.

// Exit codes of the tool, as qemu-img has them: 1 is a failure of any kind; check adds 2 for
// a corrupt image and 3 for leaked space only.
constexpr int kExitFailure = 1;
constexpr int kExitCorrupt = 2;
constexpr int kExitLeaks = 3;

// The options of a verb run that more than one verb has.
struct CCommonOptions {
    // Folders the library may reach beside those of the files named on the command line.
    std::vector<std::string> allowedFolders;
    bool progress = false;
    bool quiet = false;
    // "human" or "json".
    std::string output = "human";
    // Worker threads for compression and encryption; 0: one per core.
    int threads = 0;
};

// How a new VMDK disk is made: by create and by convert.
struct CTargetOptions {
    bool compressed = false;
    // -1: one file.
    long long fileSizeLimit = -1;
    bool onDemand = false;
    bool encrypted = false;
    int compressionLevel = -1;
    std::string backingFile;
    std::string passwordFile;
    // The -o list, read by applyTargetOptionList.
    std::vector<std::string> optionList;
};

void addAllowDirOption(CLI::App& verb, CCommonOptions& options);
// The one image that info, map and check read: -f (one of `formats`), --password-file, the
// file name; and --output and --allow-dir.
void addImageOptions(CLI::App& verb, CCommonOptions& options, std::string& format,
                     std::string& passwordFile, std::string& file,
                     const std::vector<std::string>& formats);
void addProgressOptions(CLI::App& verb, CCommonOptions& options);
// Progress is shown with -p, and without it on a terminal, unless -q.
bool wantsProgress(const CCommonOptions& options);
void addOutputOption(CLI::App& verb, CCommonOptions& options);
// -c, -o and the target's --password-file (named `passwordOptionName`).
void addTargetOptions(CLI::App& verb, CTargetOptions& options,
                      const std::string& passwordOptionName);

// Reads the -o list: subformat=monolithicSparse|twoGbMaxExtentSparse|streamOptimized,
// compress=on|off, split_size=SIZE, on_demand=on|off, encrypt=on|off, compression_level=N,
// backing_file=NAME. Throws CLI::ValidationError for an unknown key or a bad value.
void applyTargetOptionList(CTargetOptions& options);

// "512", "64K", "10M", "2G", "1T" (binary multiples, either case): bytes. Throws
// CLI::ValidationError for anything else, zero and negative sizes included.
long long parseSizeBytes(const std::string& text);

// 1073741824 -> "1 GiB", 1536 -> "1.5 KiB", 100 -> "100 B".
std::string formatSize(long long bytes);

// The local file system confined to the folders of `files` and the allowed folders.
kz::P<CConfinedFileSystem> makeFileSystem(const CCommonOptions& options,
                                          const std::vector<std::string>& files);

// The "file:" URI of a path given on the command line, made absolute against the working
// folder.
kz::CURI uriOfPath(const std::string& path);

// The password for `image`: the first line of `passwordFile` when one is named, else typed at
// the terminal without echo (twice for a new one) when standard input is a terminal. Throws a
// kz::CError when neither can be had, or the password is empty.
kz::String obtainPassword(const std::string& passwordFile, const std::string& image, bool isNew);

// The descriptor of the VMDK disk at `uri`, read without opening the disk (no lock, no
// password).
kz::P<harl::CVMDKDescriptor> readDescriptor(kz::IFileSystem* fileSystem, const kz::CURI& uri);

// The size that a descriptor's extent lines add up to.
long long descriptorSizeBytes(const harl::CVMDKDescriptor& descriptor);

// Whether the VMDK disk at `uri` is encrypted, as its descriptor says.
bool isEncryptedDisk(kz::IFileSystem* fileSystem, const kz::CURI& uri);

}  // namespace harlimg
