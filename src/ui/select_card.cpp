#include "ui/select_card.h"

#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "diag/debug_log.h"
#include "support/text.h"
#include "support/wipe.h"
#include "ui/dialog.h"
#include "ui/resource.h"

namespace {

// What failed, and the service's error as "0x%08X".
[[noreturn]] void Throw(const char* what, LONG code) {
  char text[100];
  std::snprintf(text, sizeof(text), "%s Failed: 0x%08X", what, static_cast<unsigned>(code));
  throw std::runtime_error(text);
}

class CSelectCard : public CDialog {
 public:
  CSelectCard() noexcept : CDialog(IDD_SELECT_CARD, nullptr) {}
  ~CSelectCard() override {
    if (hContext_ != 0) SCardReleaseContext(hContext_);
  }

  // The reader that the user has confirmed, terminated; null before.
  const wchar_t* Selected() const noexcept { return selected_.data(); }

 protected:
  bool OnInitDialog() override;
  void DoDataExchange(CDataExchange& exchange) override {
    CDialog::DoDataExchange(exchange);
    exchange.Control(IDC_READERS, readerList_);
  }
  void OnOK() override;
  void OnNotification(int id, UINT code) override {
    if (id == IDC_READERS && code == CBN_DROPDOWN) Refresh();
  }

 private:
  void Refresh();
  void ListReaders();

  SCARDCONTEXT hContext_ = 0;
  WipedArray<wchar_t> selected_;  // with its length in characters, the terminator counted
  CComboBox readerList_;
  CIcon icon_;
};

bool CSelectCard::OnInitDialog() {
  CDialog::OnInitDialog();
  icon_.Load(IDI_KELDA, SM_CXSMICON, SM_CYSMICON);
  Send(WM_SETICON, ICON_SMALL, reinterpret_cast<LPARAM>(icon_.Handle()));

  const LONG result = SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &hContext_);
  if (result != SCARD_S_SUCCESS) {
    hContext_ = 0;
    Throw("SCardEstablishContext", result);
  }
  ListReaders();
  return true;
}

// A reader plugged in while the dialog is open is listed when the list is opened.
void CSelectCard::Refresh() {
  readerList_.Reset();
  UpdateData(false);
  ListReaders();
}

// The list that the service allocates is not released; kept on purpose.
void CSelectCard::ListReaders() {
  wchar_t* readers = nullptr;
  DWORD cchReaders = SCARD_AUTOALLOCATE;
  const LONG result = SCardListReadersW(hContext_, nullptr, reinterpret_cast<LPWSTR>(&readers), &cchReaders);
  if (result != SCARD_S_SUCCESS) Throw("SCardListReaders", result);
  if (WideLength(readers) < 2) throw std::runtime_error("No cards/tokens were detected.");
  for (const wchar_t* reader = readers; *reader != L'\0'; reader += WideLength(reader) + 1)
    readerList_.Add(reader);
  // The list sorts itself, so this is the alphabetically first reader.
  readerList_.Choose(0);
  UpdateData(true);
}

void CSelectCard::OnOK() {
  UpdateData(true);
  selected_ = readerList_.Text();
  CDialog::OnOK();
}

SECURITY_STATUS TakeSelection(const CSelectCard& dialog, wchar_t* buffer) noexcept {
  g_KeyNameLog->WriteLine("Retrieving data");
  // Nothing is selected when another program has ended the dialog in the place of the OK button.
  if (dialog.Selected() == nullptr) return NTE_FAIL;
  const std::size_t cchSelected = WideLength(dialog.Selected()) + 1;
  if (cchSelected > kSelectedReaderSize) return NTE_FAIL;
  std::memcpy(buffer, dialog.Selected(), cchSelected * sizeof(wchar_t));
  g_KeyNameLog->WriteLine("Data Retrieved");
  return ERROR_SUCCESS;
}

}  // namespace

// The lines go to the key-name instance, not to the main one; kept on purpose.
SECURITY_STATUS SelectReader(wchar_t* buffer) {
  g_KeyNameLog->WriteLine("Loading resources");
  g_KeyNameLog->WriteLine("Loading Dialog");
  CSelectCard dialog;
  g_KeyNameLog->WriteLine("Dialog Loaded");
  // Nobody has cancelled what nobody could see.
  if (!CDialog::HasVisibleDesktop()) Throw("Dialog", ERROR_REQUIRES_INTERACTIVE_WINDOWSTATION);
  if (dialog.DoModal() == IDOK) return TakeSelection(dialog, buffer);
  g_KeyNameLog->WriteLine("Action was cancelled by the user");
  return SCARD_W_CANCELLED_BY_USER;
}
