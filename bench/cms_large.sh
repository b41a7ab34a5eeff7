#!/usr/bin/env bash
# One large file, attached: `tessarel sign` and `tessarel verify` against
# `openssl dgst -sha256` + `cp` of the same file (the work any signer must do: read it once
# for the digest, write it once into the envelope), in the same run; peak RSS of each; and
# `openssl cms -sign -stream` / `openssl cms -verify` for comparison. Medians of ROUNDS
# alternating runs (default 5). The file goes to $TMPDIR (set it to a folder on a real disk).
#   bench/cms_large.sh [BUILD_DIR] [SIZE_MIB] [ROUNDS]
set -euo pipefail
build="${1:-build}"
size_mib="${2:-1024}"
rounds="${3:-5}"
cli="$build/bin/tessarel"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
file="$work/big.bin"
head -c $((size_mib * 1024 * 1024)) /dev/urandom > "$file"
store="$work/store"
id=$("$cli" --store "$store" cert new --cn "Large File Signer" 2>/dev/null)
"$cli" --store "$store" cert show "$id" --pem > "$work/cert.pem"
"$cli" --store "$store" cert export "$id" -o "$work/key.pfx" --password pass: 2>/dev/null
openssl pkcs12 -in "$work/key.pfx" -passin pass: -nocerts -nodes -out "$work/key.pem" 2>/dev/null
cat "$file" > /dev/null

median() { tr ' ' '\n' | sed '/^$/d' | sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }
# One timed run; dirty pages are written out first, so no run pays for an earlier one's writes.
once() {
  sync
  s=$(date +%s.%N); "$@" > /dev/null 2>&1; e=$(date +%s.%N)
  echo "$e - $s" | bc
}
rss() { /usr/bin/time -f '%M' -o "$work/rss" "$@" > /dev/null 2>&1; tail -n1 "$work/rss"; }

reference() { openssl dgst -sha256 "$file" > /dev/null && cp "$file" "$work/copy.bin"; }
sign_ours() { "$cli" --quiet --store "$store" sign --cert "$id" "$file"; }
sign_openssl() { openssl cms -sign -binary -nodetach -stream -outform DER -in "$file" -signer "$work/cert.pem" -inkey "$work/key.pem" -out "$work/openssl.p7m"; }
verify_ours() { "$cli" --quiet verify "$file.p7m"; }
verify_openssl() { openssl cms -verify -binary -inform DER -in "$file.p7m" -CAfile "$work/cert.pem" -purpose any -out /dev/null; }

# The runs alternate, so drift of the machine (other load, cache state) hits all alike.
ref_runs=""; sign_runs=""; ossl_sign_runs=""; verify_runs=""; ossl_verify_runs=""
for _ in $(seq "$rounds"); do
  ref_runs+=" $(once reference)"
  sign_runs+=" $(once sign_ours)"
  ossl_sign_runs+=" $(once sign_openssl)"
  verify_runs+=" $(once verify_ours)"
  ossl_verify_runs+=" $(once verify_openssl)"
done
t_ref=$(echo "$ref_runs" | median)
t_sign=$(echo "$sign_runs" | median)
t_ossl_sign=$(echo "$ossl_sign_runs" | median)
t_verify=$(echo "$verify_runs" | median)
t_ossl_verify=$(echo "$ossl_verify_runs" | median)
"$cli" --quiet verify "$file.p7m" > /dev/null || { echo "our envelope does not verify" >&2; exit 1; }
verify_openssl > /dev/null 2>&1 || { echo "openssl does not verify our envelope" >&2; exit 1; }
r_sign=$(rss "$cli" --quiet --store "$store" sign --cert "$id" "$file")
r_verify=$(rss "$cli" --quiet verify "$file.p7m")
r_ossl_sign=$(rss openssl cms -sign -binary -nodetach -stream -outform DER -in "$file" -signer "$work/cert.pem" -inkey "$work/key.pem" -out "$work/openssl.p7m")
python3 - <<PY
ref, sign, osign, ver, over = $t_ref, $t_sign, $t_ossl_sign, $t_verify, $t_ossl_verify
print(f"file: {$size_mib} MiB, medians of $rounds runs, page cache warm")
print(f"reference (openssl dgst -sha256 + cp): {ref:.2f} s")
print(f"tessarel sign (attached):    {sign:.2f} s  ratio {sign/ref:.2f} (target <= 1.1)  peak RSS {$r_sign/1024:.1f} MiB (target <= 64)")
print(f"openssl cms -sign -stream:   {osign:.2f} s  ratio {osign/ref:.2f}  peak RSS {$r_ossl_sign/1024:.1f} MiB")
print(f"tessarel verify:             {ver:.2f} s  ratio {ver/ref:.2f} (target <= 1.2)  peak RSS {$r_verify/1024:.1f} MiB (target <= 64)")
print(f"openssl cms -verify:         {over:.2f} s  ratio {over/ref:.2f}")
PY
