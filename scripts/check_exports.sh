#!/usr/bin/env bash
# check_exports.sh BUILD_DIR - the finished libraries export what they should and need what they may.
#
# kyrno32_64.so exports the names of kyrno.map and nothing else, and opens in any process: it brings
# its C++ runtime along and needs no TLS library. The support library is what carries those in.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
library=$1/kyrno32_64.so
support=$1/libkyrno32ssl64.so
failed=0

complain() {
  echo "$*" >&2
  failed=1
}

needed() { readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'; }

wanted=$(sed -n '/global:/,/local:/s/^ *\([A-Za-z0-9]*\);$/\1/p' "$root/kyrno.map" | LC_ALL=C sort)
exported=$(nm -D --defined-only "$library" | awk '{print $NF}' | LC_ALL=C sort)
if [[ $exported != "$wanted" ]]; then
  complain "kyrno32_64.so: < is missing, > is exported without a line in kyrno.map"
  diff <(echo "$wanted") <(echo "$exported") >&2 || true
fi

for name in $(needed "$library"); do
  case $name in
    libc.so.* | libm.so.* | libpthread.so.* | libdl.so.* | ld-linux-*) ;;
    *) complain "kyrno32_64.so needs $name" ;;
  esac
done

for name in libgnutls libz libtasn1; do
  needed "$support" | grep -q "^$name\.so" || complain "libkyrno32ssl64.so does not need $name"
done
nm -D --defined-only "$support" | grep -q ' kyrnosslversion$' ||
  complain "libkyrno32ssl64.so does not export kyrnosslversion"

exit $failed
