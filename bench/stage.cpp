#include "stage.h"

#include <array>
#include <stdexcept>

#include "bare_token.h"
#include "kit/dialogs.h"
#include "kit/registry.h"

namespace bench {
namespace {

void Check(LONG status, const char* what) {
  if (status != 0) throw std::runtime_error(std::string(what) + ": " + std::to_string(status));
}

}  // namespace

std::wstring Stage::ProgramFolder() {
  std::array<wchar_t, MAX_PATH> path;
  const DWORD length = GetModuleFileNameW(nullptr, path.data(), MAX_PATH);
  const std::wstring all(path.data(), length);
  return all.substr(0, all.find_last_of(L'\\') + 1);
}

Stage::Stage() : logFile_(ProgramFolder() + L"bench.log") {
  kit::Registry::Get().Redirect();
  const HMODULE module = LoadLibraryW((ProgramFolder() + L"..\\fake\\keldapkcs11.dll").c_str());
  if (module == nullptr) throw std::runtime_error("the token double does not load");
  const auto attach = reinterpret_cast<void (*)(void*, unsigned long)>(
      reinterpret_cast<void*>(GetProcAddress(module, "KeldaFakeAttach")));
  attach(fake::Token().List(), 0);
}

Stage::~Stage() {
  Unload();
  kit::Registry::Get().Release();
  DeleteFileW(logFile_.c_str());
}

std::wstring Stage::LastKey() const {
  const std::string name = KeyName(keyPairs_);
  return {name.begin(), name.end()};
}

void Stage::Unload() {
  if (module_ == nullptr) return;
  imports_.reset();
  Close(handles_);
  FreeLibrary(module_);
  module_ = nullptr;
}

void Stage::Set(bool log, std::size_t keyPairs) {
  Unload();
  log_ = log;
  keyPairs_ = keyPairs;
  fake::Token().Reset();
  fake::Token().AddSlot("Reader 0");
  for (std::size_t i = 1; i <= keyPairs; ++i)
    fake::Token().AddKeyPair(fake::Ascii(KeyName(i)), "", 1024);
  kit::Registry::Get().SetDefaults();
  if (log) {
    kit::Registry::Get().SetString(kit::kSdkKey, L"KSPLOG", L"1");
    kit::Registry::Get().SetString(kit::kSdkKey, L"KSPDIR", logFile_);
  }
  module_ = LoadLibraryW((ProgramFolder() + L"keldaksp.dll").c_str());
  if (module_ == nullptr) throw std::runtime_error("the provider does not load");
  imports_ = std::make_unique<ImportTable>(module_);
  const auto interface = reinterpret_cast<kit::GetKeyStorageInterfaceFn>(
      reinterpret_cast<void*>(GetProcAddress(module_, "GetKeyStorageInterface")));
  kit::FunctionTable* table = nullptr;
  Check(interface(kit::kProviderName, &table, 0), "GetKeyStorageInterface");
  table_ = table;
  handles_ = Open(LastKey());

  BYTE hash[20] = {};
  DWORD length = 0;
  kit::DialogRobot robot({[](kit::Dialog& dialog) {
    dialog.Type(kit::kPinField, L"1234");
    dialog.PressOk();
  }});
  Check(ksp().SignHash(handles_.provider, handles_.key, nullptr, hash, sizeof(hash), nullptr, 0, &length, 0),
        "SignHash");
  robot.Finish();
  Forget();
}

Stage::Handles Stage::Open(const std::wstring& keyName) {
  Handles opened;
  Check(ksp().OpenProvider(&opened.provider, kit::kProviderName, NCRYPT_SILENT_FLAG), "OpenProvider");
  Check(ksp().OpenKey(opened.provider, &opened.key, keyName.c_str(), 0, 0), "OpenKey");
  return opened;
}

void Stage::Close(const Handles& handles) {
  ksp().FreeKey(handles.provider, handles.key);
  ksp().FreeProvider(handles.provider);
}

void Stage::Forget() {
  fake::Token().ClearCalls();
  DeleteFileW(logFile_.c_str());
}

void Stage::LoadOnce() {
  const HMODULE module = LoadLibraryW((ProgramFolder() + L"keldaksp.dll").c_str());
  if (module != nullptr) FreeLibrary(module);
}

}  // namespace bench
