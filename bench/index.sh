#!/usr/bin/env bash
# ChiudiIndice on an index of N documents (default 50,000) against `xmlsec1 --sign` of the
# same document with the same key (a template of the same structure), in the same run:
# wall time and peak RSS; and ApriIndice of that index.
#   bench/index.sh [BUILD_DIR] [DOCUMENTS]
set -euo pipefail
build="${1:-build}"
n="${2:-50000}"
bin="$build/bench/bench_index_close"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$bin" prepare "$work" "$n"
openssl pkcs12 -in "$work/key.pfx" -passin pass: -nocerts -nodes -out "$work/key.pem" 2>/dev/null
cp "$work/index.xml" "$work/unsigned.xml"

median() { tr ' ' '\n' | sed '/^$/d' | sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }
wall() { s=$(date +%s.%N); "$@" > "$work/out" 2>&1; e=$(date +%s.%N); echo "$e - $s" | bc; }
rss() { /usr/bin/time -f '%M' -o "$work/rss" "$@" > /dev/null 2>&1; tail -n1 "$work/rss"; }

ours=""; close_only=""; theirs=""; opens=""
for _ in 1 2 3; do
  cp "$work/unsigned.xml" "$work/index.xml"; sync
  ours+=" $(wall "$bin" close "$work")"
  close_only+=" $(grep -o 'ChiudiIndice: [0-9.]*' "$work/out" | cut -d' ' -f2)"
  sync
  theirs+=" $(wall xmlsec1 --sign --privkey-pem "$work/key.pem,$work/cert.pem" --output "$work/xmlsec.xml" "$work/template.xml")"
  opens+=" $(wall "$bin" open "$work")"
done
xmlsec1 --verify --enabled-key-data x509 --trusted-pem "$work/cert.pem" --enabled-reference-uris empty "$work/index.xml" > /dev/null 2>&1 \
  || { echo "xmlsec1 rejects our signed index" >&2; exit 1; }
cp "$work/unsigned.xml" "$work/index.xml"
r_ours=$(rss "$bin" close "$work")
r_theirs=$(rss xmlsec1 --sign --privkey-pem "$work/key.pem,$work/cert.pem" --output "$work/xmlsec.xml" "$work/template.xml")
r_open=$(rss "$bin" open "$work")
t_ours=$(echo "$ours" | median); t_close=$(echo "$close_only" | median)
t_theirs=$(echo "$theirs" | median); t_open=$(echo "$opens" | median)
python3 - <<PY
n = $n
print(f"index of {n} documents ({$(stat -c %s "$work/unsigned.xml")/1048576:.1f} MiB), medians of 3 runs")
print(f"xmlsec1 --sign (parse, sign, write):         {$t_theirs:.3f} s   peak RSS {$r_theirs/1024:.1f} MiB")
print(f"our process (ApriIndice + ChiudiIndice):     {$t_ours:.3f} s   peak RSS {$r_ours/1024:.1f} MiB")
print(f"  ChiudiIndice alone:                        {$t_close:.3f} s   time ratio to xmlsec1 {$t_close/$t_theirs:.2f} (target <= 1.0)")
print(f"  whole process / xmlsec1:                   time {$t_ours/$t_theirs:.2f}   peak RSS {$r_ours/$r_theirs:.2f} (target <= 1.0)")
print(f"ApriIndice alone (parse, strip, lookup):     {$t_open:.3f} s   peak RSS {$r_open/1024:.1f} MiB")
PY
