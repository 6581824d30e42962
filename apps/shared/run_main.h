// The frame of every program's main(): arguments through CLI11, errors as one line on stderr with exit
// status 2.
#pragma once

#include <CLI/CLI.hpp>

#include <cstdio>
#include <exception>
#include <functional>

/// A program: it describes its arguments to `app`, calls `parse`, which fills them in, and does its work. Its
/// result is the exit status; it may throw.
using Program = int (*)(CLI::App& app, const std::function<void()>& parse);

/// Runs the program. A wrong argument or an exception is reported on stderr and gives 2; "--help" gives 0.
inline int RunMain(const char* name, const char* description, Program program, int argc,
                   char** argv) noexcept {
    try {
        CLI::App app(description, name);
        try {
            return program(app, [&] { app.parse(argc, argv); });
        } catch (const CLI::ParseError& error) {
            return app.exit(error) == 0 ? 0 : 2;
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", name, error.what());
        return 2;
    }
}
