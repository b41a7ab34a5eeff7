#!/usr/bin/env bash
# `tessarel verify` and `tessarel extract` of one large attached envelope in each input
# form (DER from tessarel sign, BER from openssl cms -stream, Base64 of the DER), in the same
# run: verify against `openssl dgst -sha256` of the envelope; extract (which writes the
# content) against `openssl dgst -sha256` plus `cp` of the envelope to a file, and extract
# to /dev/null against dgst alone. Medians of BENCH_RUNS runs (default 3), page cache
# warm, `sync` before each timed run: wall time, and CPU time (user + system) as a second
# line; peak RSS of each tessarel run.
# Targets: time ratio <= 1.3 (Base64 <= 2), peak RSS <= 64 MiB.
#   bench/envelope_forms.sh [BUILD_DIR] [SIZE_MIB]
set -euo pipefail
case "${1:-}" in -h | --help)
  sed -n '2,10p' "$0" | sed 's/^# \{0,1\}//'
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

# A run gives "wall:cpu" (seconds; cpu is user + system of the command and its children,
# which a busy machine disturbs less than the wall time); median picks field 1 or 2.
median() {
  tr ' ' '\n' | sed '/^$/d' | cut -d: -f"$1" | sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'
}
once() {
  sync
  s=$(date +%s.%N); /usr/bin/time -f '%U %S' -o "$work/cpu" "$@" > /dev/null 2>&1; e=$(date +%s.%N)
  echo "$(echo "$e - $s" | bc):$(tail -n1 "$work/cpu" | awk '{print $1 + $2}')"
}
rss() { /usr/bin/time -f '%M' -o "$work/rss" "$@" > /dev/null 2>&1; tail -n1 "$work/rss"; }

runs="${BENCH_RUNS:-3}"
report=""
for form in der ber base64; do
  env="$work/$form.p7m"
  out="$work/out.bin"
  copy="$work/copy.bin"
  "$cli" --quiet verify "$env" > /dev/null || { echo "$form: tessarel verify failed" >&2; exit 1; }
  cat "$env" > /dev/null
  ref=""; ref_cp=""; ver=""; ext=""; ext_null=""
  # Alternating runs: drift of a shared machine hits all alike. Outputs are removed before
  # each run, outside the timing, so no run pays for another's write-back.
  for _ in $(seq "$runs"); do
    ref+=" $(once openssl dgst -sha256 "$env")"
    ver+=" $(once "$cli" --quiet verify "$env")"
    rm -f "$copy"
    ref_cp+=" $(once sh -c 'openssl dgst -sha256 "$1" && cp "$1" "$2"' sh "$env" "$copy")"
    rm -f "$copy" "$out"
    ext+=" $(once "$cli" --quiet extract "$env" -o "$out")"
    cmp -s "$out" "$data" || { echo "$form: extracted content differs" >&2; exit 1; }
    rm -f "$out"
    ext_null+=" $(once "$cli" --quiet extract "$env" -o /dev/null)"
  done
  r_verify=$(rss "$cli" --quiet verify "$env")
  r_extract=$(rss "$cli" --quiet extract "$env" -o "$out")
  rm -f "$out"
  size=$(stat -c %s "$env")
  for f in 1 2; do
    report+="$form $size $(echo "$ref" | median $f) $(echo "$ver" | median $f) \
$(echo "$ref_cp" | median $f) $(echo "$ext" | median $f) $(echo "$ext_null" | median $f) \
$r_verify $r_extract"$'\n'
  done
done
python3 - "$size_mib" "$runs" "$(cut -d' ' -f1-3 /proc/loadavg)" <<PY
import sys
print(f"content: {sys.argv[1]} MiB of random bytes; medians of {sys.argv[2]} runs, page cache warm; "
      f"load average at the end: {sys.argv[3]}")
print("ratios: verify / dgst; extract to a file / (dgst + cp to a file); extract to /dev/null / dgst")
print(f"{'form':7} {'envelope':>10} {'':5} {'dgst':>7} {'verify':>7} {'ratio':>6} {'dgst+cp':>8} "
      f"{'extract':>8} {'ratio':>6} {'to null':>8} {'ratio':>6} {'RSS verify':>11} {'RSS extract':>12}")
lines = """$report""".strip().splitlines()
for i, line in enumerate(lines):
    form, size, ref, ver, ref_cp, ext, ext_null, rv, rx = line.split()
    ref, ver, ref_cp, ext, ext_null = (max(float(x), 0.005) for x in (ref, ver, ref_cp, ext, ext_null))
    target = 2.0 if form == "base64" else 1.3
    kind = "wall" if i % 2 == 0 else "cpu"
    rss = f"{int(rv)/1024:8.1f} MiB {int(rx)/1024:9.1f} MiB" if kind == "wall" else ""
    note = f"  (target <= {target}, RSS <= 64 MiB)" if kind == "wall" else ""
    print(f"{form:7} {int(size)/2**20:8.0f} MiB {kind:5} {ref:6.2f}s {ver:6.2f}s {ver/ref:6.2f} "
          f"{ref_cp:7.2f}s {ext:7.2f}s {ext/ref_cp:6.2f} {ext_null:7.2f}s {ext_null/ref:6.2f} {rss}{note}")
PY
