// The readers that the smart card service (PC/SC) knows.
#pragma once

#include <string>
#include <vector>

namespace keldactl {

// No reader at all is not a failure. Throws Failure.
std::vector<std::wstring> ReadersByPcsc();

}  // namespace keldactl
