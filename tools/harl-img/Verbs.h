#pragma once

#include <CLI/CLI.hpp>

namespace harlimg {

// Each verb adds itself to the application as a subcommand with its options and a callback
// that runs it and stores the exit code in `exitCode`. Errors leave the callbacks as
// exceptions; main reports them.
void addCreateVerb(CLI::App& app, int& exitCode);
void addConvertVerb(CLI::App& app, int& exitCode);
void addInfoVerb(CLI::App& app, int& exitCode);
void addCheckVerb(CLI::App& app, int& exitCode);
void addCompareVerb(CLI::App& app, int& exitCode);
void addMapVerb(CLI::App& app, int& exitCode);
void addRebaseVerb(CLI::App& app, int& exitCode);

}  // namespace harlimg
