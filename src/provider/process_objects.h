// The objects that exist once per process.
#pragma once

#include "support/windows.h"

// Creates the process-wide objects while the platform loads the DLL. False when the token module cannot be loaded; the
// load of the DLL then has to fail. Throws nothing.
bool CreateProcessObjects(HINSTANCE module) noexcept;

// At the end of the process: destroys the one object that does not live on the heap; the others are never destroyed.
void DestroyProcessObjects() noexcept;

// When the DLL leaves a process that goes on, or fails to load: releases all objects, so that nothing of them stays
// behind however often that happens. The token module stays loaded.
void ReleaseProcessObjects() noexcept;
