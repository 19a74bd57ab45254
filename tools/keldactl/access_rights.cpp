#include "access_rights.h"

#include "failure.h"
#include "output.h"

#include <aclapi.h>
#include <sddl.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

namespace keldactl {
namespace {

using Sid = std::array<BYTE, SECURITY_MAX_SID_SIZE>;

constexpr ACCESS_MASK kChange = DELETE | WRITE_DAC | WRITE_OWNER | GENERIC_ALL;
// In the folder itself a file can be put where another was, in one further up only what leads to the folder.
constexpr ACCESS_MASK kReplaceWithin = kChange | FILE_DELETE_CHILD;
constexpr ACCESS_MASK kAddWithin = kReplaceWithin | FILE_ADD_FILE | FILE_ADD_SUBDIRECTORY | GENERIC_WRITE;

Sid WellKnown(WELL_KNOWN_SID_TYPE type) {
  Sid sid = {};
  DWORD size = static_cast<DWORD>(sid.size());
  if (!CreateWellKnownSid(type, nullptr, sid.data(), &size)) {
    throw Failure(L"Asking for a group of users", static_cast<long>(GetLastError()));
  }
  return sid;
}

struct SecurityOfObject {
  PSID owner = nullptr;
  PACL list = nullptr;
  Local<void> memory;
};

DWORD ReadSecurity(HANDLE object, SecurityOfObject* security) {
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  const DWORD error = GetSecurityInfo(object, SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION,
                                      &security->owner, nullptr, &security->list, nullptr, &descriptor);
  security->memory.reset(descriptor);
  return error;
}

// Those who may do everything anyway, and the user who asks.
class Trusted {
 public:
  Trusted()
      : sids_{WellKnown(WinLocalSystemSid), WellKnown(WinBuiltinAdministratorsSid), WellKnown(WinCreatorOwnerSid)} {
    // The service that installs Windows' own files has no well-known name here.
    PSID installer = nullptr;
    if (ConvertStringSidToSidW(L"S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464", &installer)) {
      const Local<void> owner(installer);
      Add(installer);
    }
    HANDLE token = nullptr;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token)) return;
    const Handle token_owner(token);
    alignas(TOKEN_USER) std::array<BYTE, sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE> user = {};
    DWORD size = 0;
    if (GetTokenInformation(token, TokenUser, user.data(), static_cast<DWORD>(user.size()), &size)) {
      Add(reinterpret_cast<TOKEN_USER*>(user.data())->User.Sid);
    }
  }

  bool Has(PSID sid) const {
    return std::any_of(sids_.begin(), sids_.end(),
                       [&](const Sid& known) { return EqualSid(const_cast<BYTE*>(known.data()), sid); });
  }

 private:
  void Add(PSID sid) {
    Sid copy = {};
    if (CopySid(static_cast<DWORD>(copy.size()), copy.data(), sid)) sids_.push_back(copy);
  }

  std::vector<Sid> sids_;
};

// Every entry that allows, whatever others deny: a warning too many does less harm than one too few.
bool OthersHave(const SecurityOfObject& security, ACCESS_MASK rights, const Trusted& trusted) {
  if (!security.list) return true;  // no list: everybody may do everything
  for (DWORD i = 0; i < security.list->AceCount; ++i) {
    void* entry = nullptr;
    if (!GetAce(security.list, i, &entry)) continue;
    const auto* allowed = static_cast<ACCESS_ALLOWED_ACE*>(entry);
    if (allowed->Header.AceType != ACCESS_ALLOWED_ACE_TYPE || (allowed->Header.AceFlags & INHERIT_ONLY_ACE)) continue;
    if ((allowed->Mask & rights) && !trusted.Has(const_cast<DWORD*>(&allowed->SidStart))) return true;
  }
  return false;
}

// The folder itself, not what it leads to when it is a link.
Handle OpenFolderItself(const std::wstring& path) {
  return Handle(CreateFileW(path.c_str(), READ_CONTROL | FILE_READ_ATTRIBUTES,
                            FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                            FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
}

bool IsLink(const std::wstring& path) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT);
}

bool IsOpen(const std::wstring& folder, ACCESS_MASK rights, const Trusted& trusted) {
  const Handle handle = OpenFolderItself(folder);
  SecurityOfObject security;
  // What cannot be asked (a share of another system, say) is nothing to warn of.
  if (!handle || ReadSecurity(handle.get(), &security) != ERROR_SUCCESS) return false;
  return OthersHave(security, rights, trusted) || (security.owner && !trusted.Has(security.owner));
}

}  // namespace

void LetUsersWrite(HANDLE file, const std::wstring& name) {
  const std::wstring operation = L"Giving the users the right to write " + Quoted(name);
  Sid users = WellKnown(WinBuiltinUsersSid);
  SecurityOfObject security;
  DWORD error = ReadSecurity(file, &security);
  if (error != ERROR_SUCCESS) throw Failure(operation, static_cast<long>(error));
  EXPLICIT_ACCESSW access = {};
  // NOLINTNEXTLINE(misc-redundant-expression): the platform's masks share bits
  access.grfAccessPermissions = FILE_GENERIC_READ | FILE_GENERIC_WRITE;
  access.grfAccessMode = GRANT_ACCESS;
  access.grfInheritance = NO_INHERITANCE;
  access.Trustee.TrusteeForm = TRUSTEE_IS_SID;
  access.Trustee.TrusteeType = TRUSTEE_IS_WELL_KNOWN_GROUP;
  access.Trustee.ptstrName = reinterpret_cast<LPWSTR>(users.data());
  PACL list = nullptr;
  error = SetEntriesInAclW(1, &access, security.list, &list);
  const Local<ACL> list_owner(list);
  if (error == ERROR_SUCCESS) {
    error = SetSecurityInfo(file, SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, list, nullptr);
  }
  if (error != ERROR_SUCCESS) throw Failure(operation, static_cast<long>(error));
}

bool UsersMayWrite(HANDLE file) {
  Sid users = WellKnown(WinBuiltinUsersSid);
  SecurityOfObject security;
  if (ReadSecurity(file, &security) != ERROR_SUCCESS) return false;
  // Without a list everybody may do everything.
  if (!security.list) return true;
  TRUSTEEW trustee = {};
  trustee.TrusteeForm = TRUSTEE_IS_SID;
  trustee.ptstrName = reinterpret_cast<LPWSTR>(users.data());
  ACCESS_MASK rights = 0;
  constexpr ACCESS_MASK kNeeded = FILE_READ_DATA | FILE_WRITE_DATA | FILE_APPEND_DATA;
  return GetEffectiveRightsFromAclW(security.list, &trustee, &rights) == ERROR_SUCCESS && (rights & kNeeded) == kNeeded;
}

void MakeClosedFolder(const std::wstring& folder) {
  // The system and administrators everything, users reading; nothing from above.
  constexpr wchar_t kRights[] = L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;GRGX;;;BU)";
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(kRights, SDDL_REVISION_1, &descriptor, nullptr)) {
    throw Failure(L"Making the folder " + Quoted(folder), static_cast<long>(GetLastError()));
  }
  const Local<void> owner(descriptor);
  SECURITY_ATTRIBUTES attributes = {sizeof attributes, descriptor, FALSE};
  // A folder that is there, and a failure, show when the file is made in it.
  CreateDirectoryW(folder.c_str(), &attributes);
}

std::optional<OpenFolder> OpenFolderAbove(const std::wstring& file) {
  const Trusted trusted;
  ACCESS_MASK rights = kAddWithin;
  for (size_t end = file.rfind(L'\\'); end != std::wstring::npos && end >= 2; end = file.rfind(L'\\', end - 1)) {
    // The root keeps its backslash: "C:" alone is the drive's current folder.
    const std::wstring folder = file.substr(0, end == 2 ? 3 : end);
    if (IsOpen(folder, rights, trusted)) return OpenFolder{folder, IsLink(folder)};
    rights = kReplaceWithin;
  }
  return std::nullopt;
}

}  // namespace keldactl
