# Sourced by the scripts that fetch from Debian's archive: the entries the
# machine's own apt uses, so that no script names an archive itself.
#
# debian_sources SUITE prints one line per archive entry of SUITE and of
# its companions (SUITE-updates, SUITE-security), from the one-line lists
# and the deb822 .sources files alike:
#     URI SUITE SIGNED-BY COMPONENTS...
# SIGNED-BY is "-" when the entry names no keyring.
# DEBIAN_SOURCE_FILES names the files read, for the callers' messages.
DEBIAN_SOURCE_FILES="/etc/apt/sources.list /etc/apt/sources.list.d/*.list /etc/apt/sources.list.d/*.sources"
debian_sources() {
    # shellcheck disable=SC2086 # the globs are meant to expand
    cat $DEBIAN_SOURCE_FILES 2>/dev/null | awk -v S="$1" '
        # Both formats end in emit(); a deb822 stanza ends at a blank line.
        function emit(uri, suite, signed, comps) {
            if (suite == S || index(suite, S "-") == 1) print uri, suite, (signed == "" ? "-" : signed), comps
        }
        /^deb / {
            signed = ""; i = 2
            if ($2 ~ /^\[/) {
                for (; i <= NF; i++) { if ($i ~ /^\[?signed-by=/) { signed = $i; sub(/^\[?signed-by=/, "", signed); sub(/\]$/, "", signed) }
                                       if ($i ~ /\]$/) { i++; break } }
            }
            comps = ""; for (j = i + 2; j <= NF; j++) comps = comps " " $j
            emit($i, $(i + 1), signed, substr(comps, 2)); next
        }
        /^Types:/ { isdeb = 0; for (i = 2; i <= NF; i++) if ($i == "deb") isdeb = 1 }
        /^URIs:/ { nuris = 0; for (i = 2; i <= NF; i++) uris[++nuris] = $i }
        /^Suites:/ { nsuites = 0; for (i = 2; i <= NF; i++) suites[++nsuites] = $i }
        /^Components:/ { comps = ""; for (i = 2; i <= NF; i++) comps = comps " " $i; comps = substr(comps, 2) }
        /^Signed-By:/ { signed = $2 }
        /^[ \t]*$/ { flush() }
        END { flush() }
        function flush(   u, s) {
            if (isdeb) for (u = 1; u <= nuris; u++) for (s = 1; s <= nsuites; s++) emit(uris[u], suites[s], signed, comps)
            isdeb = 0; nuris = 0; nsuites = 0; comps = ""; signed = ""
        }
        '
}
