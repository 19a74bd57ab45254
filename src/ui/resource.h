// Resource identifiers.
#pragma once

#define IDB_LOGO 101
#define IDD_LOGIN 102
#define IDI_KELDA 103
#define IDD_SELECT_CARD 105
#define IDD_LOGIN_CSP 112

#define IDC_PIN 1001
#define IDC_LOGO 1002
#define IDC_PIN_CAPTION 1003
#define IDC_STATUS 1004
#define IDC_READERS 1005
