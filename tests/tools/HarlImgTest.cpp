// harl-img end to end, through the built program: argument errors, missing files and wrong
// passwords; round trips of every disk form with qemu-img as a second reader where it reads
// the form; each kind of damage that check must find; parents, confinement, map and compare;
// files of other writers as sources, whole and damaged.

#include "harl/disk/CVMDKDisk.h"
#include "harl/disk/CVMDKImportDisk.h"
#include "harl/foundation/kz/CLocalFileSystem.h"
#include "harl/grain/CVMDKGrainDirectory.h"

#include "tests/support/CScratchFolder.h"
#include "tests/support/QemuImg.h"
#include "tests/support/SampleData.h"
#include "tests/support/StreamOptimizedFile.h"
#include "tests/support/TestFiles.h"
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace {

using Json = nlohmann::json;
using Args = std::vector<std::string>;

constexpr long long kGrain = 65536;
constexpr long long kMiB = 1024 * 1024;

Args operator+(Args a, const Args& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

struct CRun {
    int status;
    std::string output;
};

class HarlImgTest : public ::testing::Test {
protected:
    CRun tool(const Args& arguments) {
        CRun run{0, ""};
        run.status = harltest::runProgram(HARL_IMG, arguments, &run.output);
        return run;
    }

    // Runs the tool, expects `status`, and parses its output as JSON.
    Json json(const Args& arguments, int status = 0) {
        const CRun run = tool(arguments);
        EXPECT_EQ(run.status, status) << run.output;
        return Json::parse(run.output);
    }

    std::string file(const std::string& name) const { return folder.file(name); }

    // A raw image of file-system-like data with a hole of zero grains in its middle.
    void writeRaw(const std::string& name, long long size, unsigned seed) {
        harltest::Bytes data = harltest::makeFileSystemLikeData(static_cast<size_t>(size), seed);
        const long long hole = size / 2 / kGrain * kGrain;
        std::fill(data.begin() + hole, data.begin() + hole + 4 * kGrain, 0);
        std::ofstream(file(name), std::ios::binary)
            .write(reinterpret_cast<const char*>(data.data()), size);
    }

    void writeText(const std::string& name, const std::string& text) {
        std::ofstream(file(name)) << text;
    }

    // Overwrites bytes of a file at `offset`.
    void poke(const std::string& name, long long offset, const std::string& bytes) {
        std::fstream stream(file(name), std::ios::in | std::ios::out | std::ios::binary);
        stream.seekp(offset);
        stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }

    template <class T>
    static std::string le(T value) {
        return std::string(reinterpret_cast<const char*>(&value), sizeof value);
    }

    // Every stored whole grain of the imported disk `source` before `endBytes` stands in the
    // disk `target` of the library's own as the same prepared grain: the same compressed bytes.
    void expectSamePreparedGrains(kz::IFileSystem& fs, const std::string& source,
                                  const std::string& target, long long endBytes) {
        kz::P<harl::CVMDKDisk> from =
            harl::CVMDKImportDisk::open(&fs, folder.uriOf(source), "", -1);
        auto to = kz::makeP<harl::CVMDKDisk>(&fs, folder.uriOf(target), kz::IIOStream::AccessRead,
                                             "", -1, nullptr, nullptr);
        kz::TBuffer<unsigned char> a;
        kz::TBuffer<unsigned char> b;
        for (long long at = 0; at + kGrain <= endBytes; at += kGrain) {
            from->seek(at);
            if (!from->isGrainWritten()) {
                continue;
            }
            from->readPreparedGrainData(a);
            to->seek(at);
            to->readPreparedGrainData(b);
            ASSERT_EQ(a.getUsed(), b.getUsed()) << source << " grain " << at / kGrain;
            EXPECT_EQ(0, std::memcmp(a.getData(), b.getData(), a.getUsed())) << source;
        }
    }

    // The bytes of the raw image's grains of zeros, a partial last grain included.
    static long long zeroGrainBytes(const std::string& path) {
        const kz::TBuffer<unsigned char> raw = harltest::readWholeFile(path);
        long long zeros = 0;
        for (size_t at = 0; at < raw.getUsed(); at += kGrain) {
            const size_t count = std::min<size_t>(kGrain, raw.getUsed() - at);
            const unsigned char* grain = raw.getData() + at;
            zeros += std::all_of(grain, grain + count, [](unsigned char b) { return b == 0; })
                         ? static_cast<long long>(count)
                         : 0;
        }
        return zeros;
    }

    // Counts the lines of a run's output.
    static long long lines(const CRun& run) {
        return std::count(run.output.begin(), run.output.end(), '\n');
    }

    harltest::CScratchFolder folder;
};

TEST_F(HarlImgTest, ArgumentErrorsMissingFilesAndWrongPasswordsFailInOneLine) {
    writeRaw("a.raw", kMiB, 1);
    writeText("pw", "secret\n");
    writeText("wrong", "guess\n");
    ASSERT_EQ(tool({"convert", "-q", "-O", "vmdk", "-o", "encrypt=on", "--target-password-file",
                    file("pw"), file("a.raw"), file("e.vmdk")})
                  .status,
              0);

    const struct {
        Args arguments;
        int status;
        std::string message;
    } cases[] = {
        {{}, 1, "A subcommand is required"},
        {{"convert", file("a.raw")}, 1, "output_filename is required"},
        {{"create", file("n.vmdk"), "12Q"}, 1, "'12Q' is no size"},
        {{"create", "-o", "colour=red", file("n.vmdk"), "1M"}, 1, "unknown option 'colour'"},
        {{"create", file("n.vmdk")}, 1, "create needs a size"},
        {{"info", file("missing.vmdk")}, 1, "No such file or directory"},
        {{"check", file("missing.vmdk")}, 1, "No such file or directory"},
        {{"compare", file("a.raw"), file("missing.raw")}, 2, "No such file or directory"},
        {{"info", file("e.vmdk")}, 1, "needs a password: give it with --password-file FILE"},
        {{"info", "--password-file", file("wrong"), file("e.vmdk")}, 1, "password is not correct"},
        {{"convert", "-O", "vmdk", "-o", "encrypt=on", file("a.raw"), file("b.vmdk")},
         1,
         "needs a password"},
        {{"rebase", "-b", "x.vmdk", file("e.vmdk")}, 1, "Only rebase -u is supported"},
        {{"convert", "-O", "raw", file("a.raw"), file("a.raw")}, 1, "is the source image"},
    };

    for (const auto& c : cases) {
        const CRun run = tool(c.arguments);
        EXPECT_EQ(run.status, c.status) << run.output;
        EXPECT_NE(run.output.find(c.message), std::string::npos) << run.output;
        EXPECT_EQ(std::count(run.output.begin(), run.output.end(), '\n'), 1) << run.output;
    }
    for (const char* verb : {"create", "convert", "info", "check", "compare", "map", "rebase"}) {
        const CRun run = tool({verb, "--help"});
        EXPECT_EQ(run.status, 0);
        EXPECT_NE(run.output.find("Usage: harl-img " + std::string(verb)), std::string::npos);
    }
}

// raw -> VMDK -> raw for every form, VMDK -> VMDK between forms, with qemu-img reading the
// forms it knows; check must find each new disk clean and info must describe it.
TEST_F(HarlImgTest, RoundTripsEveryFormWithQemuImgAsPeer) {
    const long long size = 8 * kMiB + 4096;
    writeRaw("image.raw", size, 2);
    writeText("pw", "secret\n");
    const Args password = {"--password-file", file("pw")};

    const struct {
        std::string name;
        Args options;
        std::string createType;
        bool qemuReads;
    } forms[] = {
        {"mono.vmdk", {}, "monolithicSparse", true},
        {"stream.vmdk", {"-c", "-j", "2"}, "streamOptimized", true},
        {"split.vmdk", {"-o", "split_size=2M"}, "twoGbMaxExtentSparse", true},
        {"demand.vmdk", {"-o", "subformat=twoGbMaxExtentSparse,on_demand=on"}, "", true},
        {"secret.vmdk", {"--target-password-file", file("pw")}, "monolithicSparse", false},
        {"both.vmdk",
         {"-c", "-o", "encrypt=on,compression_level=6", "-j", "1", "--target-password-file",
          file("pw")},
         "streamOptimized",
         false},
    };

    for (const auto& form : forms) {
        Args convert = {"convert", "-q", "-O", "vmdk"};
        convert.insert(convert.end(), form.options.begin(), form.options.end());
        ASSERT_EQ(tool(convert + Args{file("image.raw"), file(form.name)}).status, 0) << form.name;
        const Json info = json(Args{"info", "--output=json", file(form.name)} + password);
        EXPECT_EQ(info["virtual-size"], (size + kGrain - 1) / kGrain * kGrain) << form.name;
        if (!form.createType.empty()) {
            EXPECT_EQ(info["create-type"], form.createType) << form.name;
        }
        // The four zero grains are not written.
        EXPECT_EQ(info["space"]["payload"], ((size + kGrain - 1) / kGrain - 4) * kGrain);
        EXPECT_EQ(json(Args{"check", "--output=json", file(form.name)} + password)["corruptions"],
                  0);
        // Back to raw, to VMDK again in another form, and compared with the original.
        ASSERT_EQ(
            tool(Args{"convert", "-q", "-O", "raw", file(form.name), file("back.raw")} + password)
                .status,
            0);
        EXPECT_EQ(tool({"compare", file("image.raw"), file("back.raw")}).status, 0) << form.name;
        ASSERT_EQ(tool(Args{"convert", "-q", "-O", "vmdk", "-c", file(form.name), file("re.vmdk")} +
                       password)
                      .status,
                  0);
        EXPECT_EQ(tool({"compare", file("image.raw"), file("re.vmdk")}).output,
                  "Warning: Image size mismatch!\nImages are identical.\n");
        if (form.qemuReads && harltest::isQemuImgAvailable()) {
            EXPECT_EQ(harltest::runQemuImg({"compare", file("image.raw"), file(form.name)}), 0);
            EXPECT_EQ(harltest::runQemuImg({"check", file(form.name)}), 0) << form.name;
        }
    }
}

// Holes of a raw file are left out unread. Data ends and starts again inside grains, and the
// file ends in a hole and a partial grain: every grain with a byte of data must arrive.
TEST_F(HarlImgTest, ConvertSkipsHolesOfRawFilesButNoDataBesideThem) {
    const harltest::Bytes data = harltest::makeFileSystemLikeData(100 * 1024, 8);
    {
        std::ofstream raw(file("holes.raw"), std::ios::binary);
        raw.write(reinterpret_cast<const char*>(data.data()), 100 * 1024);
        raw.seekp(300 * 1024);
        raw.write(reinterpret_cast<const char*>(data.data()), 10 * 1024);
    }
    std::filesystem::resize_file(file("holes.raw"), kMiB + 4096);

    for (const std::string format : {"vmdk", "raw"}) {
        const std::string out = file("out." + format);
        ASSERT_EQ(tool({"convert", "-q", "-O", format, file("holes.raw"), out}).status, 0);
        EXPECT_EQ(tool({"compare", file("holes.raw"), out}).status, 0) << format;
    }
    // Grains 0 and 1 around the hole's start, 4 around its end.
    EXPECT_EQ(json({"info", "--output=json", file("out.vmdk")})["space"]["payload"], 3 * kGrain);
}

// Each kind of damage on a compressed disk, made at the places its own metadata names; and
// leaked space, and the warning for a renamed copy of a monolithic disk.
TEST_F(HarlImgTest, CheckFindsEachKindOfDamage) {
    writeRaw("image.raw", 2 * kMiB, 3);
    ASSERT_EQ(
        tool({"convert", "-q", "-O", "vmdk", "-c", file("image.raw"), file("disk.vmdk")}).status,
        0);
    // Where table 0, its copy and its slot sizes lie, and where grains 0 and 1 are.
    long long table = 0, copy = 0, slots = 0, grain0 = 0, grain1 = 0, fileSectors = 0;
    {
        std::ifstream in(file("disk.vmdk"), std::ios::binary);
        auto at = [&](long long offset, int bytes) {
            unsigned int value = 0;
            in.seekg(offset);
            in.read(reinterpret_cast<char*>(&value), bytes);
            return static_cast<long long>(value);
        };
        // Header: redundant directory at byte 48, directory at 56, overhead at 64.
        copy = at(at(48, 4) * 512, 4) * 512;
        table = at(at(56, 4) * 512, 4) * 512;
        grain0 = at(table, 4) * 512;
        grain1 = at(table + 4, 4) * 512;
        // The slot directory stands one marker sector behind the last table.
        slots = at((table / 512 + 4 + 1) * 512, 4) * 512;
        fileSectors = static_cast<long long>(std::filesystem::file_size(file("disk.vmdk"))) / 512;
    }
    std::filesystem::copy_file(file("disk.vmdk"), file("pristine.vmdk"));
    const auto both = [&](long long entry, unsigned int value) {
        poke("disk.vmdk", table + entry, le(value));
        poke("disk.vmdk", copy + entry, le(value));
    };

    const struct {
        std::string kind;
        std::function<void()> damage;
    } cases[] = {
        {"redundant-directory", [&] { poke("disk.vmdk", copy + 8, le(12345u)); }},
        {"table-entry", [&] { both(4, static_cast<unsigned>(fileSectors + 8)); }},
        {"table-entry", [&] { both(4, 2u); }},
        {"overlap", [&] { both(4, static_cast<unsigned>(grain0 / 512)); }},
        {"slot-size", [&] { poke("disk.vmdk", slots + 2, le<unsigned short>(1)); }},
        {"lba", [&] { poke("disk.vmdk", grain1, le<unsigned long long>(999 * 128)); }},
        {"decompression", [&] { poke("disk.vmdk", grain1 + 40, std::string(64, '\x5a')); }},
    };

    for (const auto& c : cases) {
        std::filesystem::copy_file(file("pristine.vmdk"), file("disk.vmdk"),
                                   std::filesystem::copy_options::overwrite_existing);
        c.damage();
        const Json report = json({"check", "--output=json", file("disk.vmdk")}, 2);
        const Json& problems = report["problems"];
        EXPECT_TRUE(std::any_of(problems.begin(), problems.end(),
                                [&](const Json& p) { return p["kind"] == c.kind; }))
            << c.kind << ": " << report.dump();
    }
    std::filesystem::copy_file(file("pristine.vmdk"), file("disk.vmdk"),
                               std::filesystem::copy_options::overwrite_existing);
    // A renamed copy: clean, with the warning. Then grain 1 outgrows its slot: leaked space.
    std::filesystem::copy_file(file("pristine.vmdk"), file("copy.vmdk"));
    const Json copied = json({"check", "--output=json", file("copy.vmdk")}, 0);
    ASSERT_EQ(copied["warnings"].size(), 1u);
    EXPECT_EQ(copied["warnings"][0]["kind"], "extent-name");
    ASSERT_EQ(
        tool({"convert", "-q", "-O", "vmdk", "-c", file("image.raw"), file("leak.vmdk")}).status,
        0);
    {
        kz::P<kz::IFileSystem> fs(new kz::CLocalFileSystem);
        auto disk =
            kz::makeP<harl::CVMDKDisk>(fs.get(), folder.uriOf("leak.vmdk"),
                                       kz::IIOStream::AccessReadWrite, "", -1, nullptr, nullptr);
        const harltest::Bytes noise = harltest::makeRandomData(kGrain, 4);
        disk->seek(kGrain);
        disk->write(noise.data(), static_cast<int>(kGrain));
    }
    const CRun leak = tool({"check", file("leak.vmdk")});
    EXPECT_EQ(leak.status, 3) << leak.output;
    EXPECT_NE(leak.output.find("of leaked (dead) space"), std::string::npos) << leak.output;
}

// A child over a parent: info lists the chain, map tells who holds what, convert makes it a
// standalone disk with the parent's data, and rebase -u renames the parent without a copy.
TEST_F(HarlImgTest, ParentsMapCompareAndRebase) {
    writeRaw("base.raw", 2 * kMiB, 5);
    // Split, so that the descriptor file can move without its extent files.
    ASSERT_EQ(tool({"convert", "-q", "-O", "vmdk", "-o", "split_size=1M", file("base.raw"),
                    file("base.vmdk")})
                  .status,
              0);
    ASSERT_EQ(tool({"create", "-q", "-b", "base.vmdk", file("child.vmdk")}).status, 0);
    {
        kz::P<kz::IFileSystem> fs(new kz::CLocalFileSystem);
        auto child =
            kz::makeP<harl::CVMDKDisk>(fs.get(), folder.uriOf("child.vmdk"),
                                       kz::IIOStream::AccessReadWrite, "", -1, nullptr, nullptr);
        const harltest::Bytes ones(kGrain, 1);
        child->seek(3 * kGrain);
        child->write(ones.data(), static_cast<int>(kGrain));
    }
    const Json info = json({"info", "--output=json", file("child.vmdk")});
    ASSERT_EQ(info["parents"].size(), 1u);
    EXPECT_EQ(info["parents"][0]["matches"], true);
    // Grains 0-2 from the parent, 3 the child's own, 4-31 the parent's but for its hole at
    // 16-19, the rest zeros.
    const Json map = json({"map", "--output=json", file("child.vmdk")});
    std::vector<std::tuple<long long, long long, int>> ranges;
    for (const Json& range : map) {
        ranges.emplace_back(range["start"].get<long long>() / kGrain,
                            range["length"].get<long long>() / kGrain, range["depth"]);
    }
    EXPECT_EQ(ranges,
              (std::vector<std::tuple<long long, long long, int>>{
                  {0, 3, 1}, {3, 1, 0}, {4, 12, 1}, {16, 4, -1}, {20, 12, 1}, {32, 96, -1}}));

    ASSERT_EQ(
        tool({"convert", "-q", "-O", "vmdk", "-c", file("child.vmdk"), file("flat.vmdk")}).status,
        0);
    EXPECT_TRUE(json({"info", "--output=json", file("flat.vmdk")})["parents"].empty());
    EXPECT_EQ(tool({"compare", file("child.vmdk"), file("flat.vmdk")}).output,
              "Images are identical.\n");
    EXPECT_EQ(tool({"compare", file("base.raw"), file("flat.vmdk")}).output,
              "Warning: Image size mismatch!\nContent mismatch at offset " +
                  std::to_string(3 * kGrain) + "!\n");
    EXPECT_EQ(tool({"compare", "-s", file("base.raw"), file("flat.vmdk")}).status, 1);

    std::filesystem::rename(file("base.vmdk"), file("moved.vmdk"));
    EXPECT_EQ(tool({"convert", "-q", file("child.vmdk"), file("x.raw")}).status, 1);
    ASSERT_EQ(tool({"rebase", "-u", "-b", "moved.vmdk", file("child.vmdk")}).status, 0);
    EXPECT_EQ(tool({"compare", file("child.vmdk"), file("flat.vmdk")}).status, 0);
}

// A descriptor that names files elsewhere reaches them only when their folder is allowed.
TEST_F(HarlImgTest, ImagesReachNoFileOutsideTheAllowedFolders) {
    std::filesystem::create_directory(file("inner"));
    writeRaw("outside.raw", kMiB, 6);
    ASSERT_EQ(
        tool({"convert", "-q", "-O", "vmdk", file("outside.raw"), file("outside.vmdk")}).status, 0);
    std::filesystem::create_symlink(file("outside.vmdk"), file("inner/link.vmdk"));
    ASSERT_EQ(tool({"create", "-q", "--allow-dir", folder.getPath(), "-b", "../outside.vmdk",
                    file("inner/child.vmdk")})
                  .status,
              0);
    // Descriptors of another writer whose flat extent is the same file, by a relative and by an
    // absolute name.
    const std::string head =
        "# Disk DescriptorFile\nversion=1\nCID=1234abcd\nparentCID=ffffffff\n"
        "createType=\"monolithicFlat\"\nRW 2048 FLAT ";
    writeText("inner/relative.vmdk", head + "\"../outside.raw\" 0\n");
    writeText("inner/absolute.vmdk", head + "\"" + file("outside.raw") + "\" 0\n");
    const std::string refused = "Refused to reach a file outside the folders";
    for (const Args& arguments :
         {Args{"convert", file("inner/child.vmdk"), file("inner/c.raw")},
          Args{"create", "-b", "link.vmdk", file("inner/c2.vmdk")},
          Args{"convert", file("inner/relative.vmdk"), file("inner/r.raw")},
          Args{"convert", "-O", "vmdk", file("inner/absolute.vmdk"), file("inner/a.vmdk")},
          Args{"check", file("inner/relative.vmdk")}, Args{"map", file("inner/absolute.vmdk")}}) {
        const CRun run = tool(arguments);
        EXPECT_EQ(run.status, 1) << run.output;
        EXPECT_NE(run.output.find(refused), std::string::npos) << run.output;
        EXPECT_EQ(lines(run), 1) << run.output;
    }
    // info shows what it can, and the error of the parent or the extent.
    EXPECT_NE(tool({"info", file("inner/child.vmdk")}).output.find(refused), std::string::npos);
    EXPECT_NE(tool({"info", file("inner/relative.vmdk")}).output.find(refused), std::string::npos);
    for (const char* image : {"inner/child.vmdk", "inner/relative.vmdk", "inner/absolute.vmdk"}) {
        EXPECT_EQ(tool({"convert", "-q", "--allow-dir", folder.getPath(), file(image),
                        file("inner/c.raw")})
                      .status,
                  0);
        EXPECT_EQ(tool({"compare", file("inner/c.raw"), file("outside.raw")}).status, 0) << image;
    }
}

// Files of other writers as sources, of a size that is no multiple of a grain: qemu-img's
// stream-optimized file (also after qemu-io appended a grain to it), its flat forms, a
// stream-optimized file with its directory in a footer, built from the published layout, and a
// descriptor that puts a ZERO and a VMFS extent behind qemu-img's file, so that neither starts
// on a grain boundary. Each is described, mapped and checked, converts back to its raw image,
// and converts into a compressed disk that holds the source's own zlib streams (level 1 would
// compress them otherwise) and that qemu-img reads.
TEST_F(HarlImgTest, ImportsFilesOfOtherWritersPeer) {
    HARL_SKIP_WITHOUT_QEMU_IMG();
    const long long size = 24 * kGrain + 5 * 512;
    // Grains 12 to 15 are zeros; qemu-io writes grain 13 of the appended file.
    writeRaw("image.raw", size, 7);
    std::filesystem::copy_file(file("image.raw"), file("appended.raw"));
    const std::string append = "write -P 0x5a " + std::to_string(13 * kGrain) + " 64k";
    harltest::runQemuOrThrow("qemu-io", {"-f", "raw", "-c", append, file("appended.raw")});
    // A copy would name the original in its embedded extent line: qemu-img makes each file.
    for (const std::string name :
         {"streamOptimized", "monolithicFlat", "twoGbMaxExtentFlat", "appended:streamOptimized"}) {
        harltest::runQemuOrThrow("qemu-img",
                                 {"convert", "-f", "raw", "-O", "vmdk", "-o",
                                  "subformat=" + name.substr(name.find(':') + 1), file("image.raw"),
                                  file(name.substr(0, name.find(':')) + ".vmdk")});
    }
    harltest::runQemuOrThrow("qemu-io", {"-f", "vmdk", "-c", append, file("appended.vmdk")});
    const kz::TBuffer<unsigned char> raw = harltest::readWholeFile(file("image.raw"));
    harltest::writeWholeFile(
        file("footer.vmdk"),
        harltest::buildStreamOptimizedFile(
            harltest::Bytes(raw.getData(), raw.getData() + raw.getUsed()), "footer.vmdk")
            .file);
    writeText("mixed.vmdk",
              "# Disk DescriptorFile\nversion=1\nCID=fffffffe\nparentCID=ffffffff\n"
              "createType=\"vmfs\"\nRW " +
                  std::to_string(size / 512) +
                  " SPARSE \"streamOptimized.vmdk\"\nRW 256 ZERO\n"
                  "RW 2048 VMFS \"monolithicFlat-flat.vmdk\"\n");
    harltest::Bytes mixed(raw.getData(), raw.getData() + raw.getUsed());
    mixed.resize(mixed.size() + 256 * 512, 0);
    mixed.insert(mixed.end(), raw.getData(), raw.getData() + 2048 * 512);
    std::ofstream(file("mixed.raw"), std::ios::binary)
        .write(reinterpret_cast<const char*>(mixed.data()), static_cast<long long>(mixed.size()));
    // A stream-optimized file stores no grain of zeros; a flat file is all data.
    const long long zeros = zeroGrainBytes(file("image.raw"));

    const struct {
        std::string name;
        std::string raw;
        std::string createType;
        std::vector<std::string> extentTypes;
        long long zeroBytes;
    } cases[] = {
        {"streamOptimized.vmdk", "image.raw", "streamOptimized", {"SPARSE"}, zeros},
        {"appended.vmdk", "appended.raw", "streamOptimized", {"SPARSE"}, zeros - kGrain},
        {"monolithicFlat.vmdk", "image.raw", "monolithicFlat", {"FLAT"}, 0},
        {"twoGbMaxExtentFlat.vmdk", "image.raw", "twoGbMaxExtentFlat", {"FLAT"}, 0},
        {"footer.vmdk", "image.raw", "streamOptimized", {"SPARSE"}, zeros},
        {"mixed.vmdk", "mixed.raw", "vmfs", {"SPARSE", "ZERO", "VMFS"}, zeros + 256 * 512},
    };

    kz::P<kz::IFileSystem> fs(new kz::CLocalFileSystem);
    for (const auto& c : cases) {
        const Json info = json({"info", "--output=json", file(c.name)});
        EXPECT_EQ(info["virtual-size"], std::filesystem::file_size(file(c.raw))) << c.name;
        EXPECT_EQ(info["create-type"], c.createType) << c.name;
        std::vector<std::string> types;
        for (const Json& extent : info["extents"]) {
            types.push_back(extent["type"]);
        }
        EXPECT_EQ(types, c.extentTypes) << c.name;
        const Json check = json({"check", "--output=json", file(c.name)});
        EXPECT_EQ(check["corruptions"], 0) << check.dump();
        EXPECT_EQ(check["leaked-bytes"], 0) << check.dump();
        long long zeroBytes = 0;
        for (const Json& range : json({"map", "--output=json", file(c.name)})) {
            zeroBytes += range["zero"] ? range["length"].get<long long>() : 0;
        }
        EXPECT_EQ(zeroBytes, c.zeroBytes) << c.name;

        ASSERT_EQ(tool({"convert", "-q", "-O", "raw", file(c.name), file("back.raw")}).status, 0);
        EXPECT_EQ(tool({"compare", file(c.raw), file("back.raw")}).output,
                  "Images are identical.\n")
            << c.name;
        ASSERT_EQ(tool({"convert", "-q", "-O", "vmdk", "-c", "-o", "compression_level=1",
                        file(c.name), file("ours.vmdk")})
                      .status,
                  0);
        EXPECT_EQ(tool({"compare", file(c.name), file("ours.vmdk")}).output,
                  "Warning: Image size mismatch!\nImages are identical.\n")
            << c.name;
        EXPECT_EQ(harltest::runQemuImg({"compare", file(c.raw), file("ours.vmdk")}), 0) << c.name;
        if (c.extentTypes[0] == "SPARSE") {
            expectSamePreparedGrains(*fs, c.name, "ours.vmdk", size);
        }
    }
}

// Stream-optimized files damaged where a reader trusts them end in a one-line error when they
// are converted (into a compressed disk, by prepared grains), and are corrupt to check.
TEST_F(HarlImgTest, DamagedStreamFilesEndInClearErrors) {
    const harltest::CStreamOptimizedLayout layout = harltest::buildStreamOptimizedFile(
        harltest::makeFileSystemLikeData(6 * kGrain + 512, 8), "disk.vmdk");
    harltest::writeWholeFile(file("pristine.vmdk"), layout.file);
    const long long length = static_cast<long long>(layout.file.getUsed());
    // The first grain is whole, and so goes into the new disk as it is stored.
    const long long firstGrain = layout.grainSectors[0] * 512;
    const long long lastGrain =
        *std::max_element(layout.grainSectors.begin(), layout.grainSectors.end()) * 512;
    // The footer is the second sector from the end; its directory offset is at byte 56.
    const long long footer = length - 2 * 512;

    const struct {
        std::string damage;
        std::function<void()> apply;
        std::string message;
        // What info says: the error, or that it cannot account for the space.
        std::string info;
    } cases[] = {
        {"footer cut off", [&] { std::filesystem::resize_file(file("disk.vmdk"), footer - 512); },
         "ends before its end-of-stream marker", "ends before its end-of-stream marker"},
        {"marker length beyond the file",
         [&] { poke("disk.vmdk", lastGrain + 8, le(static_cast<unsigned>(length - lastGrain))); },
         "grain runs past the end of the file",
         "space: not known: VMDK grain runs past the end of the file"},
        {"directory outside the file",
         [&] { poke("disk.vmdk", footer + 56, le<unsigned long long>(length / 512 + 8)); },
         "grain directory lies outside the file", "grain directory lies outside the file"},
        {"deflate data damaged",
         [&] { poke("disk.vmdk", firstGrain + 52, std::string(64, '\x5a')); },
         "does not decompress", "payload in file"},
    };

    for (const auto& c : cases) {
        std::filesystem::copy_file(file("pristine.vmdk"), file("disk.vmdk"),
                                   std::filesystem::copy_options::overwrite_existing);
        c.apply();
        const CRun convert =
            tool({"convert", "-q", "-O", "vmdk", "-c", file("disk.vmdk"), file("out.vmdk")});
        EXPECT_EQ(convert.status, 1) << c.damage;
        EXPECT_NE(convert.output.find(c.message), std::string::npos) << convert.output;
        EXPECT_EQ(lines(convert), 1) << convert.output;
        EXPECT_NE(tool({"info", file("disk.vmdk")}).output.find(c.info), std::string::npos)
            << c.damage;
        const Json report = json({"check", "--output=json", file("disk.vmdk")}, 2);
        EXPECT_EQ(report["corruptions"], 1) << c.damage << ": " << report.dump();
    }
}

}  // namespace
