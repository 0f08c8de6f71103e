#!/usr/bin/env bash
# check-lock-order.sh PROGRAM
#
# The thread sanitizer, as the tests are built and started, ends a program that takes two of the library's mutexes in both
# orders, also where nothing happened to wait; and one that takes them in one order goes well.
set -euo pipefail
# shellcheck source=scripts/lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/../../scripts/lib.sh"

program=$1
scratch=$(mktemp -d)
trap 'rm -rf "${scratch}"' EXIT

read -r -a start <<<"$(sanitized_start)"
"${start[@]}" "${program}" --gtest_filter=LockOrder.InOneOrder || { echo "locks in one order do not go well"; exit 1; }
if "${start[@]}" "${program}" --gtest_filter=LockOrder.InBothOrders >"${scratch}/log" 2>&1; then
    echo "locks in both orders go unnoticed"
    exit 1
fi
grep -q 'lock-order-inversion' "${scratch}/log" || { cat "${scratch}/log"; echo "it ends otherwise"; exit 1; }
