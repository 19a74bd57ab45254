// The objects that exist once per process.
#pragma once

#include "support/windows.h"

// Creates the process-wide objects while the platform loads the DLL. Throws when the token module cannot be loaded; the
// load of the DLL then has to fail.
void CreateProcessObjects(HINSTANCE module);

// Destroys the one object that does not live on the heap; the others are never destroyed.
void DestroyProcessObjects() noexcept;
