#!/bin/sh
# Checks every module description file (xml/cxp/*.xml):
#  1. it validates against the GenApi schema;
#  2. each string register takes its size from the length item of the same
#     register: a 4-byte IntReg at the same register number (only the sub-code
#     differs) with the same index. Port reads succeed only with the exact size
#     of a value, so a string read with a fixed or a wrong length fails;
#  3. the build's zip of it beside the library (<name>.zip) holds exactly that
#     file, at the root of the archive, byte for byte.
# All problems are reported; the exit status is 1 if there is any.
#
# Usage: check_description_files.sh XMLLINT CMAKE SCHEMA XML_DIR ZIP_DIR WORK_DIR
set -u

if [ $# -ne 6 ]; then
    echo "usage: $0 XMLLINT CMAKE SCHEMA XML_DIR ZIP_DIR WORK_DIR" >&2
    exit 2
fi
xmllint=$1 cmake=$2 schema=$3 xml_dir=$4 zip_dir=$5 work_dir=$6
# The zips are extracted from inside a work directory.
case $zip_dir in
    /*) ;;
    *) zip_dir=$PWD/$zip_dir ;;
esac

failures=0
fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}

if ! command -v "$xmllint" >/dev/null 2>&1; then
    echo "FAIL: xmllint not found (Debian package libxml2-utils; scripts/setup installs it)" >&2
    exit 1
fi

# xpath FILE EXPRESSION: the expression's string value.
xpath() {
    "$xmllint" --xpath "$2" "$1" 2>/dev/null
}

# Elements are matched by local name: the files use the GenApi namespace as
# their default namespace.
el() {
    printf "*[local-name()='%s']" "$1"
}

check_string_lengths() {
    xml=$1 name=$2
    count=$(xpath "$xml" "count(//$(el StringReg))")
    i=1
    while [ "$i" -le "${count:-0}" ]; do
        reg="(//$(el StringReg))[$i]"
        reg_name=$(xpath "$xml" "string($reg/@Name)")
        length_name=$(xpath "$xml" "string($reg/$(el pLength))")
        if [ -z "$length_name" ]; then
            fail "$name: string register $reg_name has no pLength; it must read its size from its length item"
            i=$((i + 1))
            continue
        fi
        item="//$(el IntReg)[@Name='$length_name']"
        if [ "$(xpath "$xml" "count($item)")" != 1 ]; then
            fail "$name: length item $length_name of $reg_name is not an IntReg"
            i=$((i + 1))
            continue
        fi
        item_length=$(xpath "$xml" "string($item/$(el Length))")
        if [ "$item_length" != 4 ]; then
            fail "$name: length item $length_name of $reg_name is read with '$item_length' bytes, not 4"
        fi
        reg_address=$(xpath "$xml" "string($reg/$(el Address))")
        item_address=$(xpath "$xml" "string($item/$(el Address))")
        if [ -n "$reg_address" ] && [ -n "$item_address" ] &&
            [ $((reg_address >> 16)) -ne $((item_address >> 16)) ]; then
            fail "$name: length item $length_name ($item_address) is not on the register of $reg_name ($reg_address)"
        fi
        for part in "$(el pIndex)" "$(el pIndex)/@Offset" "$(el pIndex)/@pOffset"; do
            if [ "$(xpath "$xml" "string($reg/$part)")" != "$(xpath "$xml" "string($item/$part)")" ]; then
                fail "$name: length item $length_name is not indexed like $reg_name ($part)"
            fi
        done
        i=$((i + 1))
    done
}

check_zip() {
    xml=$1 name=$2 base=$3
    zip=$zip_dir/$base.zip
    if [ ! -f "$zip" ]; then
        fail "$name: $zip is missing"
        return
    fi
    entries=$("$cmake" -E tar tf "$zip")
    if [ "$entries" != "$name" ]; then
        fail "$name: $zip holds '$entries' instead of $name alone"
        return
    fi
    dir=$work_dir/$base
    rm -rf "$dir"
    mkdir -p "$dir"
    if ! (cd "$dir" && "$cmake" -E tar xf "$zip"); then
        fail "$name: $zip cannot be extracted"
        return
    fi
    if ! cmp -s "$dir/$name" "$xml"; then
        fail "$name: $zip holds other bytes than the source file (stale build?)"
    fi
}

files=0
for xml in "$xml_dir"/*.xml; do
    [ -f "$xml" ] || continue
    files=$((files + 1))
    name=$(basename "$xml")
    base=${name%.xml}
    if "$xmllint" --noout --schema "$schema" "$xml"; then
        # Node names are known to be plain identifiers only once the file is valid.
        check_string_lengths "$xml" "$name"
    else
        fail "$name does not validate against $(basename "$schema")"
    fi
    check_zip "$xml" "$name" "$base"
done

if [ "$files" -eq 0 ]; then
    fail "no description files in $xml_dir"
fi
if [ "$failures" -ne 0 ]; then
    echo "$failures problem(s) in $files description file(s)" >&2
    exit 1
fi
echo "$files description file(s) valid, zipped and checked"
