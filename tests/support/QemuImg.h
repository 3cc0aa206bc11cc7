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

// The same for qemu-io, qemu's tool for I/O on an image ("-c 'write -P 1 0 64k'").
int runQemuIo(const std::vector<std::string>& arguments, std::string* output = nullptr);

// Runs `program` ("qemu-img" or "qemu-io") and throws std::runtime_error, with its output,
// unless it exits with 0.
void runQemuOrThrow(const std::string& program, const std::vector<std::string>& arguments);

// Runs any program without a shell; its exit status, 127 when it cannot be started.
int runProgram(const std::string& program, const std::vector<std::string>& arguments,
               std::string* output = nullptr);

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
