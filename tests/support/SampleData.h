#pragma once

#include <cstddef>
#include <iterator>
#include <random>
#include <string>
#include <vector>

// Header-only, so that benchmarks can use it without the test support library.
namespace harltest {

using Bytes = std::vector<unsigned char>;

// Random bytes, as in media or archives that are compressed already.
inline Bytes makeRandomData(size_t size, unsigned seed) {
    std::mt19937 random(seed);
    Bytes data(size);
    for (unsigned char& byte : data) {
        byte = static_cast<unsigned char>(random());
    }
    return data;
}

// Words and numbers in lines, as in logs, sources and configuration files.
inline Bytes makeTextLikeData(size_t size, unsigned seed) {
    static const char* const kWords[] = {"disk ",   "grain ",  "table ", "the ",  "of ", "and ",
                                         "extent ", "sector ", "write ", "read ", "= ",  "0x"};
    std::mt19937 random(seed);
    Bytes data;
    while (data.size() < size) {
        const char* word = kWords[random() % std::size(kWords)];
        data.insert(data.end(), word, word + std::char_traits<char>::length(word));
        if (random() % 4 == 0) {
            data.push_back(static_cast<unsigned char>('0' + random() % 10));
        }
        if (random() % 9 == 0) {
            data.push_back('\n');
        }
    }
    data.resize(size);
    return data;
}

// What a grain of a used file system holds: runs of zeros between text, records of small
// integers and random stretches, in 4 KiB blocks.
inline Bytes makeFileSystemLikeData(size_t size, unsigned seed) {
    const size_t blockSize = 4096;
    std::mt19937 random(seed);
    Bytes data;
    while (data.size() < size) {
        Bytes block(blockSize, 0);
        switch (random() % 4) {
            case 0:
                break;  // Free space.
            case 1:
                block = makeTextLikeData(blockSize, static_cast<unsigned>(random()));
                break;
            case 2:
                for (size_t i = 0; i < blockSize; i += 16) {
                    block[i] = static_cast<unsigned char>(random() % 8);
                    block[i + 4] = static_cast<unsigned char>(i >> 4);
                }
                break;
            default:
                block = makeRandomData(blockSize, static_cast<unsigned>(random()));
                block.resize(blockSize - random() % blockSize);  // Then zeros to the end.
                block.resize(blockSize, 0);
        }
        data.insert(data.end(), block.begin(), block.end());
    }
    data.resize(size);
    return data;
}

}  // namespace harltest
