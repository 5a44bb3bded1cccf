#pragma once

#include "settings.hpp"

// The commands of zymctl. Each reads its arguments from the settings, prints its results, and
// throws CommandFailed if it has none.

ExitCode runTree(Context& context);
ExitCode runWatch(Context& context);
ExitCode runGet(Context& context);
ExitCode runSet(Context& context);
ExitCode runClear(Context& context);
ExitCode runClean(Context& context);
ExitCode runCall(Context& context);
ExitCode runServe(Context& context);
ExitCode runBind(Context& context);
ExitCode runTime(Context& context);
ExitCode runCheck(Context& context);
ExitCode runDoctor(Context& context);
