#include "end_to_end.h"

#include <windows.h>
#include <bcrypt.h>
#include <ncrypt.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "demanded.h"
#include "imports.h"
#include "kit/dialogs.h"
#include "kit/ksp.h"

namespace bench {
namespace {

template <class Function>
Function Find(HMODULE module, const char* name) {
  const FARPROC found = GetProcAddress(module, name);
  if (found == nullptr) throw std::runtime_error(std::string("no ") + name);
  return reinterpret_cast<Function>(reinterpret_cast<void*>(found));
}

void Check(LONG status, const char* what) {
  if (status != 0) throw std::runtime_error(std::string(what) + ": " + std::to_string(status));
}

// A copy of the module's function list that the provider can be led through, and put back.
fake::FunctionList& TokenList() {
  using GetList = CK_RV (*)(fake::FunctionList**);
  fake::FunctionList* list = nullptr;
  const HMODULE module = GetModuleHandleW(L"keldapkcs11.dll");
  if (module == nullptr || Find<GetList>(module, "C_GetFunctionList")(&list) != CKR_OK) {
    throw std::runtime_error("no token module");
  }
  DWORD protection = 0;
  VirtualProtect(list, sizeof(*list), PAGE_READWRITE, &protection);
  return *list;
}

constexpr wchar_t kKeyName[] = L"Key1";

}  // namespace

void MeasureEndToEnd(Report& report) {
  const char* pin = std::getenv("KELDA_PIN");
  if (pin == nullptr) throw std::runtime_error("KELDA_PIN is not set; scripts/bench.sh sets it");
  const HMODULE router = LoadLibraryW(L"ncrypt.dll");
  const auto openProvider = Find<decltype(&NCryptOpenStorageProvider)>(router, "NCryptOpenStorageProvider");
  const auto openKey = Find<decltype(&NCryptOpenKey)>(router, "NCryptOpenKey");
  const auto signHash = Find<decltype(&NCryptSignHash)>(router, "NCryptSignHash");
  const auto freeObject = Find<decltype(&NCryptFreeObject)>(router, "NCryptFreeObject");

  NCRYPT_PROV_HANDLE outerProvider = 0;
  NCRYPT_KEY_HANDLE outerKey = 0;
  Check(openProvider(&outerProvider, kit::kProviderName, 0), "NCryptOpenStorageProvider");
  Check(openKey(outerProvider, &outerKey, kKeyName, 0, 0), "NCryptOpenKey");
  BYTE hash[32] = {1};
  BYTE signature[512];
  DWORD length = 0;
  const Call through = [&] {
    Check(signHash(outerKey, nullptr, hash, sizeof(hash), signature, sizeof(signature), &length, 0), "NCryptSignHash");
  };
  kit::DialogRobot robot({[&](kit::Dialog& dialog) {
    dialog.Type(kit::kPinField, std::wstring(pin, pin + std::strlen(pin)));
    dialog.PressOk();
  }});
  through();
  robot.Finish();

  // The same provider without the router.
  const HMODULE provider = GetModuleHandleW(L"keldaksp.dll");
  kit::FunctionTable* table = nullptr;
  Check(Find<kit::GetKeyStorageInterfaceFn>(provider, "GetKeyStorageInterface")(kit::kProviderName, &table, 0),
        "GetKeyStorageInterface");
  NCRYPT_PROV_HANDLE innerProvider = 0;
  NCRYPT_KEY_HANDLE innerKey = 0;
  Check(table->OpenProvider(&innerProvider, kit::kProviderName, 0), "OpenProvider");
  Check(table->OpenKey(innerProvider, &innerKey, kKeyName, 0, 0), "OpenKey");
  const Call direct = [&] {
    Check(
        table->SignHash(innerProvider, innerKey, nullptr, hash, sizeof(hash), signature, sizeof(signature), &length, 0),
        "SignHash");
  };
  direct();
  ImportTable imports(provider);
  fake::FunctionList& list = TokenList();
  const Work all = Demanded(imports, list, direct, Part::All);
  const Work token = Demanded(imports, list, direct, Part::Token);

  const Plan plan{31, 30, 20, {}};
  Subject subject{"layer", "signature", false, 0, 0};
  subject.name = "router and all below";
  report.Compared(subject, Compare(through, direct, plan), "with", "without");
  subject.name = "provider and all below";
  report.Compared(subject,
                  Compare(
                      direct, [&] { all.Run(); }, plan),
                  "with", "without");
  subject.name = "platform and token";
  report.Compared(subject, Compare([&] { all.Run(); }, [&] { token.Run(); }, plan), "with", "without");

  table->FreeKey(innerProvider, innerKey);
  table->FreeProvider(innerProvider);
  freeObject(outerKey);
  freeObject(outerProvider);
}

}  // namespace bench
