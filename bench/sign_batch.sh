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
# The same rate from separate processes started together, one per processor (on some
# machines -multi reports less than this).
for i in $(seq "$cores"); do
  openssl speed -seconds 3 rsa2048 > "$work/speed.$i.txt" 2>/dev/null &
done
wait
python3 - "$work" "$cores" <<'PY'
import re, sys
work, cores = sys.argv[1], int(sys.argv[2])
batch = open(f"{work}/batch.txt").read()
ours = float(re.search(r"tessarel sign files/s: ([0-9.]+)", batch).group(1))
# "rsa 2048 bits 0.000xxx 0.0000yy sign/s verify/s": the table row for rsa 2048
def rate(path):
    rows = [l for l in open(path).read().splitlines() if l.startswith("rsa 2048 bits")]
    return float(rows[-1].split()[5])
multi = rate(f"{work}/speed.txt")
apart = sum(rate(f"{work}/speed.{i}.txt") for i in range(1, cores + 1))
print(f"openssl speed -multi {cores} rsa2048:            {multi:.0f} signatures/s")
print(f"{cores} openssl speed rsa2048 processes at once: {apart:.0f} signatures/s")
print(f"tessarel sign: {ours:.0f} files/s = {ours / multi:.2f} of the -multi rate (target >= 0.6),"
      f" {ours / apart:.2f} of the separate processes' rate")
PY
