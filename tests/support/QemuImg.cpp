#include "tests/support/QemuImg.h"

#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace harltest {

int runQemuImg(const std::vector<std::string>& arguments, std::string* output) {
    return runProgram("qemu-img", arguments, output);
}

int runQemuIo(const std::vector<std::string>& arguments, std::string* output) {
    return runProgram("qemu-io", arguments, output);
}

void runQemuOrThrow(const std::string& program, const std::vector<std::string>& arguments) {
    std::string output;
    const int status = runProgram(program, arguments, &output);
    if (status != 0) {
        std::string line = program;
        for (const std::string& argument : arguments) {
            line += " " + argument;
        }
        throw std::runtime_error(line + " failed (" + std::to_string(status) + "): " + output);
    }
}

int runProgram(const std::string& program, const std::vector<std::string>& arguments,
               std::string* output) {
    std::vector<std::string> words{program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);

    int pipeEnds[2];
    if (pipe(pipeEnds) != 0) {
        throw std::runtime_error("pipe failed");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addclose(&actions, pipeEnds[0]);
    posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], STDERR_FILENO);
    posix_spawn_file_actions_addclose(&actions, pipeEnds[1]);
    pid_t pid = 0;
    const int spawned =
        posix_spawnp(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(pipeEnds[1]);

    std::string text;
    char chunk[4096];
    ssize_t count = 0;
    while ((count = read(pipeEnds[0], chunk, sizeof(chunk))) > 0) {
        text.append(chunk, static_cast<size_t>(count));
    }
    close(pipeEnds[0]);
    if (output != nullptr) {
        *output = text;
    }
    if (spawned != 0) {
        return 127;
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
}

bool isQemuImgAvailable() {
    static const bool available = runQemuImg({"--version"}) == 0;
    return available;
}

void createQemuVMDK(const std::string& path, const std::string& subformat, long long sizeBytes) {
    std::string output;
    const int status = runQemuImg({"create", "-q", "-f", "vmdk", "-o", "subformat=" + subformat,
                                   path, std::to_string(sizeBytes)},
                                  &output);
    if (status != 0) {
        throw std::runtime_error("qemu-img create failed (" + std::to_string(status) +
                                 "): " + output);
    }
}

}  // namespace harltest
