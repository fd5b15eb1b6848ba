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
echo "== smtpfm disarm samples/hostile/single-part-exe.eml -o - (the whole body is the attachment)"
"$bin/smtpfm" disarm samples/hostile/single-part-exe.eml -o -
echo
echo "== smtpfm disarm samples/hostile/signed.eml -o $out/signed.eml (an attachment inside a signature: exit 2)"
"$bin/smtpfm" disarm samples/hostile/signed.eml -o "$out/signed.eml" || echo "exit $?"
echo
echo "== smtpfm tree samples/hostile/two-gifs.eml samples/hostile/control-name.eml samples/hostile/not-mail.eml"
"$bin/smtpfm" tree samples/hostile/two-gifs.eml samples/hostile/control-name.eml samples/hostile/not-mail.eml
echo
cat > "$out/policy.toml" <<'EOF'
# An attachment policy: the first rule that matches an item decides it.
[[rule]]
name = "executables"
file-name = ["*.exe", "*.scr", "*.js"]
action = "reject"
text = "Executable attachments are not accepted here"

[[rule]]
name = "spreadsheets"
file-name = ["*.csv", "*.xls*"]
action = "disarm"
EOF
echo "== $out/policy.toml"
cat "$out/policy.toml"
echo
echo "== smtpfm check --policy $out/policy.toml ... (what check, filter and the milter do with each message, and why)"
"$bin/smtpfm" check --policy "$out/policy.toml" samples/mime-attachment.eml samples/plain-uuencoded.eml \
  samples/hostile/single-part-exe.eml
echo
echo "== smtpfm rebuild samples/damaged.eml -o $out/damaged.rebuilt.eml (repaired Content-Type values, a closing delimiter)"
"$bin/smtpfm" rebuild samples/damaged.eml -o "$out/damaged.rebuilt.eml"
diff --strip-trailing-cr samples/damaged.eml "$out/damaged.rebuilt.eml" || true
echo
echo "== smtpfm register --registry $out/registry"
"$bin/smtpfm" register --registry "$out/registry"
find "$out/registry" -name values.reg -exec cat {} \;
