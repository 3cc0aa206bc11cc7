#include "tests/support/TestFiles.h"

#include <fstream>
#include <stdexcept>

namespace harltest {

kz::TBuffer<unsigned char> readFilePart(const std::string& path, long long offset, size_t length) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw std::runtime_error("Cannot open " + path);
    }
    in.seekg(offset);
    kz::TBuffer<unsigned char> content(length);
    in.read(reinterpret_cast<char*>(content.getData()), static_cast<std::streamsize>(length));
    content.setUsed(static_cast<size_t>(in.gcount()));
    return content;
}

kz::TBuffer<unsigned char> readWholeFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    if (!in) {
        throw std::runtime_error("Cannot open " + path);
    }
    const std::streamoff size = in.tellg();
    return readFilePart(path, 0, static_cast<size_t>(size));
}

void writeWholeFile(const std::string& path, const kz::TBuffer<unsigned char>& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(content.getData()),
              static_cast<std::streamsize>(content.getUsed()));
    if (!out) {
        throw std::runtime_error("Cannot write " + path);
    }
}

}  // namespace harltest
