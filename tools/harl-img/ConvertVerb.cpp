#include "harl/disk/CVMDKDisk.h"
#include "harl/foundation/kz/CError.h"

#include "CConversionPipeline.h"
#include "CProgressMeter.h"
#include "CSourceImage.h"
#include "CWriteBehindFileSystem.h"
#include "CommandLine.h"
#include "Verbs.h"

#include <algorithm>
#include <cstring>
#include <thread>

namespace harlimg {

namespace {

constexpr long long kRawGrainBytes = 65536;

struct CConvertArguments {
    CCommonOptions common;
    CTargetOptions target;
    std::string sourceFormat;
    std::string targetFormat = "raw";
    std::string sourcePasswordFile;
    std::string source;
    std::string output;
};

bool isAllZero(const unsigned char* data, size_t size) {
    return size == 0 || (data[0] == 0 && std::memcmp(data, data + 1, size - 1) == 0);
}

// Where the grains go: a new VMDK disk or a raw file, each used by the writer thread alone.
class CTarget {
public:
    CTarget(CConvertArguments& a, kz::IFileSystem* fileSystem, const CSourceImage& source)
        : sizeBytes(source.getSizeBytes()) {
        const kz::CURI uri = uriOfPath(a.output);
        if (uri.toNormalized() == source.getURI().toNormalized()) {
            throw kz::CError("The output file is the source image");
        }
        if (a.targetFormat == "vmdk") {
            const kz::String password = a.target.encrypted
                                            ? obtainPassword(a.target.passwordFile, a.output, true)
                                            : kz::String();
            disk =
                harl::CVMDKDisk::create(fileSystem, uri, sizeBytes, password, a.target.compressed,
                                        a.target.compressionLevel, a.target.fileSizeLimit, "",
                                        0xFFFFFFFF, a.target.onDemand);
            grainBytes = disk->getGrainSizeBytes();
        } else if (a.targetFormat == "raw") {
            raw = fileSystem->open(uri, kz::IIOStream::AccessReadWrite, 0);
            raw->setLength(0);
            grainBytes = source.isVMDK() ? source.getDisk()->getGrainSizeBytes() : kRawGrainBytes;
        } else {
            throw kz::CError("Unknown output format '" + a.targetFormat + "' (raw or vmdk)");
        }
    }

    // One preparer per worker when grains need preparing (compression), else none.
    std::vector<kz::P<harl::CVMDKDataPreparer>> makePreparers(int workers) const {
        std::vector<kz::P<harl::CVMDKDataPreparer>> preparers;
        for (int i = 0; disk && disk->getCompressed() && i < workers; ++i) {
            preparers.push_back(disk->createDataPreparer());
        }
        return preparers;
    }

    void write(const CConversionPipeline::CJob& job) {
        const long long position = job.grainIndex * grainBytes;
        if (disk) {
            disk->seek(position);
            disk->writePreparedGrainData(*job.result);
        } else {
            raw->seek(position);
            raw->write(job.result->getData(),
                       static_cast<int>(std::min(grainBytes, sizeBytes - position)), nullptr);
        }
    }

    void finish() {
        if (disk) {
            // Close reports what the destructor could only log.
            disk->close();
        } else {
            raw->setLength(sizeBytes);
            raw->flush();
        }
    }

    kz::P<harl::CVMDKDisk> disk;
    kz::P<kz::IIOStream> raw;
    long long sizeBytes;
    long long grainBytes = kRawGrainBytes;
};

// Reads the source grain by grain for the pipeline, leaving out what reads as zeros.
class CGrainReader {
public:
    CGrainReader(const CSourceImage& source, const CTarget& target, bool prepare)
        : source(source),
          disk(source.getDisk()),
          grainBytes(target.grainBytes),
          prepare(prepare),
          // Compressed grains of one size pass as they are stored, those of another writer's
          // stream-optimized file too: nothing is decompressed and compressed again. Plain
          // grains are read as bytes, so that grains of zeros stay out of the target (a flat
          // extent says every grain is written).
          sameForm(disk && target.disk && disk->getGrainSizeBytes() == grainBytes &&
                   disk->getCompressed() && target.disk->getCompressed()),
          askDisk(disk && disk->getGrainSizeBytes() == grainBytes) {}

    bool next(CConversionPipeline::CJob& job) {
        for (; nextGrain * grainBytes < source.getSizeBytes(); ++nextGrain) {
            const long long position = nextGrain * grainBytes;
            // A grain inside a hole of a raw file is left out unread, and so is the hole.
            const long long data = source.nextDataFrom(position);
            if (data >= position + grainBytes) {
                nextGrain = data / grainBytes - 1;
                continue;
            }
            job.grainIndex = nextGrain;
            job.sourceBytesDone = std::min(position + grainBytes, source.getSizeBytes());
            // The disk answers for a grain that is one of an extent's own; any other grain
            // is read as bytes.
            if (askDisk && source.extentStartOf(position) % grainBytes == 0 &&
                source.nextExtentStart(position) >= job.sourceBytesDone) {
                disk->seek(position);
                if (!disk->isGrainWritten()) {
                    continue;
                }
                // A prepared grain is a whole one: a partial last grain goes as plain data.
                if (sameForm && position + grainBytes <= source.getSizeBytes() &&
                    disk->isGrainWrittenAndIndependentOfParent()) {
                    disk->readPreparedGrainData(*job.data);
                    job.needsVerifying = true;
                    ++nextGrain;
                    return true;
                }
            }
            if (readPlain(*job.data, position)) {
                job.needsPreparing = prepare;
                ++nextGrain;
                return true;
            }
        }
        return false;
    }

private:
    // The grain's bytes, zero-filled behind the source's end; false when all are zero.
    bool readPlain(kz::TBuffer<unsigned char>& data, long long position) {
        const int count = static_cast<int>(std::min(grainBytes, source.getSizeBytes() - position));
        data.setUsed(static_cast<size_t>(grainBytes));
        std::memset(data.getData() + count, 0, static_cast<size_t>(grainBytes - count));
        source.getStream().seek(position);
        source.getStream().read(data.getData(), count);
        return !isAllZero(data.getData(), data.getUsed());
    }

    const CSourceImage& source;
    harl::CVMDKDisk* disk;
    long long grainBytes;
    bool prepare;
    bool sameForm;
    bool askDisk;
    long long nextGrain = 0;
};

int runConvert(CConvertArguments& a) {
    applyTargetOptionList(a.target);
    const kz::P<CConfinedFileSystem> fileSystem = makeFileSystem(a.common, {a.source, a.output});
    const CSourceImage source(fileSystem.get(), a.source, a.sourceFormat, a.sourcePasswordFile);
    // The writer thread encrypts the grains of an encrypted disk as the library stores them;
    // the target's files then write behind it, so that it does not also wait for the system's
    // copy of each grain. Otherwise the writer has little else to do, and the copy into the
    // chunks would cost more than it saves.
    kz::P<kz::IFileSystem> targetFileSystem = fileSystem;
    if (a.targetFormat == "vmdk" && a.target.encrypted) {
        targetFileSystem = kz::makeP<CWriteBehindFileSystem>(fileSystem);
    }
    CTarget target(a, targetFileSystem.get(), source);
    const int workers = a.common.threads > 0
                            ? a.common.threads
                            : std::max(1, static_cast<int>(std::thread::hardware_concurrency()));
    CConversionPipeline pipeline(target.makePreparers(workers));
    CGrainReader reader(source, target, target.disk && target.disk->getCompressed());
    CProgressMeter progress(wantsProgress(a.common), source.getSizeBytes());
    pipeline.run([&](CConversionPipeline::CJob& job) { return reader.next(job); },
                 [&](CConversionPipeline::CJob& job) {
                     target.write(job);
                     progress.report(job.sourceBytesDone);
                 });
    target.finish();
    progress.finish();
    return 0;
}

}  // namespace

void addConvertVerb(CLI::App& app, int& exitCode) {
    auto arguments = std::make_shared<CConvertArguments>();
    CLI::App* verb =
        app.add_subcommand("convert", "Convert an image: raw to VMDK, VMDK to raw, VMDK to VMDK");
    verb->add_option("-f", arguments->sourceFormat, "Format of the source (raw or vmdk)")
        ->check(CLI::IsMember({"raw", "vmdk"}));
    verb->add_option("-O", arguments->targetFormat, "Format of the output (raw or vmdk)")
        ->check(CLI::IsMember({"raw", "vmdk"}));
    verb->add_option("--password-file", arguments->sourcePasswordFile,
                     "File whose first line is the source disk's password");
    addTargetOptions(*verb, arguments->target, "--target-password-file");
    verb->add_option("-j,--threads", arguments->common.threads,
                     "Threads that compress grains (default: one per core)")
        ->check(CLI::Range(1, 256));
    addProgressOptions(*verb, arguments->common);
    addAllowDirOption(*verb, arguments->common);
    verb->add_option("filename", arguments->source, "The source image")->required();
    verb->add_option("output_filename", arguments->output, "The new image")->required();
    verb->callback([arguments, &exitCode] { exitCode = runConvert(*arguments); });
}

}  // namespace harlimg
