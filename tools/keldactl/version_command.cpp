#include "commands.h"
#include "json.h"
#include "output.h"

namespace keldactl {
namespace {

constexpr const wchar_t* kVersion = L"4.2.0.1";

struct VersionOptions {
  bool json = false;
};

void VersionSyntax(Syntax& syntax, VersionOptions& options) {
  syntax.Json(options.json);
}

ExitStatus ShowVersion(const VersionOptions& options) {
  if (options.json) {
    SayJson({{"version", Utf8(kVersion)}, {"bits", sizeof(void*) * 8}});
  } else {
    Say(std::wstring(L"keldactl ") + kVersion + (sizeof(void*) == 8 ? L" (64-bit)" : L" (32-bit)"));
  }
  return ExitStatus::kDone;
}

}  // namespace

void AddVersionCommand(Program& program) {
  program.Add<VersionOptions>(Heading::kHelp, "version", "Tell keldactl's version", VersionSyntax, ShowVersion);
}

}  // namespace keldactl
