#!/usr/bin/env bash
# keldactl for administrators, on a soft token: registration for both widths, log, health check, certificate store. What
# other providers have in the registry is compared before and after.
# shellcheck source=tests/e2e/common.sh
# shellcheck disable=SC2016 # inner shells expand their own
source "$(dirname "$0")/common.sh"

work=$BUILD/e2e-administration-$arch
# 32-bit Windows has no other width than its own.
widths=$([[ $arch == x64 ]] && echo 2 || echo 1)
other_arch=$([[ $arch == x64 ]] && echo x86 || echo x64)
# The system has to be one that never had a provider.
rm -rf "$work/out" "$work/app" "$work/prefix"
mkdir -p "$work/out" "$work/app/$other_arch"
environment=$("$ROOT/scripts/soft-token.sh" "$work/token" --reader "Norvale Reader 0=demo" --key Key1 --key Other:1024)
eval "$environment"
start_display
use_prefix "$arch" "$work/prefix"
assemble_app "$arch" "$work/app"
cp "$BUILD/$arch/bin/without_rights.exe" "$work/app"
cd "$work/out" || exit

windows=$WINEPREFIX/drive_c/windows
system32=$windows/system32/keldaksp.dll
syswow64=$windows/syswow64/keldaksp.dll
provider='Norvale Token Works KSP v1.0'
crypto='HKLM\System\CurrentControlSet\Control\Cryptography'
ours="$crypto\\Providers\\$provider"
sdk='HKLM\Software\Norvale Token Works Ltd.\KELDA SDK'
sdks=("$sdk")
sdk32=$sdk # where settings of 32-bit programs are
if ((widths == 2)); then
  sdk32='HKLM\Software\WOW6432Node\Norvale Token Works Ltd.\KELDA SDK'
  sdks+=("$sdk32")
fi

# Of a DLL of the other width only the header is looked at here: the beginning of a PE file for the i386 or the AMD64.
fake_other_dll() {
  printf 'MZ'
  head -c 58 /dev/zero
  printf '\x40\0\0\0PE\0\0'
  if [[ $other_arch == x86 ]]; then printf '\x4c\1'; else printf '\x64\x86'; fi
  printf '%s' "$1"
}
fake_other_dll first >"$work/app/$other_arch/keldaksp.dll"

reg() { on "$arch" "$WINE" reg "$@" </dev/null; }
set_value() { reg add "$1" /v "$2" /t "$3" /d "$4" /f >/dev/null; }
# value KEY NAME: the data of a registry value, or nothing.
value() { reg query "$1" /v "$2" 2>/dev/null | tr -d '\r' | sed -n "s/^ *$2 *REG_[A-Z_]* *//p" || true; }
# value_is KEY NAME DATA
value_is() { [[ $(value "$1" "$2") == "$3" ]] || { echo "$2 is $(value "$1" "$2")" && false; }; }
# The whole of CNG's configuration as text.
configuration() {
  rm -f "$1.reg"
  reg export "$crypto" "$(windows_path "$1.reg")" /y >/dev/null && iconv -f UTF-16 -t UTF-8 "$1.reg" >"$1"
}

# keldactl ANSWER ARGUMENT...: runs it with its words in `said` and its exit status in `status`. ANSWER is what happens to
# a PIN dialog: the PIN to type, "cancel", or "none" when no dialog may come up.
keldactl() {
  local answer=$1 worker window asked=
  shift
  on "$arch" timeout -k 10 120 "$WINE" "$work/app/keldactl.exe" "$@" >said.txt 2>&1 </dev/null &
  worker=$!
  if [[ $answer != none ]]; then
    while kill -0 "$worker" 2>/dev/null; do
      window=$(xdotool search --onlyvisible --name '^Enter PIN for demo$' 2>/dev/null | head -n 1) || true
      if [[ ! $window || $asked ]]; then
        sleep 0.05
        continue
      fi
      asked=1
      if [[ $answer == cancel ]]; then
        xdotool windowfocus --sync "$window" key Escape
      else
        xdotool windowfocus --sync "$window" type "$answer" && xdotool key Return
      fi
    done
  fi
  status=0
  wait "$worker" || status=$?
  said=$(cat said.txt)
}

# expect NAME STATUS PATTERN: the last keldactl ended with STATUS and said PATTERN (extended regular expression).
expect() {
  if ((status == $2)) && grep -qE -e "$3" said.txt; then
    printf 'PASS: %s\n' "$1"
  else
    printf '%s\n(status %d; expected status %d and "%s")\nFAIL: %s\n' "$said" "$status" "$2" "$3" "$1"
  fi
}
says() { grep -qE -e "$1" said.txt || { cat said.txt && false; }; }
says_not() { ! grep -E -e "$1" said.txt; }
# closed FOLDER...: nobody but their owner may write in them.
closed() {
  local folder
  for folder in "$@"; do ((($(stat -c 0%a "$folder") & 022) == 0)) || { ls -ld "$folder" && false; }; done
}
# on_terminal ARGUMENT...: what keldactl says on a terminal.
on_terminal() { script -qec "$(printf '%q ' "$WINE" "$work/app/keldactl.exe" "$@")" /dev/null; }

# ---- A system without the provider, and with others ----
keldactl none providers
expect "without any provider, providers says so" 0 '^There are no key storage providers\.$'
keldactl none status
expect "status of a system without the provider" 1 'is not registered\.$'
check "status tells the missing DLL" says '^  DLL +C:.windows.system32.keldaksp.dll is missing$'
keldactl none check
expect "check finds the registration missing" 1 '^ 1  failed   The provider is registered: Windows does not know it$'
check "and says what to do" says '^ +As an administrator: keldactl register\.$'
check "steps that need it are skipped" says '^ 2  skipped  '
keldactl none register
expect "register wants the DLL in the system folder" 3 'system32.keldaksp.dll" is missing'
check "and tells the way" says 'keldactl register --copy'
check "nothing is registered then" test -z "$(value "$ours" Aliases)"
mv "$work/app/keldaksp.dll" hidden.dll
keldactl none register --copy
expect "register --copy wants a DLL beside keldactl" 3 'there is nothing to copy'
cp "$work/app/$other_arch/keldaksp.dll" "$work/app/keldaksp.dll"
keldactl none register --copy
expect "a DLL of the wrong width is not copied" 1 "is no DLL for $arch programs"
check "nothing is copied then" test ! -e "$system32"
mv hidden.dll "$work/app/keldaksp.dll"

# On a system that has never had a key storage provider.
keldactl none register --copy
expect "register on an empty system" 0 '^Added it to the list of key storage providers\.$'
check "it is the only one listed" value_is "$crypto\\Configuration\\Local\\Default\\00010001\\KEY_STORAGE" Providers "$provider"
keldactl none unregister
expect "unregister on that system" 0 '^Unregistered the provider'

# Other providers, one of them with values of its own.
other="$crypto\\Providers\\Other KSP"
list="$crypto\\Configuration\\Local\\Default\\00010001\\KEY_STORAGE"
reg add "$other\\UM" /v Image /t REG_SZ /d other.dll /f >/dev/null
reg add "$other\\UM\\00010001" /v Flags /t REG_DWORD /d 1 /f >/dev/null
reg add "$other\\UM\\00010001" /v Functions /t REG_MULTI_SZ /d KEY_STORAGE /f >/dev/null
set_value "$other" Secret REG_SZ kept
reg add "$crypto\\Providers\\Hash Provider\\UM\\00000002" /v Functions /t REG_MULTI_SZ /d SHA256 /f >/dev/null
reg add "$list" /v Providers /t REG_MULTI_SZ /d 'Microsoft Software Key Storage Provider\0Other KSP' /f >/dev/null
set_value "$list" Other REG_SZ kept
configuration before.txt

# ---- Rights ----
for words in register "register --copy" unregister "log on" "log off"; do
  status=0
  # shellcheck disable=SC2086 # several words
  on "$arch" "$WINE" "$work/app/without_rights.exe" "$(windows_path "$work/app/keldactl.exe")" $words >said.txt 2>&1 || status=$?
  said=$(cat said.txt)
  expect "\"$words\" without administrator rights" 5 'This needs administrator rights'
  check "\"$words\" says so in one line" bash -c '(($(wc -l <said.txt) == 1)) || { cat -A said.txt; exit 1; }'
done
configuration after.txt
check "nothing was written without rights" cmp before.txt after.txt
check "nothing was copied without rights" test ! -e "$system32"

# ---- Registration ----
keldactl none register --copy
expect "register --copy" 0 '^Registered the provider "Norvale Token Works KSP v1.0"\.$'
check "it copies the DLL" cmp "$work/app/keldaksp.dll" "$system32"
((widths == 1)) || check "and that of the other width" cmp "$work/app/$other_arch/keldaksp.dll" "$syswow64"
check "Image is the file's name alone" value_is "$ours\\UM" Image keldaksp.dll
check "Flags are 0" value_is "$ours\\UM\\00010001" Flags 0x0
check "Functions" value_is "$ours\\UM\\00010001" Functions KEY_STORAGE
check "Aliases" value_is "$ours" Aliases "$provider"
check "Default Key Length" value_is "$ours" 'Default Key Length' 0x800
check "it is listed behind the others" value_is "$list" Providers "Microsoft Software Key Storage Provider\\0Other KSP\\0$provider"
for key in "${sdks[@]}"; do
  check "KSPLOG has its default (${key:14:12})" value_is "$key" KSPLOG 00000000
  check "PINCACHE has its default (${key:14:12})" value_is "$key" PINCACHE 00000000
  check "dwUseProviderCache has its default (${key:14:12})" value_is "$key" dwUseProviderCache 0x1
done
keldactl none status
expect "status of a registered provider" 0 'is registered\.$'
check "status tells the version" says '^  DLL +C:.windows.system32.keldaksp.dll, version 4\.2\.0\.1$'
check "status tells the token module" says '^  Token module +Z:.*keldapkcs11\.dll$'
check "status tells every width" test "$(grep -c "can use the provider$" said.txt)" == "$widths"
keldactl none status --json
expect "status in JSON" 0 '"works": true'
check "JSON has the widths" test "$(grep -c '"dll_in_place": true' said.txt)" == "$widths"
keldactl none providers
expect "providers lists ours" 0 '^Norvale Token Works KSP v1\.0 +keldaksp\.dll +registered$'
check "and the other" says '^Other KSP +other\.dll +registered$'
check "and one that is only listed" says '^Microsoft Software Key Storage Provider +- +listed, not registered$'
check "and no provider of other things" says_not 'Hash Provider'
keldactl none providers --json
expect "providers in JSON" 0 '"name": "Other KSP"'
keldactl none keys
expect "the registered provider works" 0 '^Key1 +4B657931 +RSA$'

# What somebody set stays, and a damaged registration is put right.
set_value "$ours" 'Default Key Length' REG_DWORD 3072
reg add "$ours" /v Aliases /t REG_MULTI_SZ /d "$provider\\0Another name" /f >/dev/null
set_value "$sdk" PINCACHE REG_SZ 1
set_value "$sdk32" dwUseProviderCache REG_DWORD 0
keldactl none register
expect "register again" 0 'is registered already\.$'
set_value "$ours\\UM" Image REG_SZ 'C:\elsewhere\keldaksp.dll'
keldactl none status
expect "status sees a wrong image" 1 'names "C:\\elsewhere\\keldaksp.dll" instead of "keldaksp.dll"'
keldactl none check
expect "check sees it too" 1 '^ 2  failed '
keldactl none register
expect "register puts it right" 0 '^Corrected the registration'
check "the image is right again" value_is "$ours\\UM" Image keldaksp.dll
check "the default length stays" value_is "$ours" 'Default Key Length' 0xc00
check "another alias stays" value_is "$ours" Aliases "$provider\\0Another name"
check "the PIN cache's setting stays" value_is "$sdk" PINCACHE 1
check "the provider cache's setting stays" value_is "$sdk32" dwUseProviderCache 0x0
keldactl none status
check "status tells the settings of each width" bash -c \
  '[[ $(grep -E "^  (PIN|Provider) cache" said.txt | awk "{ print \$NF }" | tr "\n" " ") == "$1" ]]' \
  - "$( ((widths == 2)) && echo "off on on off " || echo "off off ")"
reg add "$list" /v Providers /t REG_MULTI_SZ /d 'Microsoft Software Key Storage Provider\0Other KSP' /f >/dev/null
keldactl none status
expect "status sees that it is not listed" 1 'it is not in the list of key storage providers'
keldactl none providers
check "providers tells that too" says "^$provider .*registered, not listed\$"
keldactl none register
expect "register lists it again" 0 '^Added it to the list'
reg delete "$ours" /v Aliases /f >/dev/null
keldactl none status
expect "status sees missing aliases" 1 "aliases do not hold the provider's own name"
keldactl none register
check "register writes them" value_is "$ours" Aliases "$provider"

# ---- The log ----
keldactl none log show
expect "there is no log at first" 3 'There is no log'
keldactl none log on 'C:\logs\deep\ksp.log'
expect "log on" 0 '^The log is on: .* "C:\\logs\\deep\\ksp\.log"\.$'
for key in "${sdks[@]}"; do
  check "the switch (${key:14:12})" value_is "$key" KSPLOG 1
  check "the file (${key:14:12})" value_is "$key" KSPDIR 'C:\logs\deep\ksp.log'
done
logs=$WINEPREFIX/drive_c/logs
check "nobody else may write in the folders that it makes" closed "$logs" "$logs/deep"
check "which it does not warn of" says_not 'Users may change'
keldactl none log show
check "the log is empty at first" test ! -s said.txt
keldactl none status
check "status tells the log" says '^  Log +on, in C:.logs.deep.ksp\.log$'
keldactl none check
expect "check warns of the log" 0 'warning  The log: on, in'
# Without the DLL, which writes a line as it is loaded.
mv "$system32" hidden.dll
rm -f "$logs/deep/ksp.log"
keldactl none check
expect "check of a log that nobody has written yet" 1 'warning  The log: on, in'
check "does not make it" test ! -e "$logs/deep/ksp.log"
set_value "$sdk" KSPDIR REG_SZ 'C:\nowhere\ksp.log'
keldactl none check
expect "check of a log that nobody can write" 1 'failed   The log: on, but "C:.nowhere.ksp\.log" cannot be written'
check "with an advice" says 'keldactl log on FILE, with another file'
set_value "$sdk" KSPDIR REG_SZ 'C:\logs\deep\ksp.log'
mv hidden.dll "$system32"
echo data >data.txt
keldactl "$KELDA_PIN" sign --key Key1 data.txt
keldactl cancel sign --key Key1 --out x.sig data.txt
keldactl none log show
expect "log show tells calls that worked" 0 '^SignHash +Key1 +ok$'
check "and those that were refused, with the reason" says '^SignHash +Key1 +SCARD_W_CANCELLED_BY_USER \(0x8010006E\): '
check "and loads" says '^---- a program loaded the provider: '
check "not nested lines" says_not '^ .*hProvider'
check "no colour in a file" says_not $'\x1b'
keldactl none log show --failures --colour always
expect "log show --failures has the refused call in colour" 0 $'^\x1b\\[31mSignHash .*\x1b\\[0m$'
check "and nothing else" says_not ' ok$'
keldactl none log show --nested
expect "log show --nested has the lines" 0 '^    hProvider +: 0x'
keldactl none log show --json
expect "log show --json" 0 '"title": "SignHash"'
check "with reasons" says '"failed": true'
keldactl none log show --raw
cp said.txt raw.txt
check "log show --raw is the file" cmp raw.txt "$WINEPREFIX/drive_c/logs/deep/ksp.log"
check "the log holds no PIN" bash -c '! grep -q "$1" raw.txt' - "$KELDA_PIN"
sed 's/Key1/\x1b[31mA_key_of_a_long_name/' raw.txt >"$logs/evil.log"
keldactl none log show 'C:\logs\evil.log'
expect "control characters of a log are shown as such, and a blank behind a long name" 0 \
  '^SignHash +\\x1B\[31mA_key_of_a_long_name ok$'
keldactl none log show --nested 'C:\logs\evil.log'
check "in nested lines too" says '^    pszKeyName +: \\x1B\[31mA_key'
check "and nowhere as they are" says_not $'\x1b'
keldactl none log show --raw 'C:\logs\evil.log'
check "log show --raw of it is the file" cmp said.txt "$logs/evil.log"
if [[ ${arch-x64} == x64 ]]; then
  on_terminal log show --raw 'C:\logs\evil.log' >terminal.txt
  check "but not on a terminal" grep -qF '\x1B[31mA_key' terminal.txt
  check "which it does not steer" bash -c '! grep -q "$(printf "\033")\[31mA_key" terminal.txt'
fi
cp raw.txt "$WINEPREFIX/drive_c/logs/other.log"
keldactl none log show 'C:\logs\other.log'
expect "log show reads another file" 0 '^SignHash +Key1 +ok$'
keldactl none log show 'C:\logs\none.log'
expect "a log that is not there" 3 'Reading the log'

# Following: it shows what comes after it was started, also when the file is made anew.
on "$arch" "$WINE" "$work/app/keldactl.exe" log show --follow >followed.txt 2>&1 </dev/null &
follower=$!
wait_for() {
  local tries
  for ((tries = 0; tries < 200; tries++)); do
    [[ $(grep -cE -e "$1" followed.txt) -lt $2 ]] || return 0
    sleep 0.1
  done
  cat followed.txt
  return 1
}
check "log show --follow begins with what is there" wait_for '^SignHash ' 2
keldactl none readers
keldactl none show --key Other
check "and goes on with what comes" wait_for '^OpenKey +Other ' 1
rm -f "$WINEPREFIX/drive_c/logs/deep/ksp.log"
seen=$(grep -cE '^OpenKey +Key1 ' followed.txt)
keldactl none show --key Key1
check "also in a new file" wait_for '^OpenKey +Key1 ' $((seen + 1))
on "$arch" "$WINE" taskkill /f /im keldactl.exe >/dev/null 2>&1 </dev/null || true
wait "$follower" 2>/dev/null || true

mkdir -p "$WINEPREFIX/drive_c/logs/folder.log"
keldactl none log on 'C:\logs\folder.log'
expect "a log file that cannot be written is refused" 5 'Opening the log file'
check "and not written into the registry" value_is "$sdk" KSPDIR 'C:\logs\deep\ksp.log'
echo theirs >"$logs/victim"
chmod 644 "$logs/victim"
ln "$logs/victim" "$logs/hard.log"
keldactl none log on 'C:\logs\hard.log'
expect "nor is a file that has another name" 1 '"C:.logs.hard\.log" cannot be the log file, .* other names'
check "whose rights are as they were" test "$(stat -c %a "$logs/victim")" = 644
keldactl none log on nul
expect "nor what is no file" 1 'it is no file on a disk'
check "none of them is written into the registry" value_is "$sdk" KSPDIR 'C:\logs\deep\ksp.log'
mkdir -m 777 "$logs/open"
keldactl none log on 'C:\logs\open\ksp.log'
expect "log on warns of a folder that users may write in" 0 'warning: Users may change what is in "C:.logs.open"\.'
keldactl none log on 'C:\logs\deep\ksp.log'
check "and not of one that they may not" says_not 'Users may change'
keldactl none log off
expect "log off" 0 '^The log is off'
for key in "${sdks[@]}"; do
  check "off is eight zeros (${key:14:12})" value_is "$key" KSPLOG 00000000
done
keldactl none log on
expect "log on takes the last file" 0 'C:\\logs\\deep\\ksp\.log'
keldactl none log off
keldactl none log
expect "log needs an action" 2 'ACTION'
keldactl none log sideways
expect "an unknown action is refused" 2 'the action is on, off or show, not "sideways"'
keldactl none log off file
expect "log off takes no file" 2 '"log off" takes no file'
keldactl none log on --follow
expect "log on takes no option of show" 2 'go with "log show" only'
keldactl none log show --json --follow
expect "--json and --follow go not together" 2 '--json goes neither with --follow nor --raw'
keldactl none log show --colour blue
expect "an unknown colour is refused" 2 '--colour is auto, always or never, not "blue"'

# ---- The health check ----
keldactl none check
expect "check of a healthy system" 0 '^[0-9]+ ok, (1 warning|([02-9]|[1-9][0-9]+) warnings), 0 failed, 0 skipped$'
check "it takes more than thirty steps" bash -c '(($(grep -cE "^[ 0-9]{2}  (ok|warning) " said.txt) > 30))'
check "it looks at each key" bash -c '[[ $(grep -cE "^[0-9]+  ok +Key .* its private half: on the token" said.txt) == 2 ]]'
keldactl none check --json
expect "check in JSON" 0 '"healthy": true'
check "with every step" bash -c '(($(grep -c "\"id\": " said.txt) > 30))'
keldactl none check --key Other
expect "check of one key" 0 'Key "Other" \(4F74686572\): it is an RSA key: 1024 bits'
check "leaves the others" says_not 'Key "Key1"'
keldactl none check --key Nobody
expect "check of an unknown key" 1 'failed   The key "Nobody": it is not in the list'
keldactl "$KELDA_PIN" check --key Key1 --sign
expect "check --sign" 0 'ok       The signature is good: verified in software$'
check "says nothing of the PIN itself" says_not "$KELDA_PIN"
keldactl cancel check --key Key1 --sign
expect "check --sign, cancelled" 1 'failed   The PIN is taken: .*SCARD_W_CANCELLED_BY_USER'
check "what needs the PIN is skipped" says 'skipped  The signature is good'
keldactl none check --sign
expect "check --sign wants one key" 1 'failed   The PIN is taken: there is not exactly one key to sign with$'
check "and tells how" says 'keldactl check --sign --key NAME'
keldactl none check --token-module
expect "check --token-module" 0 '^demo +Norvale Reader 0 +2 +2 +0$'
keldactl none check --token-module --json
check "check --token-module in JSON" python3 -c 'import json; j = json.load(open("said.txt")); assert j["process"] == "answered" and j["tokens"][0]["label"] == "demo"'
keldactl none check --key Nobody --colour always
expect "check --colour shows failures in colour" 1 $'^\x1b\\[31m[ 0-9]+  failed   The key "Nobody".*\x1b\\[0m$'
keldactl none check --key Nobody --colour never
check "and --colour never does not" says_not $'\x1b'
keldactl none check --answer-to 1
expect "what keldactl tells itself is no option for others" 2 'needs --token-module$'
keldactl none check --token-module --answer-to 1
check "and does nothing for them" test "$status" -eq 1 -a ! -s said.txt
keldactl none check --token-module --sign
expect "--token-module goes alone" 2 'do not go together'

mv "$work/app/keldapkcs11.dll" module.dll
# A module that does what none should.
cp "$BUILD/${arch-x64}/fake/odd/keldapkcs11.dll" "$work/app/keldapkcs11.dll"
export KELDA_ODD_MODULE=hang
on "${arch-x64}" "$WINE" "$work/app/keldactl.exe" check --token-module >hanging.txt 2>&1 </dev/null &
hanging=$!
KELDA_ODD_MODULE=chatty keldactl none check --token-module
expect "a module that writes on standard output is understood" 0 '^The token module "Odd 0\.0" initializes\.$'
check "and what it writes goes nowhere" says_not 'odd module is here'
KELDA_ODD_MODULE=chatty on "${arch-x64}" "$WINE" "$work/app/keldactl.exe" check --json >said.txt 2>noise.txt </dev/null || true
check "a module that the provider loads does so on standard error" grep -q 'odd module is here' noise.txt
check "which leaves the JSON alone" python3 -c 'import json; j = json.load(open("said.txt")); assert {s["id"]: s["result"] for s in j["steps"]}["module_initializes"] == "ok"'
KELDA_ODD_MODULE=crash keldactl none check
expect "a module that crashes is a failed step" 1 'failed   It loads: the process that loaded it crashed \(0xC000001D\)$'
check "which the provider's DLL is not let bring in" says 'failed   The DLL loads: not tried: '
check "with an advice" says "^ +Install the token maker's software again\.\$"
KELDA_ODD_MODULE=crash keldactl none check --token-module
expect "check --token-module tells that too" 1 '^The token module does not answer: the process that loaded it crashed'
status=0
wait "$hanging" || status=$?
cp hanging.txt said.txt
said=$(cat said.txt)
expect "a module that hangs is given up" 1 'gave no answer for a minute\.$'
unset KELDA_ODD_MODULE
rm "$work/app/keldapkcs11.dll"
keldactl none check
expect "check without the token module" 1 'failed   The token module is found: keldapkcs11.dll is nowhere$'
check "says where it belongs" says "Install the token maker's software"
check "and why the DLL does not start" says 'failed   The DLL loads: it refused to start: '
every_failure_has_advice() {
  awk '/^[ 0-9][0-9]  failed/ { failed = NR } failed && NR == failed + 1 && /^             [^ ]/ { advised++ }
    /^[ 0-9][0-9]  failed/ { failures++ } END { exit !(failures > 0 && advised == failures) }' said.txt
}
check "every failure has an advice" every_failure_has_advice
keldactl none status
expect "status does without it" 0 '^  Token module +keldapkcs11\.dll was not found$'
printf 'no DLL' >"$work/app/keldapkcs11.dll"
keldactl none check --token-module
expect "a damaged token module" 1 'The token module does not load'
mv module.dll "$work/app/keldapkcs11.dll"
mv "$system32" hidden.dll
keldactl none check
expect "check without the DLL" 1 'failed   The DLL for this program.s width is in its place'
keldactl none status
expect "status without the DLL" 1 "^$arch programs +cannot use the provider\$"
cp "$work/app/$other_arch/keldaksp.dll" "$system32"
keldactl none check
expect "check with a DLL of the wrong width" 1 'failed   The DLL has the right width'
keldactl none status
expect "status with a DLL of the wrong width" 1 "is no DLL for $arch programs\$"
mv hidden.dll "$system32"
if ((widths == 2)); then
  mv "$syswow64" hidden.dll
  keldactl none check
  expect "a missing DLL of the other width is a warning" 0 'warning  The DLL for programs of the other width: '
  mv hidden.dll "$syswow64"
fi
cp "$KELDA_READERS" readers.txt
: >"$KELDA_READERS"
keldactl none check
expect "check without readers" 1 'failed   Readers: there are none$'
echo 'Norvale Reader 0' >"$KELDA_READERS"
keldactl none check
expect "check without a token" 1 'failed   A token is in a reader: '
check "programs are not asked for a reader then" says 'skipped  Programs can open the provider'
cp readers.txt "$KELDA_READERS"
tries=$(echo "$work"/token/tokens/tries-*)
echo '0 3' >"$tries"
keldactl none check
expect "check with a locked PIN" 1 'failed   Its PIN is not locked: the PIN of "demo" is locked$'
echo '1 3' >"$tries"
keldactl none check
expect "check with one try left" 0 'warning  Its PIN is not locked: one more wrong PIN locks "demo"$'
echo '3 3' >"$tries"
reg delete "$ours" /v 'Default Key Length' /f >/dev/null
keldactl none check
expect "check without a default length" 1 'failed   The default length of new keys: it is not set'
set_value "$ours" 'Default Key Length' REG_DWORD 1000
keldactl none check
expect "check of a default length that is not offered" 0 'warning  The default length of new keys: 1000 bits'
set_value "$ours" 'Default Key Length' REG_DWORD 2048

# ---- Certificates ----
openssl req -x509 -newkey rsa:2048 -nodes -keyout ca-key.pem -out ca.pem -subj "/CN=CA" -days 2 2>openssl.txt
keldactl none export --key Key1 --out key1.pem
certify() {
  openssl x509 -new -force_pubkey "$1" -subj "$2" -CA ca.pem -CAkey ca-key.pem -CAcreateserial -days 1 -out "$3" 2>>openssl.txt
}
certify key1.pem '/CN=Jane Doe' jane.crt
openssl x509 -in jane.crt -outform DER -out jane.der
thumbprint=$(openssl x509 -in jane.crt -noout -fingerprint -sha1 | sed 's/.*=//;s/://g')
keldactl none certificates
expect "no certificate at first" 0 '^No certificate in your store points at'
keldactl none certificate --key Other --install jane.crt
expect "another key's certificate is refused" 1 'does not belong to the key "Other"'
keldactl none certificate --key Key1 --install data.txt
expect "what is no certificate is refused" 1 'Reading the certificate failed'
keldactl none certificate --key Key1 --install missing.crt
expect "a file that is not there" 3 'missing\.crt'
keldactl none certificate --key Key1 --install
expect "without a file the provider is asked, which keeps it to itself" 1 'NTE_NOT_SUPPORTED'
check "and the way out is told" says 'keldactl certificate --key 4B657931 --install FILE'
keldactl none certificate --key Key1 --install jane.crt --uninstall
expect "--install and --uninstall go not together" 2 'do not go together'
keldactl none certificates
expect "nothing was stored by all that" 0 '^No certificate in your store points at'
keldactl none certificate --key Key1 --install jane.der
expect "certificate --install" 0 'tied to the key "Key1" \(4B657931\)\.$'
check "it tells the thumbprint" says "^Thumbprint: $thumbprint\$"
check "and how to sign" says "signtool sign /sha1 $thumbprint /fd SHA256"
keldactl none certificates
expect "certificates lists it with its key" 0 "^$thumbprint +CN=Jane Doe +[-0-9]+ +4B657931 +yes\$"
keldactl none certificate --key Key1 --install jane.crt
expect "installing it again" 0 'tied to the key'
keldactl none certificates
check "leaves one entry" test "$(grep -c "$thumbprint" said.txt)" -eq 1
keldactl none certificates --json
expect "certificates in JSON" 0 '"key": "yes"'
keldactl none check --key Key1
expect "check sees the certificate" 0 'its certificate: "CN=Jane Doe", until '
keldactl none certificate --key Other --uninstall
expect "a key without one" 3 'No certificate in your store points at the key "Other"'
keldactl none certificate --key Key1 --uninstall
expect "certificate --uninstall" 0 "^Took the certificate of \"CN=Jane Doe\" \\($thumbprint\\) out of your store\\.\$"
keldactl none certificates
expect "it is gone for good" 0 '^No certificate in your store points at'

# Deleting a key tells what stays.
keldactl none certificate --key Key1 --install jane.crt
keldactl "$KELDA_PIN" certificate --key Key1 --set jane.crt
keldactl none check --token-module
expect "the token has the certificate" 0 '^demo +Norvale Reader 0 +2 +2 +1$'
keldactl "$KELDA_PIN" delete --key Key1 --yes
expect "delete warns of the store's certificate" 0 "warning: its certificate $thumbprint stays in your store"
check "and of the token's" says "warning: the key's certificate stays on the token"
keldactl none certificates
expect "certificates tells that the key is gone" 0 ' 4B657931 +no$'
keldactl none export --key Other --out other.pem
certify other.pem '/CN=Other' other.crt
keldactl none certificate --key Other --install other.crt
keldactl "$KELDA_PIN" delete --key Other --yes --certificates
expect "delete --certificates takes it away" 0 '^Took its certificate [0-9A-F]{40} out of your store\.$'
keldactl none certificates
check "only the other one stays" bash -c '! grep -q "CN=Other" said.txt && grep -q "CN=Jane Doe" said.txt'
keldactl none certificates --remove "${thumbprint,,}"
expect "certificates --remove" 0 "^Took the certificate $thumbprint out of your store"
keldactl none certificates --remove "$thumbprint"
expect "certificates --remove of what is not there" 3 'No certificate in your store'
keldactl none certificates --remove x --json
expect "--remove and --json go not together" 2 'do not go together'
keldactl none check
expect "a token without keys is a warning" 0 'warning  Its list of keys: the token has none$'

# ---- Taking it back ----
# The DLL in use: the PIN dialog of a program that has loaded it is open.
in_use() { find "$(dirname "$system32")" -name 'keldaksp.dll.*.old' | grep .; }
pending() {
  reg query 'HKLM\System\CurrentControlSet\Control\Session Manager' /v PendingFileRenameOperations 2>/dev/null | tr -d '\r' || true
}
keldactl "$KELDA_PIN" create --key Busy --length 1024
hex=$(sed -n '/^From now on/,$p' said.txt | awk 'NR == 3 { print $(NF - 1) }')
if [[ $hex == - ]]; then busy=(--nameless); else busy=(--key "$hex"); fi
on "${arch-x64}" "$WINE" "$work/app/keldactl.exe" sign "${busy[@]}" data.txt >busy.txt 2>&1 </dev/null &
user=$!
for ((tries = 0; tries < 300; tries++)); do
  window=$(xdotool search --onlyvisible --name '^Enter PIN for demo$' 2>/dev/null | head -n 1) || true
  [[ ! $window ]] || break
  sleep 0.1
done
keldactl none unregister
expect "unregister of a DLL in use" 0 'system32.keldaksp\.dll" is in use; Windows will remove it at the next start\.$'
check "it is out of its place at once" test ! -e "$system32"
check "under another name" in_use
check "by which alone Windows will remove it" bash -c '[[ $1 == *keldaksp.dll.1.old* && $1 != *keldaksp.dll\\* ]]' - "$(pending)"
keldactl none register --copy
expect "register --copy does not wait for that" 0 '^Registered the provider'
check "the DLL is in its place" cmp "$work/app/keldaksp.dll" "$system32"
xdotool windowfocus --sync "$window" key Escape || true
wait "$user" || true
on "${arch-x64}" wineserver -k
on "${arch-x64}" wineserver -w
on "${arch-x64}" "$WINE" wineboot </dev/null >/dev/null 2>&1
check "after the next start it still is" cmp "$work/app/keldaksp.dll" "$system32"
check "and the old one is gone" bash -c '! find "$1" -name "keldaksp.dll.*.old" | grep .' - "$(dirname "$system32")"
keldactl none keys
expect "programs can use it" 0 ' RSA$'
keldactl "$KELDA_PIN" delete "${busy[@]}" --yes

keldactl none unregister
expect "unregister" 0 '^Unregistered the provider'
check "the copies are gone" test ! -e "$system32" -a ! -e "$syswow64"
check "settings that somebody made stay" value_is "$sdk" PINCACHE 1
check "and those of the other width" value_is "$sdk32" dwUseProviderCache 0x0
((widths == 1)) || check "defaults are gone" test -z "$(value "$sdk" dwUseProviderCache)$(value "$sdk32" PINCACHE)"
configuration after.txt
check "nothing of other providers has changed" diff before.txt after.txt
keldactl none unregister
expect "unregister again" 0 '^There was no registration of'
configuration after.txt
check "and still nothing has changed" diff before.txt after.txt
# A DLL that keldactl did not copy, or that somebody replaced, is not its to remove.
cp "$work/app/keldaksp.dll" "$system32"
keldactl none register --copy
expect "register --copy finds the DLL in its place" 0 'system32.keldaksp\.dll" is there already\.$'
replaced=$syswow64
if ((widths == 1)); then
  keldactl none unregister
  replaced=$system32
  rm "$replaced"
  keldactl none register --copy
fi
fake_other_dll newer >"$replaced"
keldactl none unregister
expect "unregister leaves a DLL that was replaced" 0 'sys(tem32|wow64).keldaksp\.dll" is no longer what was copied there, and stays\.$'
check "both are there" test -e "$system32" -a -e "$replaced"
fake_other_dll foreign >"$replaced"
keldactl none register --copy
expect "a foreign DLL is replaced" 0 'over one that keldactl had not put there'
keldactl none unregister
check "and then stays" test -e "$replaced"
