// What C++ exceptions need of a DLL that is loaded into any program and unloaded again. GCC's runtime library is linked
// into this DLL and expects to stay for the life of the process.
#pragma once

#include "support/windows.h"

// Before anything can throw: makes exceptions of this DLL work whatever else the process has loaded.
void PrepareExceptions(HMODULE module) noexcept;
// The calling thread ends, and its room for exceptions with it.
void EndThreadExceptions() noexcept;
// After everything that can throw: releases what the runtime library keeps for exceptions.
void EndExceptions() noexcept;
