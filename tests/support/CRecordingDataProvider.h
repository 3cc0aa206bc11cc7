#pragma once

#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/CIOError.h"
#include "harl/grain/IVMDKDataProvider.h"

#include <cstring>
#include <set>
#include <string>
#include <vector>

namespace harltest {

// A fallback data provider that records every call as a line of text and answers with a
// pattern of the disk position, so that a test sees which disk bytes were asked for and
// where they landed. Prepared grains are the 8 bytes of their position.
class CRecordingDataProvider : public kz::CBase, public harl::IVMDKDataProvider {
public:
    static unsigned char patternAt(long long position) {
        return static_cast<unsigned char>(position * 7 + position / 251 + 1);
    }

    void getData(long long position, void* buffer, int size) override {
        record("getData " + std::to_string(position) + " " + std::to_string(size));
        auto* bytes = static_cast<unsigned char*>(buffer);
        for (int i = 0; i < size; ++i) {
            bytes[i] = patternAt(position + i);
        }
    }

    void getPreparedGrainData(long long position, kz::TBuffer<unsigned char>& data, int grainSize,
                              bool compressed) override {
        record("getPrepared " + std::to_string(position) + " " + std::to_string(grainSize) +
               (compressed ? " compressed" : ""));
        data.assign(reinterpret_cast<const unsigned char*>(&position), sizeof(position));
    }

    bool isGrainWritten(long long position) override {
        record("isGrainWritten " + std::to_string(position));
        return writtenGrains.count(position) > 0;
    }

    std::vector<std::string> calls;
    // The call, counted from 0, that throws instead of answering; -1: none.
    int failingCall = -1;
    // Disk positions of the grains that count as written.
    std::set<long long> writtenGrains;

private:
    void record(const std::string& call) {
        const bool fail = failingCall == static_cast<int>(calls.size());
        calls.push_back(call);
        if (fail) {
            throw kz::CIOError(kz::CIOError::CorruptFormat, "Parent data unreadable.");
        }
    }
};

}  // namespace harltest
