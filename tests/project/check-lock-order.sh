#!/usr/bin/env bash
# check-lock-order.sh PROGRAM
#
# The thread sanitizer, as the tests are built and started, ends a program that takes two of the library's mutexes in both
# orders, also where nothing happened to wait; and one that takes them in one order goes well.
set -euo pipefail

program=$1
scratch=$(mktemp -d)
trap 'rm -rf "${scratch}"' EXIT

# Started the way the tests are, or the sanitizers of these compilers meet too random an address space.
start=()
! setarch -R true 2>/dev/null || start=(setarch -R)
"${start[@]}" "${program}" --gtest_filter=LockOrder.InOneOrder || { echo "locks in one order do not go well"; exit 1; }
if "${start[@]}" "${program}" --gtest_filter=LockOrder.InBothOrders >"${scratch}/log" 2>&1; then
    echo "locks in both orders go unnoticed"
    exit 1
fi
grep -q 'lock-order-inversion' "${scratch}/log" || { cat "${scratch}/log"; echo "it ends otherwise"; exit 1; }
