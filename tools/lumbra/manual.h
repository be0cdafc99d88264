// What the package says of the command line, made from the same descriptions as --help.
#pragma once

#include <string>

namespace CLI {
class App;
}

namespace lumbra::tool {

// Version, format of the files, and what built it; the same from the same sources and compiler.
std::string VersionText();

// The exit statuses, for the end of --help.
std::string ExitStatusText();

// The manual page, and the completion for bash. Both leave out what --help does.
std::string ManualPage(const CLI::App& App);
std::string BashCompletion(const CLI::App& App);

}  // namespace lumbra::tool
