#!/usr/bin/env bash
# Installs the Debian packages that a step needs and that are not there: packages.sh build|test|fuzz|afl|valgrind|check
set -euo pipefail

build=(g++ cmake ninja-build make pkg-config libdb1-compat libsqlite3-dev libcrypto++-dev libmd-dev
       libldap-dev libsasl2-dev libpam0g-dev libsystemd-dev libcrypt-dev libcli11-dev nlohmann-json3-dev)
test=(libgtest-dev libgmock-dev libbenchmark-dev slapd ldap-utils libsasl2-modules openssl dbus)
fuzz=(clang libclang-rt-14-dev)
afl=(afl++)
valgrind=(valgrind)
check=(clang-format clang-tidy)

wanted=("${build[@]}")
for step in "$@"; do
  case $step in
    build) ;;
    test) wanted+=("${test[@]}") ;;
    fuzz) wanted+=("${fuzz[@]}") ;;
    afl) wanted+=("${afl[@]}") ;;
    valgrind) wanted+=("${valgrind[@]}") ;;
    check) wanted+=("${check[@]}") ;;
    *) echo "packages.sh: no such step: $step" >&2; exit 64 ;;
  esac
done

missing=()
for package in "${wanted[@]}"; do
  [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

root=()
[ "$(id -u)" -eq 0 ] || root=(sudo)
echo "installing: ${missing[*]}"
"${root[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
