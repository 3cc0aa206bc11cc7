// harl-img: creates, converts, inspects and checks VMDK disk images through the harl library,
// with the verbs, options and exit codes of qemu-img where they fit.

#include "harl/foundation/kz/Log.h"

#include "CommandLine.h"
#include "Verbs.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

namespace {

// The library's warnings go to standard error at once. Its errors come with an exception that
// the tool reports anyway, so they are held back and shown only if the verb ends well (a
// failure that the library could only log, in a destructor). A verb that ends with another
// exit code has said what went wrong.
std::vector<std::string>& heldErrors() {
    static std::vector<std::string> errors;
    return errors;
}

void installLogSink() {
    kz::setLogSink([](kz::LogLevel level, const kz::String& message) {
        if (level == kz::LogLevel::Warning) {
            std::fprintf(stderr, "harl-img: warning: %s\n", message.toUTF8().c_str());
        } else if (level == kz::LogLevel::Error) {
            heldErrors().push_back(message.toUTF8());
        }
    });
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("harl-img: create, convert, inspect and check VMDK disk images", "harl-img");
    app.require_subcommand(1);
    // One line, as every other error of the tool.
    app.failure_message([](const CLI::App*, const CLI::Error& e) {
        return "harl-img: " + std::string(e.what()) + " (see --help)\n";
    });
    int exitCode = 0;
    harlimg::addCreateVerb(app, exitCode);
    harlimg::addConvertVerb(app, exitCode);
    harlimg::addInfoVerb(app, exitCode);
    harlimg::addCheckVerb(app, exitCode);
    harlimg::addCompareVerb(app, exitCode);
    harlimg::addMapVerb(app, exitCode);
    harlimg::addRebaseVerb(app, exitCode);
    installLogSink();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int code = app.exit(e);
        return code == 0 ? 0 : harlimg::kExitFailure;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "harl-img: %s\n", e.what());
        return harlimg::kExitFailure;
    }
    for (const std::string& error : exitCode == 0 ? heldErrors() : std::vector<std::string>()) {
        std::fprintf(stderr, "harl-img: error: %s\n", error.c_str());
    }
    return exitCode;
}
