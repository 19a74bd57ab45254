// The smart card service as the provider sees it: the names that it lists, and its failures.
#pragma once

#include <windows.h>
#include <winscard.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kit/imports.h"

namespace kit {

// Replaces SCardEstablishContext, SCardListReadersW and SCardReleaseContext of keldaksp.dll while it lives. The members
// may be changed at any time between calls; the dialog asks on the thread that opened it.
class Readers {
 public:
  explicit Readers(std::vector<std::wstring> listedNames = {})
      : names(std::move(listedNames)),
        establish_([this](auto, DWORD scope, LPCVOID, LPCVOID, LPSCARDCONTEXT context) {
          ++established;
          lastScope = scope;
          if (establishResult == SCARD_S_SUCCESS) *context = kContext;
          return establishResult;
        }),
        list_([this](auto, SCARDCONTEXT context, LPCWSTR groups, LPWSTR list, LPDWORD length) {
          ++listed;
          listedRight = listedRight && context == kContext && !groups && *length == SCARD_AUTOALLOCATE;
          if (listResult != SCARD_S_SUCCESS) return listResult;
          all_.clear();
          for (const std::wstring& name : names)
            all_ += name + L'\0';
          all_ += L'\0';
          *reinterpret_cast<LPWSTR*>(list) = all_.data();
          *length = static_cast<DWORD>(all_.size());
          return LONG{SCARD_S_SUCCESS};
        }),
        release_([this](auto, SCARDCONTEXT context) {
          ++released;
          EXPECT_EQ(context, kContext);
          return LONG{SCARD_S_SUCCESS};
        }) {}

  static constexpr SCARDCONTEXT kContext = 0x5CA2D;

  std::vector<std::wstring> names;
  LONG establishResult = SCARD_S_SUCCESS;
  LONG listResult = SCARD_S_SUCCESS;
  int established = 0;
  int listed = 0;
  int released = 0;
  DWORD lastScope = 0xFFFFFFFF;
  bool listedRight = true;  // each listing named the context, all groups and asked the service to allocate

 private:
  std::wstring all_;
  Hook<"SCardEstablishContext", decltype(&SCardEstablishContext)> establish_;
  Hook<"SCardListReadersW", decltype(&SCardListReadersW)> list_;
  Hook<"SCardReleaseContext", decltype(&SCardReleaseContext)> release_;
};

}  // namespace kit
