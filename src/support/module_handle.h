// This DLL, as the home of its resources.
#pragma once

#include "support/windows.h"

// Set when the platform loads the DLL; null before.
extern HINSTANCE g_hModule;
