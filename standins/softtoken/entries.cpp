// The module's function list: the entries that Windows code calls, in the order of PKCS#11 v2.40 and with the
// maker's own login behind them.

#include <array>
#include <cstring>

#include "softtoken/module.h"
#include "softtoken/win_layout.h"

namespace {

using softtoken::Module;
using softtoken::Operation;
using win::Ulong;
using Bytes = std::uint8_t*;

// 68 standard entries, six reserved ones, the maker's login.
constexpr std::size_t kEntryCount = 75;
constexpr std::size_t kLoginPosition = 74;

KELDA_WINDOWS_CALL Ulong GetFunctionListEntry(void** list);

KELDA_WINDOWS_CALL Ulong NotSupported() {
  return CKR_FUNCTION_NOT_SUPPORTED;
}

KELDA_WINDOWS_CALL Ulong Initialize(void* /*arguments*/) {
  return Module::Instance().Run([](Module& module) { return module.Initialize(); });
}

KELDA_WINDOWS_CALL Ulong Finalize(void* reserved) {
  if (reserved != nullptr) return CKR_ARGUMENTS_BAD;
  return Module::Instance().Run([](Module& module) { return module.Finalize(); });
}

KELDA_WINDOWS_CALL Ulong GetInfo(win::Info* info) {
  return Module::Instance().Run([=](Module& module) { return module.GetInfo(info); });
}

KELDA_WINDOWS_CALL Ulong GetSlotList(std::uint8_t withToken, Ulong* slots, Ulong* count) {
  return Module::Instance().Run([=](Module& module) { return module.GetSlotList(withToken != 0, slots, count); });
}

KELDA_WINDOWS_CALL Ulong GetSlotInfo(Ulong slot, win::SlotInfo* info) {
  return Module::Instance().Run([=](Module& module) { return module.GetSlotInfo(slot, info); });
}

KELDA_WINDOWS_CALL Ulong GetTokenInfo(Ulong slot, win::TokenInfo* info) {
  return Module::Instance().Run([=](Module& module) { return module.GetTokenInfo(slot, info); });
}

KELDA_WINDOWS_CALL Ulong GetMechanismList(Ulong slot, Ulong* mechanisms, Ulong* count) {
  return Module::Instance().Run([=](Module& module) { return module.GetMechanismList(slot, mechanisms, count); });
}

KELDA_WINDOWS_CALL Ulong GetMechanismInfo(Ulong slot, Ulong mechanism, win::MechanismInfo* info) {
  return Module::Instance().Run([=](Module& module) { return module.GetMechanismInfo(slot, mechanism, info); });
}

KELDA_WINDOWS_CALL Ulong OpenSession(Ulong slot, Ulong flags, void* /*application*/, void* /*notify*/, Ulong* session) {
  return Module::Instance().Run([=](Module& module) { return module.OpenSession(slot, flags, session); });
}

KELDA_WINDOWS_CALL Ulong CloseSession(Ulong session) {
  return Module::Instance().Run([=](Module& module) { return module.CloseSession(session); });
}

KELDA_WINDOWS_CALL Ulong CloseAllSessions(Ulong slot) {
  return Module::Instance().Run([=](Module& module) { return module.CloseAllSessions(slot); });
}

KELDA_WINDOWS_CALL Ulong GetSessionInfo(Ulong session, win::SessionInfo* info) {
  return Module::Instance().Run([=](Module& module) { return module.GetSessionInfo(session, info); });
}

KELDA_WINDOWS_CALL Ulong Login(Ulong session, Ulong user, Bytes pin, Ulong pinLen) {
  return Module::Instance().Run([=](Module& module) { return module.Login(session, user, pin, pinLen); });
}

KELDA_WINDOWS_CALL Ulong LoginCounted(Ulong session, Ulong user, Bytes pin, Ulong pinLen) {
  return Module::Instance().Run([=](Module& module) { return module.LoginCounted(session, user, pin, pinLen); });
}

KELDA_WINDOWS_CALL Ulong Logout(Ulong session) {
  return Module::Instance().Run([=](Module& module) { return module.Logout(session); });
}

KELDA_WINDOWS_CALL Ulong CreateObject(Ulong session, win::Attribute* attributes, Ulong count, Ulong* object) {
  return Module::Instance().Run(
      [=](Module& module) { return module.CreateObject(session, attributes, count, object); });
}

KELDA_WINDOWS_CALL Ulong DestroyObject(Ulong session, Ulong object) {
  return Module::Instance().Run([=](Module& module) { return module.DestroyObject(session, object); });
}

KELDA_WINDOWS_CALL Ulong GetAttributeValue(Ulong session, Ulong object, win::Attribute* attributes, Ulong count) {
  return Module::Instance().Run(
      [=](Module& module) { return module.GetAttributeValue(session, object, attributes, count); });
}

KELDA_WINDOWS_CALL Ulong SetAttributeValue(Ulong session, Ulong object, win::Attribute* attributes, Ulong count) {
  return Module::Instance().Run(
      [=](Module& module) { return module.SetAttributeValue(session, object, attributes, count); });
}

KELDA_WINDOWS_CALL Ulong FindObjectsInit(Ulong session, win::Attribute* attributes, Ulong count) {
  return Module::Instance().Run([=](Module& module) { return module.FindObjectsInit(session, attributes, count); });
}

KELDA_WINDOWS_CALL Ulong FindObjects(Ulong session, Ulong* objects, Ulong max, Ulong* count) {
  return Module::Instance().Run([=](Module& module) { return module.FindObjects(session, objects, max, count); });
}

KELDA_WINDOWS_CALL Ulong FindObjectsFinal(Ulong session) {
  return Module::Instance().Run([=](Module& module) { return module.FindObjectsFinal(session); });
}

template <Operation kOperation>
KELDA_WINDOWS_CALL Ulong InitOperation(Ulong session, win::Mechanism* mechanism, Ulong key) {
  return Module::Instance().Run(
      [=](Module& module) { return module.InitOperation(kOperation, session, mechanism, key); });
}

template <Operation kOperation>
KELDA_WINDOWS_CALL Ulong RunOperation(Ulong session, Bytes input, Ulong inputLen, Bytes output, Ulong* outputLen) {
  return Module::Instance().Run(
      [=](Module& module) { return module.RunOperation(kOperation, session, input, inputLen, output, outputLen); });
}

KELDA_WINDOWS_CALL Ulong Verify(Ulong session, Bytes data, Ulong dataLen, Bytes signature, Ulong signatureLen) {
  return Module::Instance().Run(
      [=](Module& module) { return module.Verify(session, data, dataLen, signature, signatureLen); });
}

KELDA_WINDOWS_CALL Ulong GenerateKeyPair(Ulong session, win::Mechanism* mechanism, win::Attribute* publicAttributes,
                                         Ulong publicCount, win::Attribute* privateAttributes, Ulong privateCount,
                                         Ulong* publicKey, Ulong* privateKey) {
  return Module::Instance().Run([=](Module& module) {
    return module.GenerateKeyPair(session, mechanism, publicAttributes, publicCount, privateAttributes, privateCount,
                                  publicKey, privateKey);
  });
}

KELDA_WINDOWS_CALL Ulong GenerateRandom(Ulong session, Bytes bytes, Ulong count) {
  return Module::Instance().Run([=](Module& module) { return module.GenerateRandom(session, bytes, count); });
}

#pragma pack(push, 1)
struct FunctionList {
  win::Version version;
  std::array<void*, kEntryCount> entries;
};
#pragma pack(pop)
static_assert(sizeof(FunctionList) == 2 + kEntryCount * sizeof(void*));

template <typename Function>
void* Entry(Function* function) {
  return reinterpret_cast<void*>(function);
}

FunctionList MakeFunctionList() {
  std::array<void*, kEntryCount> entries{};
  entries.fill(Entry(&NotSupported));
  entries[0] = Entry(&Initialize);
  entries[1] = Entry(&Finalize);
  entries[2] = Entry(&GetInfo);
  entries[3] = Entry(&GetFunctionListEntry);
  entries[4] = Entry(&GetSlotList);
  entries[5] = Entry(&GetSlotInfo);
  entries[6] = Entry(&GetTokenInfo);
  entries[7] = Entry(&GetMechanismList);
  entries[8] = Entry(&GetMechanismInfo);
  entries[12] = Entry(&OpenSession);
  entries[13] = Entry(&CloseSession);
  entries[14] = Entry(&CloseAllSessions);
  entries[15] = Entry(&GetSessionInfo);
  entries[18] = Entry(&Login);
  entries[19] = Entry(&Logout);
  entries[20] = Entry(&CreateObject);
  entries[22] = Entry(&DestroyObject);
  entries[24] = Entry(&GetAttributeValue);
  entries[25] = Entry(&SetAttributeValue);
  entries[26] = Entry(&FindObjectsInit);
  entries[27] = Entry(&FindObjects);
  entries[28] = Entry(&FindObjectsFinal);
  entries[29] = Entry(&InitOperation<Operation::kEncrypt>);
  entries[30] = Entry(&RunOperation<Operation::kEncrypt>);
  entries[33] = Entry(&InitOperation<Operation::kDecrypt>);
  entries[34] = Entry(&RunOperation<Operation::kDecrypt>);
  entries[42] = Entry(&InitOperation<Operation::kSign>);
  entries[43] = Entry(&RunOperation<Operation::kSign>);
  entries[48] = Entry(&InitOperation<Operation::kVerify>);
  entries[49] = Entry(&Verify);
  entries[59] = Entry(&GenerateKeyPair);
  entries[64] = Entry(&GenerateRandom);
  entries[kLoginPosition] = Entry(&LoginCounted);
  return {{2, 40}, entries};
}

KELDA_WINDOWS_CALL Ulong GetFunctionListEntry(void** list) {
  static FunctionList functions = MakeFunctionList();
  if (list == nullptr) return CKR_ARGUMENTS_BAD;
  *list = &functions;
  return CKR_OK;
}

}  // namespace

// The one export, as keldapkcs11.def names it.
extern "C" KELDA_WINDOWS_CALL Ulong KeldaGetFunctionList(void** list);

extern "C" KELDA_WINDOWS_CALL Ulong KeldaGetFunctionList(void** list) {
  return GetFunctionListEntry(list);
}
