# shellcheck shell=bash
# Sourced by check.sh.

# use_annotated_libcxx COMPILER DIRECTORY: makes libc++'s headers tell what each macOS lacks, as Apple's do: its builds for
# other systems switch that off in a header, of which DIRECTORY gets a copy that does not. Sets `libcxx`, the directories of
# headers, first to last. False if that can't be had, with `why_not`.
use_annotated_libcxx() {
    local compiler=$1 copy=$2 headers config
    headers=$("$compiler" -stdlib=libc++ -E -v -x c++ /dev/null 2>&1 | sed -n '/^#include </,/^End/s/^ //p' | grep -m1 '/c++/v1$')
    if [[ -z $headers ]]; then
        why_not="there is no libc++ for $compiler here"
        return 1
    fi
    config=$headers/__config_site
    # Version 14 has this name and these words; later ones, which begin at 10.13, others.
    if ! grep -qs HAS_NO_VENDOR_AVAILABILITY "$config" || ! grep -qs 'macosx,strict,introduced=10.13' "$headers/__availability"; then
        why_not="the libc++ in $headers does not know any more what 10.12 lacks"
        return 1
    fi
    mkdir -p "$copy"
    grep -v HAS_NO_VENDOR_AVAILABILITY "$config" >"$copy/__config_site"
    libcxx=("$copy" "$headers")
}

# refused COMPILER OPTION... SOURCE: whether the compiler refuses the source, for being newer than the target and for nothing
# else.
refused() {
    local text
    text=$("$@" -fsyntax-only 2>&1) && return 1
    ! grep ' error: ' <<<"$text" | grep -v 'is unavailable: introduced in macOS'
}
