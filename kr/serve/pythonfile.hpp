#pragma once

#include "serve/modulelibrary.hpp"

#include <string>

namespace KR::tool {

/// Whether this is "FILE.py" or "FILE.py:CLASS".
bool isPythonFile(const std::string& text);

/// Runs the file, with the interpreter of krpythonhost.so, and finds its class. It is run once.
/// \throws std::runtime_error there is no such file, or no interpreter; the file cannot be run, with the line; there is no
/// such class
HostedClass loadPythonClass(const std::string& text);

} // namespace KR::tool
