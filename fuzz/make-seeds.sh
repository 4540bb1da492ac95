#!/usr/bin/env bash
# Writes the binary seeds (OTP areas, image starts) with the image tool, so none is committed.
# Usage: fuzz/make-seeds.sh IMAGETOOL OUT_DIR
set -euo pipefail
tool=$1
out=$2
mkdir -p "$out/otpinfo" "$out/fwinfo"

otp() {
    local name=$1
    shift
    "$tool" otp --out "$out/otpinfo/$name" "$@"
}
otp blank --blank
otp kestrel-at-0
otp kestrel-at-16 --offset 16 --data 0011223344556677
otp last-slot --offset 496
otp hash-type --type 0x23
otp no-row-type --type 0x51
otp type-zero --type 0
otp type-ff --type 0xFF

# Only the first 1949 bytes can hold a block; short images keep the fuzzer fast.
fw() {
    local name=$1
    shift
    "$tool" firmware --bin "$out/fwinfo/$name" --size 2048 "$@"
}
fw intact
fw empty-pair --detail =
fw absent --block absent
fw no-end --block no-end
fw bad-length --block bad-length
fw long-name --name 0123456789012345678901234567890 --revision 31.31.31
fw other-product --type 4 --qualifiers 1,2,3
# The block sits at 0x200: 21 pairs end just inside the limit, 22 just past it.
pairs() { for i in $(seq 1 "$1"); do printf -- '--detail k%d=v%d ' "$i" "$i"; done; }
fw most-pairs $(pairs 21)
fw past-limit $(pairs 22)
