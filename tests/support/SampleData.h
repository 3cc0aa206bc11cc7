#pragma once

#include <cstddef>
#include <iterator>
#include <random>
#include <string>
#include <vector>

// Grain contents for tests and benchmarks; header-only, so that benchmarks need not link the
// test support library. Each is fixed by its seed.
namespace harltest {

using Bytes = std::vector<unsigned char>;

// As media or archives that are compressed already.
inline Bytes makeRandomData(size_t size, unsigned seed) {
    std::mt19937 random(seed);
    Bytes data(size);
    for (unsigned char& byte : data) {
        byte = static_cast<unsigned char>(random());
    }
    return data;
}

// Lines of words and numbers, as in logs, sources and configuration files.
inline Bytes makeTextLikeData(size_t size, unsigned seed) {
    const std::string words[] = {"disk ",   "grain ", "table ", "the ", "of ", "extent ",
                                 "sector ", "write ", "= ",     "0x",   "\n"};
    std::mt19937 random(seed);
    std::string text;
    while (text.size() < size) {
        text += words[random() % std::size(words)] + std::to_string(random() % 100);
    }
    return Bytes(text.begin(), text.begin() + std::ptrdiff_t(size));
}

// As a grain of a used file system: 4 KiB blocks of free space (zeros), text, records of
// small integers, and random data with zeros behind it.
inline Bytes makeFileSystemLikeData(size_t size, unsigned seed) {
    const size_t blockSize = 4096;
    std::mt19937 random(seed);
    Bytes data;
    while (data.size() < size) {
        Bytes block(blockSize, 0);
        const unsigned kind = random() % 4;
        if (kind == 1) {
            block = makeTextLikeData(blockSize, seed + unsigned(data.size()));
        } else if (kind == 2) {
            for (size_t i = 0; i < blockSize; i += 16) {
                block[i] = static_cast<unsigned char>(random() % 8);
                block[i + 4] = static_cast<unsigned char>(i >> 4);
            }
        } else if (kind == 3) {
            block = makeRandomData(random() % blockSize, seed + unsigned(data.size()));
            block.resize(blockSize, 0);
        }
        data.insert(data.end(), block.begin(), block.end());
    }
    data.resize(size);
    return data;
}

}  // namespace harltest
