#include "standard_output.h"

#include <io.h>

namespace keldactl {
namespace {

HANDLE g_kept = nullptr;

}  // namespace

void KeepStandardOutput() {
  const HANDLE output = GetStdHandle(STD_OUTPUT_HANDLE);
  const HANDLE self = GetCurrentProcess();
  // One of our own: the C runtime closes the other with its stream.
  if (!output || output == INVALID_HANDLE_VALUE ||
      !DuplicateHandle(self, output, self, &g_kept, 0, FALSE, DUPLICATE_SAME_ACCESS)) {
    return;
  }
  SetStdHandle(STD_OUTPUT_HANDLE, GetStdHandle(STD_ERROR_HANDLE));
  // The same for libraries that share this program's C runtime.
  constexpr int kOutput = 1;
  constexpr int kError = 2;
  if (_dup2(kError, kOutput) != 0) _close(kOutput);
}

HANDLE StandardOutput() {
  return g_kept ? g_kept : GetStdHandle(STD_OUTPUT_HANDLE);
}

}  // namespace keldactl
