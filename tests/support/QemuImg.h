#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace harltest {

// qemu-img, another implementation of the format, as a test partner: it makes files for our
// readers and checks the files our writers make.

// True when qemu-img can be run.
bool isQemuImgAvailable();

// Runs qemu-img with `arguments`, without a shell, and returns its exit status; its standard
// output and error go to `output` when given.
int runQemuImg(const std::vector<std::string>& arguments, std::string* output = nullptr);

// The same for qemu-io, of the same package, which changes images in place ("-c 'write -z ...'").
int runQemuIo(const std::vector<std::string>& arguments, std::string* output = nullptr);

// Creates an image of `sizeBytes` with "create -f vmdk -o subformat=<subformat>". Throws
// std::runtime_error, with qemu-img's output, when it fails.
void createQemuVMDK(const std::string& path, const std::string& subformat, long long sizeBytes);

}  // namespace harltest

// Skips the current test when qemu-img is not installed.
#define HARL_SKIP_WITHOUT_QEMU_IMG()                     \
    do {                                                 \
        if (!harltest::isQemuImgAvailable()) {           \
            GTEST_SKIP() << "qemu-img is not installed"; \
        }                                                \
    } while (false)
