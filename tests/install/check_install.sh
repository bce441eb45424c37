#!/usr/bin/env bash
# usage: check_install.sh BUILD_DIR SOURCE_DIR_OF_THIS_TEST
set -euo pipefail
build=$1
here=$2
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$prefix" >/dev/null

for f in include/qv_sec.h include/qv_sec_internal.h include/qv_sec_version.h include/qv_sec_mpm.h include/qv_cu.h include/qv_tr.h include/vorpkit.h \
         lib/libqv_sec.so lib/libvorpkit.so lib/libqv_cu.so lib/libqv_tr.so \
         lib/pkgconfig/qv_sec.pc lib/pkgconfig/vorpkit.pc \
         share/qvsec/qvsec.cat share/qvsec/qvsec.msg share/qvsec/qvsec.cfg.sample bin/qvsec bin/qvtrace \
         bin/qvsec-example-service bin/qvsec-example-client lib/qvsec/mpm_local.so lib/qvsec/mpm_host.so \
         lib/cmake/qv_sec/qv_secConfig.cmake lib/cmake/qv_sec/qv_secConfigVersion.cmake share/qvsec/valgrind.supp \
         share/man/man1/qvsec.1 share/man/man1/qvtrace.1 share/man/man3/qv_sec.3 share/man/man5/qvsec.cfg.5 \
         share/man/man7/qvsec-local.7 share/doc/qvsec/README.md share/doc/qvsec/local-mechanism.md share/doc/qvsec/host-mechanism.md \
         share/doc/qvsec/writing-a-module.md share/doc/qvsec/skeleton_module.c; do
  [ -e "$prefix/$f" ] || fail "missing $f"
done
# Versioned SONAMEs, and nothing exported beyond each library's own names.
declare -A allowed=(
  [qv_sec]='^(sec_|sec__|SEC_STATE$|ntohl64$|htonl64$|cu_mesgtbl_qvsec_msg$|cu_badid_qvsec_msg$)'
  [qv_cu]='^cu_' [qv_tr]='^tr_' [vorpkit]='^(Vorp_|bn_)')
for lib in "${!allowed[@]}"; do
  so="$prefix/lib/lib$lib.so"
  readelf -d "$so" | grep -q "SONAME.*\[lib$lib\.so\.1\]" || fail "lib$lib.so has no SONAME lib$lib.so.1"
  extra=$(nm -D --defined-only "$so" | awk '{print $3}' | grep -Ev "${allowed[$lib]}" || true)
  [ -z "$extra" ] || fail "lib$lib.so exports unexpected symbols: $extra"
done

# Every public header compiles alone, as C99 and as C++.
for h in "$prefix"/include/*.h; do
  printf '#include "%s"\ntypedef int translation_unit_not_empty;\n' "$(basename "$h")" > "$prefix/h.c"
  gcc -std=c99 -Wall -Wextra -Werror -pedantic -fsyntax-only -I"$prefix/include" "$prefix/h.c" || fail "$h as C99"
  g++ -std=c++20 -Wall -Wextra -Werror -fsyntax-only -x c++ -I"$prefix/include" "$prefix/h.c" || fail "$h as C++"
done

# A C99 program built with pkg-config alone reads a failure's error record.
export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
# shellcheck disable=SC2046
gcc -std=c99 -Wall -Werror -o "$prefix/c99_client" "$here/c99_client.c" $(pkg-config --cflags --libs qv_sec) \
  || fail "c99 client does not build"
printf '1 a 1 /a.so i\n2 b 2 /b.so\n' > "$prefix/bad.cfg"
out=$("$prefix/c99_client" "$prefix/bad.cfg")
expected="rc=21 id=21 set=1 num=23 line=2
2650-019 An error occurred during processing of the configuration file or the configuration file does not exist."
[ "$out" = "$expected" ] || fail "c99 client printed: $out"

# The installed tool accepts the installed sample, which names the installed
# module, and rejects the bad file.
grep -q "^1 local 0x00000001 $prefix/lib/qvsec/mpm_local.so i$" "$prefix/share/qvsec/qvsec.cfg.sample" \
  || fail "sample does not name the installed module"
grep -q "^2 host 0x00000002 $prefix/lib/qvsec/mpm_host.so i$" "$prefix/share/qvsec/qvsec.cfg.sample" \
  || fail "sample does not name the installed host module"
"$prefix/bin/qvsec" config check "$prefix/share/qvsec/qvsec.cfg.sample" >/dev/null || fail "sample rejected"
if "$prefix/bin/qvsec" config check "$prefix/bad.cfg" 2>/dev/null; then fail "bad file accepted"; fi
# A CMake project finds the package alone, builds the examples (C) and a C++
# program against every imported target, and the versions agree: header
# macro, library routine, package version and the tool.
version=$(sed -n 's/^#define QV_SEC_VERSION "\(.*\)"$/\1/p' "$prefix/include/qv_sec_version.h")
[ -n "$version" ] || fail "no QV_SEC_VERSION in qv_sec_version.h"
cmake -S "$here/consumer" -B "$prefix/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DQV_EXAMPLES="$here/../../examples" >"$prefix/consumer.log" 2>&1 \
  && cmake --build "$prefix/consumer" >>"$prefix/consumer.log" 2>&1 \
  || { cat "$prefix/consumer.log" >&2; fail "find_package consumer does not build"; }
out=$("$prefix/consumer/every_target")
expected="header $version library $version
md5 900150983cd24fb0d6963f7d28e17f72
message text here"
[ "$out" = "$expected" ] || fail "consumer printed: $out"
[ -x "$prefix/consumer/example_service" ] && [ -x "$prefix/consumer/example_client" ] || fail "examples not built"
[ "$("$prefix/bin/qvsec" --version)" = "qvsec $version" ] || fail "qvsec --version: $("$prefix/bin/qvsec" --version)"
# A package of another major version is refused.
if cmake -S "$here/consumer" -B "$prefix/consumer2" -DCMAKE_PREFIX_PATH="$prefix" \
     -DQV_EXAMPLES="$here/../../examples" -DQV_WANT=$((${version%%.*} + 1)) >/dev/null 2>&1; then
  fail "find_package accepted another major version"
fi

# Man pages: no groff warning, and each renders through man with its NAME.
for page in "$prefix"/share/man/man*/*; do
  warnings=$(groff -t -man -ww -z -Tutf8 "$page" 2>&1)
  [ -z "$warnings" ] || fail "$page: $warnings"
  name=$(basename "$page"); name=${name%.*}
  MANWIDTH=80 man -l "$page" 2>/dev/null | grep -q "^ *$name " || fail "$page does not render"
done
echo "install layout: ok"
