#include "support/module_handle.h"

HINSTANCE g_hModule = nullptr;
