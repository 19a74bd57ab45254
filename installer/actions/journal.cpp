#include "journal.h"

namespace installer {

std::wstring Journal::ActionData() const {
  wchar_t nothing[1] = L"";
  DWORD length = 0;
  if (MsiGetPropertyW(session_, L"CustomActionData", nothing, &length) != ERROR_MORE_DATA) return {};
  std::wstring data(++length, L'\0');
  if (MsiGetPropertyW(session_, L"CustomActionData", data.data(), &length) != ERROR_SUCCESS) return {};
  data.resize(length);
  return data;
}

void Journal::Warn(const std::wstring& text) const {
  Tell(static_cast<INSTALLMESSAGE>(INSTALLMESSAGE_WARNING | MB_OK | MB_ICONWARNING), text);
}

void Journal::Fail(const std::wstring& text) const {
  Tell(static_cast<INSTALLMESSAGE>(INSTALLMESSAGE_ERROR | MB_OK | MB_ICONERROR), text);
}

void Journal::Tell(INSTALLMESSAGE kind, const std::wstring& text) const {
  const MSIHANDLE record = MsiCreateRecord(1);
  if (record == 0) return;
  // The template is a text of ours: brackets in what is told mean nothing.
  MsiRecordSetStringW(record, 0, L"[1]");
  MsiRecordSetStringW(record, 1, text.c_str());
  MsiProcessMessage(session_, kind, record);
  MsiCloseHandle(record);
}

}  // namespace installer
