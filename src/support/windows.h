// The Windows headers that the provider is written against, in the one order that works.
#pragma once

#include <windows.h>

#include <bcrypt.h>
#include <ncrypt.h>
#include <wincrypt.h>
#include <winscard.h>
