// The Windows headers that keldactl uses, in the order in which they need each other.
#pragma once

#include <windows.h>

#include <bcrypt.h>
#include <ncrypt.h>
#include <wincrypt.h>
