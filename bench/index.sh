#!/usr/bin/env bash
# An index of N documents (default 50,000): one process that opens it, signs and archives
# one new document and closes (signs) it, against `xmlsec1 --sign` of the same document with
# the same key (a template of the same structure), in the same run: wall time (median of
# ROUNDS alternating runs) and peak RSS; and the steps of our process.
#   bench/index.sh [BUILD_DIR] [DOCUMENTS] [ROUNDS]
set -euo pipefail
build="${1:-build}"
n="${2:-50000}"
rounds="${3:-5}"
bin="$build/bench/bench_index_close"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$bin" prepare "$work" "$n"
openssl pkcs12 -in "$work/key.pfx" -passin pass: -nocerts -nodes -out "$work/key.pem" 2>/dev/null
cp "$work/index.xml" "$work/unsigned.xml"

median() { tr ' ' '\n' | sed '/^$/d' | sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }
wall() { s=$(date +%s.%N); "$@" > "$work/out" 2>&1; e=$(date +%s.%N); echo "$e - $s" | bc; }
rss() { /usr/bin/time -f '%M' -o "$work/rss" "$@" > /dev/null 2>&1; tail -n1 "$work/rss"; }
# Each run starts from the same unsigned index, without the document of the last run.
fresh() { cp "$work/unsigned.xml" "$work/index.xml"; rm -rf "$work/Contratti" "$work"/nuovo_*; sync; }
step() { grep -o "$1: [0-9.]*" "$work/out" | cut -d' ' -f2; }

ours=""; theirs=""; opens=""; adds=""; closes=""
for _ in $(seq "$rounds"); do
  fresh
  ours+=" $(wall "$bin" add "$work")"
  opens+=" $(step ApriIndice)"; adds+=" $(step FirmaEArchiviaFile)"; closes+=" $(step ChiudiIndice)"
  sync
  theirs+=" $(wall xmlsec1 --sign --privkey-pem "$work/key.pem,$work/cert.pem" --output "$work/xmlsec.xml" "$work/template.xml")"
done
xmlsec1 --verify --enabled-key-data x509 --trusted-pem "$work/cert.pem" --enabled-reference-uris empty "$work/index.xml" > /dev/null 2>&1 \
  || { echo "xmlsec1 rejects our signed index" >&2; exit 1; }
grep -q 'Name="nuovo_documento.pdf"' "$work/index.xml" || { echo "the new record is missing" >&2; exit 1; }
fresh
r_ours=$(rss "$bin" add "$work")
r_theirs=$(rss xmlsec1 --sign --privkey-pem "$work/key.pem,$work/cert.pem" --output "$work/xmlsec.xml" "$work/template.xml")
t_ours=$(echo "$ours" | median); t_theirs=$(echo "$theirs" | median)
t_open=$(echo "$opens" | median); t_add=$(echo "$adds" | median); t_close=$(echo "$closes" | median)
python3 - <<PY
n = $n
print(f"index of {n} documents ({$(stat -c %s "$work/unsigned.xml")/1048576:.1f} MiB), medians of $rounds runs")
print(f"xmlsec1 --sign (parse, sign, write):          {$t_theirs:.3f} s   peak RSS {$r_theirs/1024:.1f} MiB")
print(f"our process (open, add one document, close):  {$t_ours:.3f} s   peak RSS {$r_ours/1024:.1f} MiB")
print(f"  ApriIndice {$t_open:.3f} s, FirmaEArchiviaFile {$t_add:.3f} s, ChiudiIndice {$t_close:.3f} s")
print(f"ratio ours/xmlsec1: time {$t_ours/$t_theirs:.2f} (target <= 0.8)   peak RSS {$r_ours/$r_theirs:.2f} (target <= 1.0)")
PY
