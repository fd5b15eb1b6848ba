#!/bin/sh
# make demo: smtpfm over the bundled sample messages.
set -e
build=${1:-build}
bin="$build/bin"
out="$build/demo"
mkdir -p "$out"

echo "== smtpfm tree samples/*.eml"
"$bin/smtpfm" tree samples/*.eml
echo
echo "== smtpfm disarm samples/mime-attachment.eml -o $out/mime-attachment.disarmed.eml"
"$bin/smtpfm" disarm samples/mime-attachment.eml -o "$out/mime-attachment.disarmed.eml"
echo
echo "== smtpfm tree $out/mime-attachment.disarmed.eml"
"$bin/smtpfm" tree "$out/mime-attachment.disarmed.eml"
echo
echo "== smtpfm rebuild samples/damaged.eml -o $out/damaged.rebuilt.eml (repaired Content-Type values, a closing delimiter)"
"$bin/smtpfm" rebuild samples/damaged.eml -o "$out/damaged.rebuilt.eml"
diff --strip-trailing-cr samples/damaged.eml "$out/damaged.rebuilt.eml" || true
echo
echo "== smtpfm register --registry $out/registry"
"$bin/smtpfm" register --registry "$out/registry"
find "$out/registry" -name values.reg -exec cat {} \;
