#!/bin/sh
# What mvpn-contract-test finds in platforms that break the contract, each in one way.
# usage: faults_test.sh mvpn-contract-test FAULTY-LIBRARY HOLLOW-LIBRARY
set -u
kit=$1
faulty=$2
hollow=$3
wrong=0

# finds LIBRARY CHECK TEXT: the check differs, with this text below it.
finds() {
  out=$("$kit" --only "$2" "$1" 2>&1)
  [ $? -eq 1 ] && printf '%s\n' "$out" | grep -qE "$3" && return
  printf 'not found: %s: %s\n%s\n' "${FAULT:-}" "$2" "$out"
  wrong=$((wrong + 1))
}

while IFS='|' read -r fault check text; do
  FAULT=$fault
  export FAULT
  finds "$faulty" "$check" "$text"
done <<EOF
dirty objects|mem: slab objects|is_zero
a handle that stays|mem: slab objects|slab == nullptr
a crash|mem: an object outlives|ends by signal|ends the process
early timers|timer: a timer fires once|begun \+ 1
another idea of success|timer: a timer fires once|start\(3\)
answers from inside the call|oim: a tunnel is created|told "created 1" from inside a call
yields that always say so|thread: a yield tells|may_yield\(\) == 0
a cancellation point|thread: no operation|trace is  and not b
walks that look ahead|ravl: a walk survives|not so|ends
walks that end with the prefix|pss: a walk starts|walk.next
lengths that are one too many|mts: messages come|payloads|bytes == nullptr|AddressSanitizer: heap-buffer-overflow
output of a failure|im: what does not exist|iod is 0 and not 99
EOF
unset FAULT
finds "$hollow" "all: every service" "slab_calloc is missing"
finds "$hollow" "mem: tracked" "mtrack_alloc is missing"
"$kit" --only mem: "$faulty" >/dev/null || { echo "differs without a fault"; wrong=$((wrong + 1)); }
"$kit" /nowhere.so >/dev/null 2>&1
[ $? -eq 2 ] || { echo "a library that is not there is no error"; wrong=$((wrong + 1)); }
exit "$((wrong > 0))"
