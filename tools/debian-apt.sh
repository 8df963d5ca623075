#!/usr/bin/env bash
# Debian source packages and the Debian mirror, taken from this machine's own apt configuration
# (/etc/apt/sources.list.d/debian.sources): no package host is written anywhere in the project.
#
#   tools/debian-apt.sh source PACKAGE[=VERSION] DEST
#       Downloads the files of a source package (.dsc, upstream and Debian tarballs) into DEST,
#       through a private apt configuration in DEST/.apt whose deb-src entries are the
#       machine's deb entries. apt checks every file against the signed index. Nothing is
#       unpacked and the machine's apt state is not touched.
#   tools/debian-apt.sh mirror
#       Prints the first deb entry as "URI SUITE KEYRING" (for debootstrap).
set -euo pipefail

sources=/etc/apt/sources.list.d/debian.sources
die() { echo "debian-apt: $*" >&2; exit 1; }
[ -r "$sources" ] || die "$sources is missing: no Debian apt source to derive from"

# The stanzas of the deb822 file whose Types hold "deb", with Types set to deb-src.
deb_src_stanzas() {
  awk 'BEGIN { RS = ""; ORS = "\n\n" }
       /(^|\n)Types:[^\n]*(^|[ \t])deb([ \t]|\n|$)/ {
         sub(/(^|\n)Types:[^\n]*/, "\nTypes: deb-src"); sub(/^\n/, ""); print }' "$sources"
}

case "${1:-}" in
  source)
    [ $# -eq 3 ] || die "usage: debian-apt.sh source PACKAGE[=VERSION] DEST"
    package=$2 dest=$3
    apt_dir="$dest/.apt"
    mkdir -p "$apt_dir/sources.list.d" "$apt_dir/lists/partial" "$apt_dir/cache/archives/partial"
    : >"$apt_dir/sources.list"
    deb_src_stanzas >"$apt_dir/sources.list.d/debian-src.sources"
    [ -s "$apt_dir/sources.list.d/debian-src.sources" ] || die "no deb entry in $sources"
    cat >"$apt_dir/apt.conf" <<EOF
Dir::Etc::SourceList "$apt_dir/sources.list";
Dir::Etc::SourceParts "$apt_dir/sources.list.d";
Dir::State::Lists "$apt_dir/lists";
Dir::Cache "$apt_dir/cache";
APT::Sandbox::User "$(id -un)";
EOF
    export APT_CONFIG="$apt_dir/apt.conf"
    log="$apt_dir/log"
    if ! { apt-get -q update && (cd "$dest" && apt-get -q source --download-only "$package"); } >"$log" 2>&1; then
      tail -n 20 "$log" >&2
      die "could not download the source package $package (log: $log)"
    fi
    ;;
  mirror)
    awk 'BEGIN { RS = "" }
         /(^|\n)Types:[^\n]*(^|[ \t])deb([ \t]|\n|$)/ {
           uri = suite = key = ""
           n = split($0, line, "\n")
           for (i = 1; i <= n; ++i) {
             if (line[i] ~ /^URIs:/) { split(line[i], f, /[ \t]+/); uri = f[2] }
             if (line[i] ~ /^Suites:/) { split(line[i], f, /[ \t]+/); suite = f[2] }
             if (line[i] ~ /^Signed-By:/) { split(line[i], f, /[ \t]+/); key = f[2] }
           }
           if (uri != "" && suite != "") { print uri, suite, key; exit }
         }' "$sources" | grep . || die "no deb entry with URIs and Suites in $sources"
    ;;
  *)
    die "usage: debian-apt.sh source PACKAGE[=VERSION] DEST | mirror"
    ;;
esac
