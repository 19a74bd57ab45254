#!/usr/bin/env bash
# make-corpus.sh DIR: writes the seeds of the fuzz targets, DIR/<target>/<seed>.
set -euo pipefail
[[ $# == 1 ]] || {
  echo "usage: ${0##*/} DIR" >&2
  exit 2
}
top=$1
rm -rf "$top"

# seed TARGET NAME HEX...: a file of the bytes that the digits spell; blanks do not count.
seed() {
  local target=$1 name=$2 digits
  shift 2
  digits=$(printf '%s' "$@" | tr -d ' ')
  mkdir -p "$top/$target"
  # shellcheck disable=SC2001,SC2059 # two digits become one escape, which printf turns into a byte
  printf "$(sed 's/../\\x&/g' <<<"$digits")" >"$top/$target/$name"
}

# ascii TEXT: the digits of its bytes. wide TEXT: of its characters.
ascii() { printf '%s' "$1" | od -An -v -tx1 | tr -d ' \n'; }
wide() { ascii "$1" | sed 's/../&00/g'; }
# le NUMBER: 32 bits, least significant byte first.
le() {
  local n
  printf -v n '%08x' "$(($1))"
  printf '%s%s%s%s' "${n:6:2}" "${n:4:2}" "${n:2:2}" "${n:0:2}"
}
# filler COUNT: that many bytes that are not zero.
filler() {
  local i
  for ((i = 1; i <= $1; i++)); do
    printf '%02x' $((i % 255 + 1))
  done
}
# header MAGIC BITS EXPONENT MODULUS PRIME1 PRIME2: of an RSA blob.
header() { for n in "$@"; do le "$n"; done; }

rsa1=0x31415352
rsa2=0x32415352
max=0xFFFFFFFF

# The first byte of a blob seed chooses the full form (1) and lengths of more than 12 bits (f0). Seeds that begin with as_is_ are not varied by the replay.
seed private_key_blob public_512 00 "$(header $rsa1 512 3 64 0 0)" 010001 "$(filler 64)"
seed private_key_blob private_512 00 "$(header $rsa2 512 3 64 32 32)" 010001 "$(filler 128)"
seed private_key_blob full_512 01 "$(header $rsa2 512 3 64 32 32)" 010001 "$(filler 288)"
seed private_key_blob header_only 00 "$(header $rsa1 2048 3 256 0 0)"
seed private_key_blob header_cut 00 "$(header $rsa1 2048 3 256 0 0 | cut -c 1-34)"
seed private_key_blob zeros 00 "$(header 0 0 0 0 0 0)"
seed private_key_blob ones 00 "$(header 1 1 1 1 1 1)" 01020304
for field in 1 2 3 4 5 6; do
  for value in 0 1 0x1000 0x04000000 $max; do
    numbers=("$rsa2" 512 3 64 32 32)
    numbers[field - 1]=$value
    seed private_key_blob "as_is_field_${field}_$value" f0 "$(header "${numbers[@]}")" "$(filler 40)"
  done
done
seed private_key_blob as_is_large_prime f0 "$(header $rsa1 512 3 64 0x03FFFFFF 0)" "$(filler 70)"
seed private_key_blob maxima f1 "$(header $max $max $max $max $max $max)"
seed private_key_blob long_exponent 00 "$(header $rsa1 512 5 64 0 0)" "$(filler 69)"

seed public_key_blob usual 00 03 010001 "$(filler 64)"
seed public_key_blob one_byte_exponent 01 01 03 "$(filler 16)"
seed public_key_blob long_exponent 00 08 0102030405060708 "$(filler 8)"
seed public_key_blob no_modulus 00 03 010001
seed public_key_blob nothing 00 00

seed hex_name key1 01 "$(ascii 4B657931)"
seed hex_name lower_case 01 "$(ascii 4b657931)"
seed hex_name odd 01 "$(ascii 4B657)"
seed hex_name half_digit 01 "$(ascii 4GAZ)"
seed hex_name zeros 01 "$(ascii 0000003F)"
seed hex_name no_digits 01 "$(ascii Key1)"
seed hex_name wide_digits 00 "$(wide 3F9A0012)"
seed hex_name full_width 00 14ff 3100

seed name_buffer terminated "$(wide Key1)" 0000
seed name_buffer unterminated "$(wide Key1)"
seed name_buffer odd "$(wide Key1)" 41
seed name_buffer no_zero ac20ac20
seed name_buffer empty 0000
seed name_buffer split_zeros 4100 0001 0000

seed reader_name padded "$(ascii 'Reader 0')" 2020202020202020
seed reader_name zeros "$(ascii 'Reader 0')" 0000000000
seed reader_name long "$(filler 64)"
seed reader_name blanks 2020

seed log_format short 78563412 00ff1020
seed log_format none 00000080
seed log_format long ffffffff "$(filler 600)"
seed log_format time 01000000 "$(ascii 'Mon Jan  2 03:04:05 2006')" 0a

# Count to compare, room to narrow into, length of the first text.
seed text reader 04 08 08 "$(wide 'Reader 0')" "$(wide '\\.\Reader 0\Key1')"
seed text case 04 05 04 "$(wide KEY1)" "$(wide key1)"
seed text false_start 00 02 02 "$(wide ab)" "$(wide aaab)"
seed text wide ff ff 01 ac20 "$(wide x)" ac20
seed text empty 01 01 00

seed bounded_copy fits 08 "$(wide Key1)"
seed bounded_copy exact 05 "$(wide Key1)"
seed bounded_copy cut 04 "$(wide Key1)"
seed bounded_copy no_room 00 "$(wide Key1)"

for length in 0 15 16 20 28 32 34 35 36 48 51 64 83 84; do
  seed digest_info "length_$length" "$(le $length)"
done

seed pin_block short "$(ascii 1234)"
seed pin_block fills_a_block "$(filler 14)"
seed pin_block long "$(filler 300)"
seed pin_block as_block 8104 "$(ascii 1234)" 0000000000000000
seed pin_block promises_more 81ff "$(ascii 123456)"

mask=$(filler 32)
seed pin_scrambler typed "$mask" 02 00 01 3100 02 01 01 3200 02 02 01 3300
seed pin_scrambler pasted "$mask" 03 00 07 "$(wide 1234567)" 02 03 02 "$(wide ab)"
seed pin_scrambler deleted "$mask" 02 00 04 "$(wide 1234)" 01 01 02 01 09 01
seed pin_scrambler cleared "$mask" 02 00 04 "$(wide 1234)" 00 00 02 00 01 3900
seed pin_scrambler beyond "$mask" 02 02 01 3100 02 01 01 3200 02 ff 01 3300
