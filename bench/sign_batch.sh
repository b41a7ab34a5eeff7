#!/usr/bin/env bash
# `tessarel sign` of many small files (default 2000 of 4 KiB) against, in the same run:
#  - a single-threaded in-process loop over OpenSSL's CMS_sign with the same key and files;
#  - the RSA-2048 signing rate of `openssl speed -multi N rsa2048` on all N processors, the
#    ceiling for any signer of this key size on this machine.
# Big inputs go to $TMPDIR (set it to a folder on a real disk).
#   bench/sign_batch.sh [BUILD_DIR] [FILES] [SIZE_BYTES] [ROUNDS]
set -euo pipefail
build="${1:-build}"
files="${2:-2000}"
size="${3:-4096}"
rounds="${4:-5}"
cores=$(nproc)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$build/bench/bench_cms_batch" "$files" "$size" "$rounds" --cli "$build/bin/tessarel" \
  --dir "$work" | tee "$work/batch.txt"
openssl speed -multi "$cores" -seconds 3 rsa2048 > "$work/speed.txt" 2>/dev/null
python3 - "$work/batch.txt" "$work/speed.txt" "$cores" <<'PY'
import re, sys
batch = open(sys.argv[1]).read()
speed = open(sys.argv[2]).read()
cores = int(sys.argv[3])
ours = float(re.search(r"tessarel sign files/s: ([0-9.]+)", batch).group(1))
# "rsa 2048 bits 0.000xxx 0.0000yy sign/s verify/s": the last table row for rsa 2048
rows = [l for l in speed.splitlines() if l.startswith("rsa 2048 bits")]
sign_rate = float(rows[-1].split()[5])
print(f"openssl speed -multi {cores} rsa2048: {sign_rate:.0f} signatures/s")
print(f"tessarel sign: {ours:.0f} files/s = {ours / sign_rate:.2f} of that rate (target >= 0.6)")
PY
