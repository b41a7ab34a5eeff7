#!/usr/bin/env bash
# `tessarel verify` and `tessarel extract` of one large attached envelope in each input
# form (DER from tessarel sign, BER from openssl cms -stream, Base64 of the DER) against
# `openssl dgst -sha256` of the same envelope file, in the same run: medians of 3 runs,
# page cache warm, and the peak RSS of each tessarel run.
# Targets: time ratio <= 1.3 (Base64 <= 2), peak RSS <= 64 MiB.
#   bench/envelope_forms.sh [BUILD_DIR] [SIZE_MIB]
set -euo pipefail
case "${1:-}" in -h | --help)
  sed -n '2,7p' "$0" | sed 's/^# \{0,1\}//'
  exit 0
  ;;
esac
build="${1:-build}"
size_mib="${2:-1024}"
[[ "$size_mib" =~ ^[1-9][0-9]*$ ]] || { echo "SIZE_MIB must be a positive number" >&2; exit 2; }
cli="$build/bin/tessarel"
[ -x "$cli" ] || { echo "build first: $cli missing" >&2; exit 1; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
data="$work/doc.bin"
head -c $((size_mib * 1024 * 1024)) /dev/urandom > "$data"
store="$work/store"
id=$("$cli" --store "$store" cert new --cn "Large Envelope Signer" 2>/dev/null)
"$cli" --store "$store" cert show "$id" --pem > "$work/cert.pem"
"$cli" --store "$store" cert export "$id" -o "$work/key.pfx" --password pass: 2>/dev/null
openssl pkcs12 -in "$work/key.pfx" -passin pass: -nocerts -nodes -out "$work/key.pem" 2>/dev/null

"$cli" --quiet --store "$store" sign --cert "$id" "$data" > /dev/null
mv "$data.p7m" "$work/der.p7m"
openssl cms -sign -binary -nodetach -stream -outform DER -in "$data" -signer "$work/cert.pem" \
  -inkey "$work/key.pem" -out "$work/ber.p7m"
openssl base64 -e -in "$work/der.p7m" -out "$work/base64.p7m"

median() { tr ' ' '\n' | sed '/^$/d' | sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }
once() {
  sync
  s=$(date +%s.%N); "$@" > /dev/null 2>&1; e=$(date +%s.%N)
  echo "$e - $s" | bc
}
rss() { /usr/bin/time -f '%M' -o "$work/rss" "$@" > /dev/null 2>&1; tail -n1 "$work/rss"; }

report=""
for form in der ber base64; do
  env="$work/$form.p7m"
  out="$work/out.bin"
  "$cli" --quiet verify "$env" > /dev/null || { echo "$form: tessarel verify failed" >&2; exit 1; }
  cat "$env" > /dev/null
  ref_runs=""; verify_runs=""; extract_runs=""
  # Alternating runs: drift of a shared machine hits all three alike.
  for _ in 1 2 3; do
    ref_runs+=" $(once openssl dgst -sha256 "$env")"
    verify_runs+=" $(once "$cli" --quiet verify "$env")"
    rm -f "$out"
    extract_runs+=" $(once "$cli" --quiet extract "$env" -o "$out")"
  done
  cmp -s "$out" "$data" || { echo "$form: extracted content differs" >&2; exit 1; }
  rm -f "$out"
  r_verify=$(rss "$cli" --quiet verify "$env")
  rm -f "$out"
  r_extract=$(rss "$cli" --quiet extract "$env" -o "$out")
  rm -f "$out"
  size=$(stat -c %s "$env")
  report+="$form $size $(echo "$ref_runs" | median) $(echo "$verify_runs" | median) \
$(echo "$extract_runs" | median) $r_verify $r_extract"$'\n'
done
python3 - "$size_mib" <<PY
import sys
print(f"content: {sys.argv[1]} MiB of random bytes; medians of 3 runs, page cache warm")
print(f"{'form':7} {'envelope':>10} {'dgst':>7} {'verify':>7} {'ratio':>6} {'extract':>8} {'ratio':>6} {'RSS verify':>11} {'RSS extract':>12}")
for line in """$report""".strip().splitlines():
    form, size, ref, ver, ext, rv, rx = line.split()
    ref, ver, ext = float(ref), float(ver), float(ext)
    target = 2.0 if form == "base64" else 1.3
    print(f"{form:7} {int(size)/2**20:8.0f} MiB {ref:6.2f}s {ver:6.2f}s {ver/ref:6.2f} {ext:7.2f}s {ext/ref:6.2f} "
          f"{int(rv)/1024:8.1f} MiB {int(rx)/1024:9.1f} MiB   (ratio target <= {target}, RSS <= 64 MiB)")
PY
