// Command.h - how a subcommand plugs into the qx program.
//
// A subcommand is one file pair with one registration function. The function
// adds its CLI11 subcommand to the application and, from the subcommand's parse
// callback, stores the action to run in `selected`. main() runs that action
// only after the whole command line parsed, so argument errors never leave
// half-done work behind, and the action's return value is the exit status.
#pragma once

#include <functional>

namespace CLI {
class App;
}

namespace qxtool {

/// Exit statuses shared by every subcommand. Argument errors exit with 2.
inline constexpr int kExitSuccess = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;

/// The work a parsed command line asks for; returns the exit status.
using Action = std::function<int()>;

/// Adds one subcommand to app; sets `selected` when the user picked it.
using CommandRegistration = void (*)(CLI::App& app, Action& selected);

} // namespace qxtool
