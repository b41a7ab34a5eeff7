#!/usr/bin/env bash
# GetHashFileSHA256 on a 1 GiB file against `openssl dgst -sha256` on the same file, in
# the same run: wall-time ratio (target <= 1.05) and peak RSS of the library's process
# (target <= 16 MiB).
#   bench/hash.sh [BUILD_DIR] [SIZE_MIB]
set -euo pipefail
build="${1:-build}"
size_mib="${2:-1024}"
bin="$build/bench/bench_hash_file"
[ -x "$bin" ] || { echo "build first: $bin missing" >&2; exit 1; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
file="$work/big.bin"
head -c $((size_mib * 1024 * 1024)) /dev/urandom > "$file"

# Same digest from both, upper case from ours.
ours=$("$bin" "$file")
ref=$(openssl dgst -sha256 -r "$file" | cut -d' ' -f1 | tr a-f A-F)
[ "$ours" = "$ref" ] || { echo "digest mismatch: $ours vs $ref" >&2; exit 1; }

# Page cache warm for both; alternate runs so neither gets a systematic advantage.
cat "$file" > /dev/null
hyperfine --warmup 1 --runs 7 --export-json "$work/h.json" \
  "$bin $file" "openssl dgst -sha256 $file" >&2
read -r ours_s ref_s < <(python3 -c "
import json,sys; r=json.load(open('$work/h.json'))['results']
print(r[0]['median'], r[1]['median'])")
/usr/bin/time -f '%M' -o "$work/rss" "$bin" "$file" > /dev/null
rss_kib=$(tail -n1 "$work/rss")
/usr/bin/time -f '%M' -o "$work/rss" openssl dgst -sha256 "$file" > /dev/null
ref_rss_kib=$(tail -n1 "$work/rss")
python3 - <<PY
ours, ref = $ours_s, $ref_s
print(f"file: {$size_mib} MiB")
print(f"GetHashFileSHA256 median: {ours:.3f} s   openssl dgst -sha256 median: {ref:.3f} s")
print(f"time ratio ours/openssl: {ours/ref:.3f}   (target <= 1.05)")
print(f"peak RSS ours: {$rss_kib/1024:.1f} MiB   openssl: {$ref_rss_kib/1024:.1f} MiB   (target <= 16 MiB)")
PY
