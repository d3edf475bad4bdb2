#!/bin/bash
# Runs secure_client against echo_server through a node configured for
# conversation security: one security user, whose password hash comes from
# snanoded --hash-password, and the TP SECURESRV with security_required.
#   run_secure.sh BIN_DIR SNANODED
set -u
# Absolute: the configuration names echo_server by its full path.
bin=$(cd "$1" && pwd) || exit 1
daemon=$2
user=SAMPLEU
password=sesame12
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The configuration keeps only a salted hash of the password.
hash=$(printf '%s\n' "$password" | "$daemon" --hash-password) || {
  echo "FAIL: snanoded --hash-password failed"
  exit 1
}
cat > "$work/secure.toml" <<EOF
[[tp]]
name = "SECURESRV"
program = "$bin/echo_server"
arguments = ["SECURESRV", "1"]
# Only conversations with a user ID the node has verified reach it.
security_required = true
# echo_server is started by this test and registers the name itself; the
# node starts the program only when nobody serves the name.
only_when_unregistered = true

[[security_user]]
user_id = "$user"
password_hash = "$hash"
EOF

"$(dirname "$0")/run_sample.sh" "$bin" --config "$work/secure.toml" --daemon "$daemon" \
  --server "echo_server SECURESRV 1" \
  --expect "without security: CM_SECURITY_NOT_VALID" \
  --expect "wrong password: CM_SECURITY_NOT_VALID" \
  --expect "right password: CM_OK" \
  --expect "server: accepted conversation 1, user ID \"$user *\"" \
  --expect "server: conversation 1 ended by the partner" \
  --expect "server: served 1 conversation\(s\), 0 failed" \
  -- secure_client "$user" "$password" SECURESRV
