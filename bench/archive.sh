#!/usr/bin/env bash
# Archiving N small files with signing (files per second, share outside signing), then
# `tessarel archive verify` of that archive against `openssl cms -verify` of the same
# envelopes, one process per envelope, in the same run.
#   bench/archive.sh [BUILD_DIR] [FILES]
set -euo pipefail
build="${1:-build}"
n="${2:-10000}"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$build/bench/bench_archive" "$work" "$n"
sync
s=$(date +%s.%N)
"$build/bin/tessarel" --quiet --store "$work/store" archive verify "$work/archive" > "$work/verify.txt" || { cat "$work/verify.txt"; exit 1; }
e=$(date +%s.%N)
t_ours=$(echo "$e - $s" | bc)
find "$work/archive" -name '*.p7m' | sort > "$work/envelopes"
s=$(date +%s.%N)
while read -r env; do
  openssl cms -verify -binary -inform DER -in "$env" -CAfile "$work/cert.pem" -purpose any -out /dev/null 2>/dev/null
done < "$work/envelopes"
e=$(date +%s.%N)
t_openssl=$(echo "$e - $s" | bc)
python3 - <<PY
ours, theirs, n = $t_ours, $t_openssl, $(wc -l < "$work/envelopes")
print(f"tessarel archive verify (index signature, {n} records: sizes, digests, envelopes): {ours:.2f} s")
print(f"openssl cms -verify, one process per envelope ({n}):                         {theirs:.2f} s")
print(f"ratio ours/openssl: {ours/theirs:.3f}")
PY
