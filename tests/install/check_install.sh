#!/bin/sh
# Installs the build tree into a scratch prefix and checks the installed
# layout as a user meets it: the producer and what lies beside it, the tools,
# the headers through pkg-config, the profile snippet, and pelorin-info
# finding the producer beside itself without any GenTL path.
# Usage: check_install.sh CMAKE BUILD_DIR PREFIX LIBDIR CC
set -eu
cmake="$1" build_dir="$2" prefix="$3" libdir="$4" cc="$5"

fail() { echo "check_install: FAILED: $*" >&2; exit 1; }

rm -rf "$prefix"
"$cmake" --install "$build_dir" --prefix "$prefix" >"$prefix.log" 2>&1 ||
    { cat "$prefix.log" >&2; fail "cmake --install $build_dir --prefix $prefix"; }

gentl="$prefix/lib/gentl/pelorin"
for file in "$gentl/pelorin_cxp.cti" "$gentl/pelorin_cxp_ini.dll.example" \
    "$prefix/bin/pelorin-info" "$prefix/bin/pelorin-grab" \
    "$prefix/include/pelorin/gentl.h" "$prefix/include/pelorin/kv_api.h" \
    "$prefix/$libdir/pkgconfig/pelorin-cxp.pc" "$prefix/etc/profile.d/pelorin-gentl.sh"; do
    [ -f "$file" ] || fail "$file is not installed"
done
[ -d "$gentl/userset" ] || fail "$gentl/userset is not installed"
built_zips=$(ls "$build_dir/gentl/xml/cxp" | grep -c '\.zip$') || fail "no description files in the build tree"
installed_zips=$(ls "$gentl/xml/cxp" | grep -c '\.zip$') || fail "no description files in $gentl/xml/cxp"
[ "$built_zips" -eq "$installed_zips" ] ||
    fail "$installed_zips description files installed, $built_zips built"

# pkg-config: the headers compile from C with its Cflags; the .cti is where
# its variable says.
export PKG_CONFIG_PATH="$prefix/$libdir/pkgconfig"
cflags=$(pkg-config --cflags pelorin-cxp) || fail "pkg-config --cflags pelorin-cxp"
cflags="${cflags% }"
[ "$cflags" = "-I$prefix/include" ] || fail "pkg-config --cflags gives '$cflags'"
printf '#include <pelorin/kv_api.h>\n' | "$cc" $cflags -fsyntax-only -x c - ||
    fail "pelorin/kv_api.h does not compile with the pkg-config flags"
cti=$(pkg-config --variable=cti pelorin-cxp)
[ "$cti" = "$gentl/pelorin_cxp.cti" ] || fail "pkg-config --variable=cti gives '$cti'"

# The snippet adds the directory once, after what is there.
snippet="$prefix/etc/profile.d/pelorin-gentl.sh"
value=$(env -u GENICAM_GENTL64_PATH sh -c ". '$snippet'; . '$snippet'; echo \"\$GENICAM_GENTL64_PATH\"")
[ "$value" = "$gentl" ] || fail "snippet on an unset path gives '$value'"
value=$(GENICAM_GENTL64_PATH=/opt/other sh -c ". '$snippet'; . '$snippet'; echo \"\$GENICAM_GENTL64_PATH\"")
[ "$value" = "/opt/other:$gentl" ] || fail "snippet after /opt/other gives '$value'"
value=$(GENICAM_GENTL64_PATH="$gentl;/opt/other" sh -c ". '$snippet'; echo \"\$GENICAM_GENTL64_PATH\"")
[ "$value" = "$gentl;/opt/other" ] || fail "snippet on a path that has it gives '$value'"

# The installed tool finds the installed producer beside it.
status=0
output=$(env -u GENICAM_GENTL64_PATH "$prefix/bin/pelorin-info" 2>&1) || status=$?
if [ "$status" -ne 0 ]; then
    echo "$output" >&2
    fail "$prefix/bin/pelorin-info exits with $status without GENICAM_GENTL64_PATH"
fi
case "$output" in
    *Lyra*) ;;
    *) echo "$output" >&2; fail "$prefix/bin/pelorin-info lists no emulated camera" ;;
esac
echo "check_install: $prefix holds the installed layout"
