#include "CommandLine.h"

#include "harl/descriptor/CVMDKDescriptorAccessor.h"
#include "harl/descriptor/CVMDKExtentInfo.h"
#include "harl/format/VMDKFileStream.h"
#include "harl/foundation/kz/CError.h"

#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <termios.h>
#include <unistd.h>

namespace harlimg {

namespace {

bool parseSwitch(const std::string& key, const std::string& value) {
    if (value == "on" || value == "true" || value == "yes") {
        return true;
    }
    if (value == "off" || value == "false" || value == "no") {
        return false;
    }
    throw CLI::ValidationError("-o " + key, "expected on or off, not '" + value + "'");
}

void applySubformat(CTargetOptions& options, const std::string& value) {
    if (value == "streamOptimized") {
        options.compressed = true;
    } else if (value == "twoGbMaxExtentSparse") {
        if (options.fileSizeLimit < 0) {
            options.fileSizeLimit = 2LL << 30;
        }
    } else if (value != "monolithicSparse") {
        throw CLI::ValidationError("-o subformat", "unsupported subformat '" + value + "'");
    }
}

// Reads a line from standard input with the terminal's echo off.
std::string readHiddenLine(const std::string& prompt) {
    std::cerr << prompt << std::flush;
    termios saved{};
    tcgetattr(STDIN_FILENO, &saved);
    termios hidden = saved;
    hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &hidden);
    std::string line;
    std::getline(std::cin, line);
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved);
    std::cerr << "\n";
    return line;
}

std::string firstLineOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw kz::CError("Cannot read the password file '" + path + "'");
    }
    std::string line;
    std::getline(file, line);
    if (!line.empty() && line.back() == '\r') {
        line.pop_back();
    }
    return line;
}

}  // namespace

void addAllowDirOption(CLI::App& verb, CCommonOptions& options) {
    verb.add_option("--allow-dir", options.allowedFolders,
                    "Let the library reach files in this folder too (repeatable); by default "
                    "only the folders of the files named on the command line");
}

void addImageOptions(CLI::App& verb, CCommonOptions& options, std::string& format,
                     std::string& passwordFile, std::string& file,
                     const std::vector<std::string>& formats) {
    verb.add_option("-f", format, "Format of the image")->check(CLI::IsMember(formats));
    verb.add_option("--password-file", passwordFile,
                    "File whose first line is the disk's password");
    addOutputOption(verb, options);
    addAllowDirOption(verb, options);
    verb.add_option("filename", file, "The image")->required();
}

void addProgressOptions(CLI::App& verb, CCommonOptions& options) {
    verb.add_flag("-p,--progress", options.progress,
                  "Show progress (default on a terminal): percent, throughput, time left");
    verb.add_flag("-q,--quiet", options.quiet, "No progress and no messages but errors");
}

bool wantsProgress(const CCommonOptions& options) {
    return !options.quiet && (options.progress || isatty(STDERR_FILENO) != 0);
}

void addOutputOption(CLI::App& verb, CCommonOptions& options) {
    verb.add_option("--output", options.output, "Output format")
        ->check(CLI::IsMember({"human", "json"}));
}

void addTargetOptions(CLI::App& verb, CTargetOptions& options,
                      const std::string& passwordOptionName) {
    verb.add_flag("-c", options.compressed, "Compressed grains (subformat=streamOptimized)");
    verb.add_option("-o", options.optionList,
                    "Options, comma-separated: subformat=monolithicSparse|twoGbMaxExtentSparse|"
                    "streamOptimized, compress=on, split_size=SIZE, on_demand=on, encrypt=on, "
                    "compression_level=0-9")
        ->delimiter(',');
    verb.add_option(passwordOptionName, options.passwordFile,
                    "File whose first line is the password of the new disk (with encrypt=on)");
}

void applyTargetOptionList(CTargetOptions& options) {
    // A password for the new disk asks for encryption: a disk made without it would hold in
    // the clear what its user meant to protect.
    options.encrypted = !options.passwordFile.empty();
    for (const std::string& item : options.optionList) {
        const size_t equals = item.find('=');
        const std::string key = item.substr(0, equals);
        const std::string value = equals == std::string::npos ? "on" : item.substr(equals + 1);
        if (key == "subformat") {
            applySubformat(options, value);
        } else if (key == "compress") {
            options.compressed = parseSwitch(key, value);
        } else if (key == "split_size") {
            options.fileSizeLimit = parseSizeBytes(value);
        } else if (key == "on_demand") {
            options.onDemand = parseSwitch(key, value);
        } else if (key == "encrypt") {
            options.encrypted = parseSwitch(key, value);
        } else if (key == "compression_level") {
            if (value.size() != 1 || !std::isdigit(static_cast<unsigned char>(value[0]))) {
                throw CLI::ValidationError("-o compression_level", "expected 0 to 9");
            }
            options.compressionLevel = value[0] - '0';
        } else if (key == "backing_file") {
            options.backingFile = value;
        } else {
            throw CLI::ValidationError("-o", "unknown option '" + key + "'");
        }
    }
}

long long parseSizeBytes(const std::string& text) {
    static const std::map<char, int> shifts = {{'k', 10}, {'m', 20}, {'g', 30}, {'t', 40}};
    size_t digits = 0;
    while (digits < text.size() && std::isdigit(static_cast<unsigned char>(text[digits]))) {
        ++digits;
    }
    const std::string suffix = text.substr(digits);
    int shift = 0;
    if (suffix.size() == 1 && shifts.count(static_cast<char>(std::tolower(suffix[0]))) > 0) {
        shift = shifts.at(static_cast<char>(std::tolower(suffix[0])));
    } else if (!suffix.empty() && suffix != "b" && suffix != "B") {
        throw CLI::ValidationError("size", "'" + text + "' is no size (suffixes K, M, G, T)");
    }
    const long long number = digits > 0 && digits <= 15 ? std::stoll(text.substr(0, digits)) : 0;
    if (number <= 0 || number > (LLONG_MAX >> shift)) {
        throw CLI::ValidationError("size", "'" + text + "' is no size the tool can make");
    }
    return number << shift;
}

std::string formatSize(long long bytes) {
    static const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB"};
    double value = static_cast<double>(bytes);
    int unit = 0;
    while (value >= 1024 && unit < 5) {
        value /= 1024;
        ++unit;
    }
    char text[32];
    const bool whole = value == static_cast<double>(static_cast<long long>(value));
    std::snprintf(text, sizeof text, whole ? "%.0f %s" : "%.3g %s", value, units[unit]);
    return text;
}

kz::P<CConfinedFileSystem> makeFileSystem(const CCommonOptions& options,
                                          const std::vector<std::string>& files) {
    kz::P<CConfinedFileSystem> fileSystem(new CConfinedFileSystem);
    for (const std::string& file : files) {
        fileSystem->allowFolder(std::filesystem::absolute(file).parent_path());
    }
    for (const std::string& folder : options.allowedFolders) {
        fileSystem->allowFolder(folder);
    }
    return fileSystem;
}

kz::CURI uriOfPath(const std::string& path) {
    const std::string absolute = std::filesystem::absolute(path).lexically_normal().string();
    return kz::CURI("file", "", "", "", -1, absolute, "", "");
}

kz::String obtainPassword(const std::string& passwordFile, const std::string& image, bool isNew) {
    std::string password;
    if (!passwordFile.empty()) {
        password = firstLineOf(passwordFile);
    } else if (isatty(STDIN_FILENO)) {
        password = readHiddenLine("Password for " + image + ": ");
        if (isNew && readHiddenLine("Password for " + image + " again: ") != password) {
            throw kz::CError("The two passwords differ");
        }
    } else {
        throw kz::CError("'" + image + "' needs a password: give it with --password-file FILE");
    }
    if (password.empty()) {
        throw kz::CError("The password for '" + image + "' is empty");
    }
    return kz::String(password);
}

kz::P<harl::CVMDKDescriptor> readDescriptor(kz::IFileSystem* fileSystem, const kz::CURI& uri) {
    const kz::P<kz::IIOStream> stream =
        harl::openVMDKFileStream(fileSystem, uri, kz::IIOStream::AccessRead);
    return harl::CVMDKDescriptorAccessor(stream.get(), kz::IIOStream::AccessRead).getDescriptor();
}

long long descriptorSizeBytes(const harl::CVMDKDescriptor& descriptor) {
    kz::TArray<kz::P<harl::CVMDKExtentInfo>> lines;
    descriptor.getExtentEntries(lines);
    long long sectors = 0;
    for (const kz::P<harl::CVMDKExtentInfo>& line : lines) {
        sectors += line->getSizeSectors();
    }
    return sectors * 512;
}

bool isEncryptedDisk(kz::IFileSystem* fileSystem, const kz::CURI& uri) {
    return !readDescriptor(fileSystem, uri)->getKzEncryptionAlgorithm().isEmpty();
}

}  // namespace harlimg
