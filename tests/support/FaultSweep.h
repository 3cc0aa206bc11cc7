#pragma once

#include "harl/foundation/kz/CFaultInjectingFileSystem.h"
#include "harl/foundation/kz/TBuffer.h"

#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

// What the fault sweeps of extents and disks share: the ways a fault may strike, grain
// contents that tell whose data a sector is, and the model of what each grain may read as
// after a fault. Header-only.
namespace harltest {

using SweepBytes = std::vector<unsigned char>;

// Fail: the operation fails and the process goes on. TornWrite: a write stores half its bytes
// and fails. Die: nothing after the fault reaches the file. PowerCut: the process dies and the
// medium keeps a seeded subset of the writes since the last flush.
enum class SweepMode { Fail, TornWrite, Die, PowerCut };

inline const char* sweepModeName(SweepMode mode) {
    const char* names[] = {"fail", "torn write", "die", "power cut"};
    return names[static_cast<int>(mode)];
}

inline kz::CFaultInjectingFileSystem::Fault faultOf(SweepMode mode) {
    using Fault = kz::CFaultInjectingFileSystem::Fault;
    return mode == SweepMode::Fail        ? Fault::Fail
           : mode == SweepMode::TornWrite ? Fault::TornWrite
                                          : Fault::Die;
}

constexpr int kSweepSectorBytes = 512;
constexpr unsigned kSweepTagMagic = 0x50455753;  // "SWEP"

// Version `version` (from 1) of grain `grain`, `grainBytes` long: every sector starts with a
// tag that names the grain, the version and the sector; odd versions compress well, even ones
// not at all, so that a compressed grain rewritten with an even version outgrows its slot.
inline SweepBytes grainVersion(int grain, int version, int grainBytes) {
    SweepBytes data(static_cast<size_t>(grainBytes));
    std::mt19937 random(static_cast<unsigned>(grain * 1000 + version));
    for (int sector = 0; sector < grainBytes / kSweepSectorBytes; ++sector) {
        unsigned char* bytes = data.data() + sector * kSweepSectorBytes;
        const unsigned tag[4] = {kSweepTagMagic, static_cast<unsigned>(grain),
                                 static_cast<unsigned>(version), static_cast<unsigned>(sector)};
        std::memcpy(bytes, tag, sizeof(tag));
        for (int i = sizeof(tag); i < kSweepSectorBytes; ++i) {
            bytes[i] = version % 2 == 1 ? static_cast<unsigned char>(grain + i / 64)
                                        : static_cast<unsigned char>(random());
        }
    }
    return data;
}

// The grain a sector's tag names, or -1 for a sector without a tag.
inline int taggedGrain(const unsigned char* sector) {
    unsigned tag[2];
    std::memcpy(tag, sector, sizeof(tag));
    return tag[0] == kSweepTagMagic ? static_cast<int>(tag[1]) : -1;
}

// What each grain may read as after a fault: its content at the last completed flush and what
// was written to it since. A grain that nothing touched since the last flush reads as it was
// then; one that got its first slot since reads as before or as written (its table entry
// reaches the file only after its data); one rewritten since reads, sector by sector, as any of
// its versions, or fails with a clear error, since a rewrite in place is not atomic. No sector
// may hold another grain's data.
class CSweepModel {
public:
    explicit CSweepModel(int grainBytes) : grainBytes(grainBytes) {}

    void write(int grain, const SweepBytes& data) { entry(grain).since.push_back(data); }

    // A flush returned: everything written is in the file.
    void commit() {
        committedOnce = committedOnce || !grains.empty();
        for (auto& [index, grain] : grains) {
            if (!grain.since.empty()) {
                grain.committed = grain.since.back();
                grain.since.clear();
            }
        }
    }

    bool anythingCommitted() const { return committedOnce; }

    // True when a flush brought a content of the grain to the file.
    bool wasFlushed(int grain) const {
        const auto found = grains.find(grain);
        return found != grains.end() &&
               found->second.committed != SweepBytes(static_cast<size_t>(grainBytes), 0);
    }

    // What the grain holds now, as far as the writes that returned go.
    SweepBytes current(int grain) const {
        const auto found = grains.find(grain);
        if (found == grains.end()) {
            return SweepBytes(static_cast<size_t>(grainBytes), 0);
        }
        return found->second.since.empty() ? found->second.committed : found->second.since.back();
    }

    std::vector<int> touchedGrains() const {
        std::vector<int> result;
        for (const auto& [index, grain] : grains) {
            result.push_back(index);
        }
        return result;
    }

    // Checks one grain as read back (`error` empty) or the error its read met; "" when it is
    // one of the allowed outcomes. `lenient` also allows sectors of no version in a rewritten
    // grain, where a torn write or a cipher's chaining may leave them.
    std::string check(int grain, const SweepBytes& data, const std::string& error,
                      bool lenient) const {
        const auto found = grains.find(grain);
        const SweepBytes zero(static_cast<size_t>(grainBytes), 0);
        const SweepBytes& committed = found == grains.end() ? zero : found->second.committed;
        static const std::vector<SweepBytes> none;
        const std::vector<SweepBytes>& since = found == grains.end() ? none : found->second.since;
        const bool strict = since.empty() || (since.size() == 1 && committed == zero);
        if (!error.empty()) {
            return strict ? "read failed: " + error : "";
        }
        if (data == committed || (strict && !since.empty() && data == since[0])) {
            return "";
        }
        if (strict) {
            return "reads as neither its flushed nor its written content (its first sector is " +
                   std::string(taggedGrain(data.data()) < 0 ? "untagged" : "tagged") + ")";
        }
        for (int sector = 0; sector < grainBytes / kSweepSectorBytes; ++sector) {
            const size_t at = static_cast<size_t>(sector * kSweepSectorBytes);
            bool known =
                std::memcmp(data.data() + at, committed.data() + at, kSweepSectorBytes) == 0;
            for (const SweepBytes& version : since) {
                known = known ||
                        std::memcmp(data.data() + at, version.data() + at, kSweepSectorBytes) == 0;
            }
            const int tagged = taggedGrain(data.data() + at);
            if (!known && (!lenient || (tagged >= 0 && tagged != grain))) {
                return "sector " + std::to_string(sector) + " holds data of grain " +
                       std::to_string(tagged);
            }
        }
        return "";
    }

private:
    struct CGrain {
        SweepBytes committed;
        std::vector<SweepBytes> since;
    };

    CGrain& entry(int grain) {
        CGrain& found = grains[grain];
        if (found.committed.empty()) {
            found.committed.assign(static_cast<size_t>(grainBytes), 0);
        }
        return found;
    }

    int grainBytes;
    std::map<int, CGrain> grains;
    bool committedOnce = false;
};

// Writes `data` as grain `grain` of an extent or a disk and records it in `model`: as bytes, or
// as a prepared grain, as a copy between disks gives it.
template <class Target>
void writeSweepGrain(Target& target, CSweepModel& model, int grain, const SweepBytes& data) {
    model.write(grain, data);
    target.seek(static_cast<long long>(grain) * static_cast<long long>(data.size()));
    target.write(data.data(), static_cast<int>(data.size()));
}

template <class Target>
void writeSweepGrainPrepared(Target& target, CSweepModel& model, int grain,
                             const SweepBytes& data) {
    kz::P<kz::TBuffer<unsigned char>> plain(new kz::TBuffer<unsigned char>);
    plain->assign(data.data(), data.size());
    kz::P<kz::TBuffer<unsigned char>> aux(new kz::TBuffer<unsigned char>);
    const kz::P<kz::TBuffer<unsigned char>> prepared =
        target.createDataPreparer()->prepareGrainData(plain.get(), grain, aux.get());
    model.write(grain, data);
    target.seek(static_cast<long long>(grain) * static_cast<long long>(data.size()));
    target.writePreparedGrainData(*prepared);
}

}  // namespace harltest
