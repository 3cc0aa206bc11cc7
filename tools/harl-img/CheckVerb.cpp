#include "CommandLine.h"
#include "Verbs.h"

namespace harlimg {

void addCheckVerb(CLI::App& app, int& exitCode) {
    app.add_subcommand("check", "Check an image");
}

}  // namespace harlimg
