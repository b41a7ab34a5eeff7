#!/usr/bin/env bash
# PDF signing and checking on many-page documents of two sizes, in the same run as the
# reference work any signer must do: `cp` of the file (the signed copy) + `openssl dgst
# -sha256` of it (the document digest). `tessarel pdf verify` against `openssl dgst -sha256`
# of the signed file. Peak RSS of each, to show it does not grow with the document.
#   bench/pdf.sh [BUILD_DIR] [SIZES_MIB...]      (default sizes: 5 50)
set -euo pipefail
build="${1:-build}"
shift || true
sizes=("$@")
[ ${#sizes[@]} -gt 0 ] || sizes=(5 50)
cli="$build/bin/tessarel"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
store="$work/store"
id=$("$cli" --store "$store" cert new --cn "PDF Bench Signer" 2>/dev/null)

# A document of many pages, each with its own content stream of text that does not compress.
make_pdf() {
  /usr/bin/python3 - "$1" "$2" <<'PY'
import os, sys, base64
out, mib = sys.argv[1], int(sys.argv[2])
per_page = 5000
pages = max(1, mib * 1024 * 1024 // (per_page + 300))
objs = {1: b"<</Type/Catalog/Pages 2 0 R>>", 3: b"<</Type/Font/Subtype/Type1/BaseFont/Helvetica>>"}
kids = []
n = 4
for p in range(pages):
    text = base64.b64encode(os.urandom(per_page * 3 // 4)).decode()
    lines = " ".join("(%s) Tj 0 -12 Td" % text[i:i + 90] for i in range(0, len(text), 90))
    content = ("BT /F1 9 Tf 36 800 Td %s ET" % lines).encode()
    objs[n] = b"<</Length %d>>\nstream\n" % len(content) + content + b"\nendstream"
    objs[n + 1] = b"<</Type/Page/Parent 2 0 R/MediaBox[0 0 595 842]/Resources<</Font<</F1 3 0 R>>>>/Contents %d 0 R>>" % n
    kids.append(b"%d 0 R" % (n + 1))
    n += 2
objs[2] = b"<</Type/Pages/Kids[" + b" ".join(kids) + b"]/Count %d>>" % pages
with open(out, "wb") as f:
    f.write(b"%PDF-1.7\n%\xe2\xe3\xcf\xd3\n")
    offsets = {}
    for num in sorted(objs):
        offsets[num] = f.tell()
        f.write(b"%d 0 obj\n" % num + objs[num] + b"\nendobj\n")
    xref = f.tell()
    f.write(b"xref\n0 %d\n0000000000 65535 f \n" % n)
    for num in range(1, n):
        f.write(b"%010d 00000 n \n" % offsets[num])
    f.write(b"trailer\n<</Size %d/Root 1 0 R>>\nstartxref\n%d\n%%%%EOF\n" % (n, xref))
print(pages)
PY
}

median() { tr ' ' '\n' | sed '/^$/d' | sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }
once() {
  sync
  s=$(date +%s.%N); "$@" > /dev/null 2>&1; e=$(date +%s.%N)
  echo "$e - $s" | bc
}
rss() { /usr/bin/time -f '%M' -o "$work/rss" "$@" > /dev/null 2>&1; tail -n1 "$work/rss"; }

report=""
for mib in "${sizes[@]}"; do
  file="$work/doc-$mib.pdf"
  signed="$work/doc-$mib-signed.pdf"
  pages=$(make_pdf "$file" "$mib")
  cat "$file" > /dev/null
  reference() { cp "$file" "$work/copy.pdf" && openssl dgst -sha256 "$file" > /dev/null; }
  sign_ours() { "$cli" --quiet --store "$store" pdf sign "$file" -o "$signed" --cert "$id" --name "Bench"; }
  # In place: the document's own data is replaced, so it is forced to disk before the rename.
  sign_in_place() { "$cli" --quiet --store "$store" pdf sign "$work/inplace.pdf" --cert "$id"; }
  verify_ref() { openssl dgst -sha256 "$signed"; }
  verify_ours() { "$cli" --quiet pdf verify "$signed"; }
  sign_ours > /dev/null 2>&1
  "$cli" --quiet pdf verify "$signed" > /dev/null || { echo "the signed document does not verify" >&2; exit 1; }
  pdfsig -nocert "$signed" 2>/dev/null | grep -q "Signature is Valid" || { echo "pdfsig does not accept the signed document" >&2; exit 1; }
  # The runs alternate, so drift of the machine (other load, cache state) hits all alike.
  ref_runs=""; sign_runs=""; vref_runs=""; verify_runs=""; inplace_runs=""
  for _ in 1 2 3 4 5; do
    ref_runs+=" $(once reference)"
    rm -f "$signed"
    sign_runs+=" $(once sign_ours)"
    vref_runs+=" $(once verify_ref)"
    verify_runs+=" $(once verify_ours)"
    cp "$file" "$work/inplace.pdf"
    inplace_runs+=" $(once sign_in_place)"
  done
  t_ref=$(echo "$ref_runs" | median)
  t_sign=$(echo "$sign_runs" | median)
  t_vref=$(echo "$vref_runs" | median)
  t_verify=$(echo "$verify_runs" | median)
  t_inplace=$(echo "$inplace_runs" | median)
  rm -f "$signed"
  r_sign=$(rss "$cli" --quiet --store "$store" pdf sign "$file" -o "$signed" --cert "$id" --name "Bench")
  r_verify=$(rss "$cli" --quiet pdf verify "$signed")
  r_cp=$(rss cp "$file" "$work/copy.pdf")
  report+=$(python3 - <<PY
ref, sign, vref, ver, inplace = $t_ref, $t_sign, $t_vref, $t_verify, $t_inplace
print(f"document: {$mib} MiB, {$pages} pages, medians of 5 runs, page cache warm")
print(f"  reference (cp + openssl dgst -sha256):  {ref:.3f} s")
print(f"  tessarel pdf sign:                      {sign:.3f} s  ratio {sign/ref:.2f} (target <= 1.3)  peak RSS {$r_sign/1024:.1f} MiB (target <= 64; cp: {$r_cp/1024:.1f} MiB)")
print(f"  tessarel pdf sign, in place (fsync):    {inplace:.3f} s  ratio {inplace/ref:.2f}")
print(f"  openssl dgst -sha256 (signed file):     {vref:.3f} s")
print(f"  tessarel pdf verify:                    {ver:.3f} s  ratio {ver/vref:.2f} (target <= 1.3)  peak RSS {$r_verify/1024:.1f} MiB")
PY
)$'\n'
  rm -f "$file" "$signed" "$work/copy.pdf" "$work/inplace.pdf"
done
printf '%s' "$report"
