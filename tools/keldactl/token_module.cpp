#include "token_module.h"

#include "failure.h"
#include "handle.h"
#include "json.h"
#include "registration.h"
#include "status.h"
#include "text_rules.h"
#include "unicode.h"

#include <p11-kit/pkcs11.h>

#include <algorithm>
#include <array>

namespace keldactl {
namespace {

constexpr DWORD kPatience = 60'000;  // milliseconds
// What a process ends with that was given up. No exit status of keldactl and no exception's code.
constexpr UINT kEndedByTimer = 0x4B54;

// The module's texts are padded with blanks.
template <size_t N>
std::string Unpadded(const CK_UTF8CHAR (&text)[N]) {
  const std::string padded(reinterpret_cast<const char*>(text), N);
  return padded.substr(0, padded.find_last_not_of(std::string(" \0", 2)) + 1);
}

// A module that works on a token, from its initialization to its end.
class Session {
 public:
  Session(const CK_FUNCTION_LIST& functions, CK_SLOT_ID slot) : functions_(functions) {
    if (functions_.C_OpenSession(slot, CKF_SERIAL_SESSION, nullptr, nullptr, &session_) != CKR_OK) session_ = 0;
  }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
  ~Session() {
    if (session_) functions_.C_CloseSession(session_);
  }

  std::vector<std::string> Identifiers(CK_OBJECT_CLASS object_class) const {
    std::vector<std::string> identifiers;
    for (const CK_OBJECT_HANDLE object : Find(object_class)) {
      if (std::optional<std::string> identifier = IdentifierOf(object)) identifiers.push_back(*std::move(identifier));
    }
    return identifiers;
  }

 private:
  std::vector<CK_OBJECT_HANDLE> Find(CK_OBJECT_CLASS object_class) const {
    std::vector<CK_OBJECT_HANDLE> found;
    CK_ATTRIBUTE wanted = {CKA_CLASS, &object_class, sizeof object_class};
    if (!session_ || functions_.C_FindObjectsInit(session_, &wanted, 1) != CKR_OK) return found;
    std::array<CK_OBJECT_HANDLE, 16> some = {};
    CK_ULONG count = 0;
    while (functions_.C_FindObjects(session_, some.data(), static_cast<CK_ULONG>(some.size()), &count) == CKR_OK &&
           count > 0 && count <= some.size()) {
      found.insert(found.end(), some.begin(), some.begin() + static_cast<std::ptrdiff_t>(count));
    }
    functions_.C_FindObjectsFinal(session_);
    return found;
  }

  std::optional<std::string> IdentifierOf(CK_OBJECT_HANDLE object) const {
    constexpr CK_ULONG kLongest = 4096;
    CK_ATTRIBUTE attribute = {CKA_ID, nullptr, 0};
    if (functions_.C_GetAttributeValue(session_, object, &attribute, 1) != CKR_OK || attribute.ulValueLen > kLongest) {
      return std::nullopt;
    }
    std::vector<unsigned char> bytes(attribute.ulValueLen);
    attribute.pValue = bytes.data();
    if (!bytes.empty() && functions_.C_GetAttributeValue(session_, object, &attribute, 1) != CKR_OK)
      return std::nullopt;
    return HexOfBytes<char>(bytes);
  }

  const CK_FUNCTION_LIST& functions_;
  CK_SESSION_HANDLE session_ = 0;
};

TokenReport ExamineToken(const CK_FUNCTION_LIST& functions, CK_SLOT_ID slot, const CK_TOKEN_INFO& info) {
  TokenReport report;
  CK_SLOT_INFO slot_info = {};
  if (functions.C_GetSlotInfo(slot, &slot_info) == CKR_OK) report.slot = Unpadded(slot_info.slotDescription);
  report.label = Unpadded(info.label);
  report.initialized = (info.flags & CKF_TOKEN_INITIALIZED) != 0;
  report.pin_set = (info.flags & CKF_USER_PIN_INITIALIZED) != 0;
  report.pin_count_low = (info.flags & CKF_USER_PIN_COUNT_LOW) != 0;
  report.pin_last_try = (info.flags & CKF_USER_PIN_FINAL_TRY) != 0;
  report.pin_locked = (info.flags & CKF_USER_PIN_LOCKED) != 0;
  const Session session(functions, slot);
  report.public_keys = session.Identifiers(CKO_PUBLIC_KEY);
  report.private_keys = session.Identifiers(CKO_PRIVATE_KEY);
  report.certificates = session.Identifiers(CKO_CERTIFICATE);
  return report;
}

void ExamineSlots(const CK_FUNCTION_LIST& functions, ModuleReport& report) {
  CK_ULONG count = 0;
  if (functions.C_GetSlotList(CK_FALSE, nullptr, &count) != CKR_OK) return;
  // One more than there are: some modules take a room of 0 for a question of the count.
  std::vector<CK_SLOT_ID> slots(count + 1);
  if (functions.C_GetSlotList(CK_FALSE, slots.data(), &count) != CKR_OK || count >= slots.size()) return;
  slots.resize(count);
  report.slots = static_cast<std::uint32_t>(count);
  for (const CK_SLOT_ID slot : slots) {
    CK_TOKEN_INFO info = {};
    if (functions.C_GetTokenInfo(slot, &info) == CKR_OK) report.tokens.push_back(ExamineToken(functions, slot, info));
  }
}

void ExamineFunctions(const CK_FUNCTION_LIST& functions, ModuleReport& report) {
  report.initialize_status = static_cast<std::uint32_t>(functions.C_Initialize(nullptr));
  if (report.initialize_status != CKR_OK) return;
  report.initialized = true;
  CK_INFO info = {};
  if (functions.C_GetInfo(&info) == CKR_OK) {
    report.description = Unpadded(info.libraryDescription) + " " + std::to_string(info.libraryVersion.major) + "." +
                         std::to_string(info.libraryVersion.minor);
  }
  ExamineSlots(functions, report);
  functions.C_Finalize(nullptr);
}

ModuleReport ExamineTokenModule() {
  ModuleReport report;
  wchar_t path[MAX_PATH];
  report.found = SearchPathW(nullptr, kTokenModule, nullptr, MAX_PATH, path, nullptr) != 0;
  SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX | SEM_NOOPENFILEERRORBOX);
  const HMODULE module = LoadLibraryW(kTokenModule);
  report.loaded = module != nullptr;
  if (!module) {
    report.load_error = GetLastError();
    return report;
  }
  // Through a plain pointer: FARPROC and the real type differ in everything.
  const auto get_list = reinterpret_cast<decltype(&C_GetFunctionList)>(
      reinterpret_cast<void*>(GetProcAddress(module, "C_GetFunctionList")));
  report.has_entry = get_list != nullptr;
  if (!get_list) return report;
  CK_FUNCTION_LIST* functions = nullptr;
  report.list_status = static_cast<std::uint32_t>(get_list(&functions));
  if (report.list_status == CKR_OK && functions) ExamineFunctions(*functions, report);
  return report;
}

// ---- The process apart ----

std::wstring OwnProgram() {
  std::wstring path(32768, L'\0');
  path.resize(GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
  return path;
}

std::string ReadAll(HANDLE pipe) {
  std::string text;
  char piece[4096];
  DWORD size = 0;
  while (ReadFile(pipe, piece, sizeof piece, &size, nullptr) && size > 0)
    text.append(piece, size);
  return text;
}

// Ends the process and whatever it started when it takes too long, or when this program ends: a module that hangs
// must not stay behind.
class Job {
 public:
  Job() : job_(CreateJobObjectW(nullptr, nullptr)) {
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits = {};
    limits.BasicLimitInformation.LimitFlags =
        JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE | JOB_OBJECT_LIMIT_DIE_ON_UNHANDLED_EXCEPTION;
    SetInformationJobObject(job_.get(), JobObjectExtendedLimitInformation, &limits, sizeof limits);
  }
  Job(const Job&) = delete;
  Job& operator=(const Job&) = delete;
  ~Job() {
    if (timer_) DeleteTimerQueueTimer(nullptr, timer_, INVALID_HANDLE_VALUE);
  }
  // Windows 7 takes no process that is in another job already; that one then ends by the timer alone. The handle
  // outlives this.
  void Take(HANDLE process, DWORD patience) {
    process_ = process;
    AssignProcessToJobObject(job_.get(), process);
    CreateTimerQueueTimer(&timer_, nullptr, End, this, patience, 0, WT_EXECUTEONLYONCE);
  }

 private:
  // What was read from the process then comes to an end by itself.
  static VOID CALLBACK End(PVOID job, BOOLEAN /*fired*/) {
    const auto* self = static_cast<const Job*>(job);
    TerminateJobObject(self->job_.get(), kEndedByTimer);
    TerminateProcess(self->process_, kEndedByTimer);
  }

  HANDLE process_ = nullptr;
  HANDLE timer_ = nullptr;
  Handle job_;
};

// Lets a child process inherit these handles and no others.
class InheritedHandles {
 public:
  explicit InheritedHandles(std::array<HANDLE, 2> handles) : handles_(handles) {
    SIZE_T size = 0;
    InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
    memory_.resize(size);
    if (!InitializeProcThreadAttributeList(get(), 1, 0, &size) ||
        !UpdateProcThreadAttribute(get(), 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, handles_.data(), sizeof handles_,
                                   nullptr, nullptr)) {
      throw Failure(L"Preparing another process", static_cast<long>(GetLastError()));
    }
  }
  InheritedHandles(const InheritedHandles&) = delete;
  InheritedHandles& operator=(const InheritedHandles&) = delete;
  ~InheritedHandles() { DeleteProcThreadAttributeList(get()); }
  LPPROC_THREAD_ATTRIBUTE_LIST get() { return reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(memory_.data()); }

 private:
  std::array<HANDLE, 2> handles_;
  std::vector<char> memory_;
};

struct Answer {
  std::string text;
  DWORD exit_code = 0;
};

// What the process that the command starts writes into the handle whose number is added to the command. Its standard
// output goes nowhere: that belongs to the module, which may write there whatever it likes.
Answer AnswerOf(std::wstring command) {
  SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
  HANDLE read = nullptr;
  HANDLE write = nullptr;
  if (!CreatePipe(&read, &write, &inherit, 0)) throw Failure(L"Making a pipe", static_cast<long>(GetLastError()));
  const Handle reader(read);
  Handle writer(write);
  SetHandleInformation(read, HANDLE_FLAG_INHERIT, 0);
  const Handle nowhere(CreateFileW(L"NUL", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit,
                                   OPEN_EXISTING, 0, nullptr));
  command += std::to_wstring(reinterpret_cast<uintptr_t>(write));
  InheritedHandles inherited({write, nowhere.get()});
  STARTUPINFOEXW startup = {};
  startup.StartupInfo.cb = sizeof startup;
  startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
  startup.StartupInfo.hStdInput = startup.StartupInfo.hStdOutput = startup.StartupInfo.hStdError = nowhere.get();
  startup.lpAttributeList = inherited.get();
  PROCESS_INFORMATION process = {};
  if (!CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE,
                      CREATE_NO_WINDOW | CREATE_SUSPENDED | EXTENDED_STARTUPINFO_PRESENT, nullptr, nullptr,
                      &startup.StartupInfo, &process)) {
    throw Failure(L"Starting keldactl once more", static_cast<long>(GetLastError()));
  }
  writer.Close();
  const Handle child(process.hProcess);
  const Handle thread(process.hThread);
  Job job;
  job.Take(process.hProcess, kPatience);
  ResumeThread(process.hThread);
  Answer answer;
  answer.text = ReadAll(read);
  WaitForSingleObject(process.hProcess, INFINITE);
  GetExitCodeProcess(process.hProcess, &answer.exit_code);
  return answer;
}

// Without reports and debuggers, for which the other side would have to wait.
LONG WINAPI EndAtOnce(EXCEPTION_POINTERS* exception) {
  TerminateProcess(GetCurrentProcess(), exception->ExceptionRecord->ExceptionCode);
  return EXCEPTION_EXECUTE_HANDLER;
}

}  // namespace

bool AnswerAboutTokenModule(uint64_t handle) {
  const Handle pipe(reinterpret_cast<HANDLE>(static_cast<uintptr_t>(handle)));
  if (GetFileType(pipe.get()) != FILE_TYPE_PIPE) return false;
  // Not for processes that the module starts: the pipe ends with this one.
  SetHandleInformation(pipe.get(), HANDLE_FLAG_INHERIT, 0);
  SetUnhandledExceptionFilter(EndAtOnce);
  const std::string text = ToJson(ExamineTokenModule()).dump(-1, ' ', false, Json::error_handler_t::replace);
  DWORD written = 0;
  return WriteFile(pipe.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr) &&
         written == text.size();
}

ModuleReport ExamineTokenModuleApart() {
  const Answer answer = AnswerOf(L"\"" + OwnProgram() + L"\" check --token-module --answer-to ");
  try {
    return ModuleReportFrom(Json::parse(answer.text));
  } catch (const Json::exception&) {
    ModuleReport report;
    report.found = true;
    report.end = answer.exit_code == kEndedByTimer ? ModuleEnd::kHung : ModuleEnd::kCrashed;
    report.exit_code = answer.exit_code;
    return report;
  }
}

std::wstring EndInWords(const ModuleReport& report) {
  if (report.end == ModuleEnd::kHung) return L"the process that loaded it gave no answer for a minute";
  return L"the process that loaded it crashed (" + Hex32(report.exit_code) + L")";
}

Json ToJson(const ModuleReport& report) {
  Json tokens = Json::array();
  for (const TokenReport& token : report.tokens) {
    tokens.push_back({{"slot", token.slot},
                      {"label", token.label},
                      {"initialized", token.initialized},
                      {"pin_set", token.pin_set},
                      {"pin_count_low", token.pin_count_low},
                      {"pin_last_try", token.pin_last_try},
                      {"pin_locked", token.pin_locked},
                      {"public_keys", token.public_keys},
                      {"private_keys", token.private_keys},
                      {"certificates", token.certificates}});
  }
  constexpr const char* kEnds[] = {"answered", "crashed", "hung"};
  return {{"process", kEnds[static_cast<size_t>(report.end)]},
          {"found", report.found},
          {"loaded", report.loaded},
          {"load_error", report.load_error},
          {"has_entry", report.has_entry},
          {"list_status", report.list_status},
          {"initialize_status", report.initialize_status},
          {"initialized", report.initialized},
          {"description", report.description},
          {"slots", report.slots},
          {"tokens", std::move(tokens)}};
}

ModuleReport ModuleReportFrom(const Json& json) {
  ModuleReport report;
  report.found = json.value("found", false);
  report.loaded = json.value("loaded", false);
  report.load_error = json.value("load_error", 0u);
  report.has_entry = json.value("has_entry", false);
  report.list_status = json.value("list_status", 0u);
  report.initialize_status = json.value("initialize_status", 0u);
  report.initialized = json.value("initialized", false);
  report.description = json.value("description", "");
  report.slots = json.value("slots", 0u);
  for (const Json& item : json.value("tokens", Json::array())) {
    TokenReport token;
    token.slot = item.value("slot", "");
    token.label = item.value("label", "");
    token.initialized = item.value("initialized", false);
    token.pin_set = item.value("pin_set", false);
    token.pin_count_low = item.value("pin_count_low", false);
    token.pin_last_try = item.value("pin_last_try", false);
    token.pin_locked = item.value("pin_locked", false);
    const auto list = [&](const char* name) { return item.value(name, std::vector<std::string>()); };
    token.public_keys = list("public_keys");
    token.private_keys = list("private_keys");
    token.certificates = list("certificates");
    report.tokens.push_back(std::move(token));
  }
  return report;
}

bool Holds(const std::vector<std::string>& identifiers, const std::string& key_hex) {
  return std::any_of(identifiers.begin(), identifiers.end(), [&](const std::string& identifier) {
    if (!identifier.starts_with(key_hex)) return false;
    const std::string rest = identifier.substr(key_hex.size());
    return rest.empty() || rest.starts_with("00");
  });
}

}  // namespace keldactl
