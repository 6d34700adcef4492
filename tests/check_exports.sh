#!/usr/bin/env bash
# Checks the shared library's dynamic symbol table against the public header:
# every exported symbol is API (K_*, KT* classes, the emulated Win32 names
# listed in the export map), and every C function the header declares is exported.
set -euo pipefail
lib=$1 header=$2 map=$3
exported=$(nm -D --defined-only "$lib" | awk '{print $3}' | sed 's/@.*//' | sort -u)
win32=$(sed -n 's/^[[:space:]]*\([A-Za-z][A-Za-z0-9_]*\);.*/\1/p' "$map" | grep -v '^K_' || true)
bad=0
while read -r sym; do
  [ -z "$sym" ] && continue
  case "$sym" in
    K_*|OMBRIX_1) continue ;;
  esac
  demangled=$(echo "$sym" | c++filt)
  case "$demangled" in
    KT*|"typeinfo for KT"*|"typeinfo name for KT"*|"vtable for KT"*) continue ;;
  esac
  if grep -qx "$sym" <<<"$win32"; then continue; fi
  echo "not API but exported: $sym ($demangled)"; bad=1
done <<<"$exported"
# C functions declared with OMBRIX_API in the header.
declared=$(grep -v "^[[:space:]]*#" "$header" | tr "\n" " " | grep -oE 'OMBRIX_API[^;{(]*\(' | grep -v 'class' |
           sed -E 's/\($//; s/.*[ *]([A-Za-z_][A-Za-z0-9_]*)$/\1/' | sort -u)
for fn in $declared; do
  grep -qx "$fn" <<<"$exported" || { echo "declared but not exported: $fn"; bad=1; }
done
n=$(wc -l <<<"$exported")
if [ $bad -ne 0 ]; then echo "export check failed"; exit 1; fi
echo "export check: $n symbols, all API; $(wc -w <<<"$declared") declared C functions exported"
