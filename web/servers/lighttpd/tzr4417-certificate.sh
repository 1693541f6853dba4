#!/bin/sh
# The appliance's TLS key and self-signed certificate for tzr4417-https.conf,
# made the first time this runs: run it as root at every boot, before the web
# server starts. A certificate already in FOLDER stays as it is while it is
# valid and will be for 30 days more, so the one users have learnt to trust
# does not change under them; otherwise it is made again for the same key and
# names (a browser that pinned the key still accepts it).
#
#   tzr4417-certificate.sh FOLDER NAME [NAME-OR-ADDRESS...]
#
# FOLDER (made if need be) gets key.pem, an EC P-256 key readable by root
# only, and cert.pem, valid for 10 years. NAME, a host name, is the
# certificate's common name; it and the other host names and IPv4 or IPv6
# addresses are its subject alternative names. Needs the openssl command, not
# its configuration file. POSIX sh: busybox's will do.
set -eu

fail() {
  echo "tzr4417-certificate: $*" >&2
  exit 1
}
[ $# -ge 2 ] || fail "usage: tzr4417-certificate.sh FOLDER NAME [NAME-OR-ADDRESS...]"
dir=$1
shift

fingerprint() {
  printf 'tzr4417-certificate: %s: ' "$1"
  openssl x509 -in "$dir/cert.pem" -noout -fingerprint -sha256
}

san=
for name in "$@"; do
  case $name in
    '' | [.-]* | *[!A-Za-z0-9.:-]*) fail "'$name' is neither a host name nor an IP address" ;;
    *:*) san=$san,IP:$name ;; # IPv6; openssl checks the addresses' form
    *[!0-9.]*) san=$san,DNS:$name cn=${cn:-$name} ;;
    *) san=$san,IP:$name ;; # IPv4
  esac
done
[ "$1" = "${cn:-}" ] || fail "the first name is the common name: a host name, not '$1'"

# Valid from now until 30 days on? (Dates in ISO form compare as strings.)
valid() {
  start=$(openssl x509 -in "$dir/cert.pem" -noout -startdate -dateopt iso_8601) &&
    expr "${start#notBefore=}" \<= "$(date -u '+%Y-%m-%d %H:%M:%SZ')" >/dev/null &&
    openssl x509 -in "$dir/cert.pem" -noout -checkend 2592000 >/dev/null
}

# A board without a battery-backed clock starts in 1970: a certificate made
# then would have expired long before anyone sees it, and one made before
# cannot be judged by it (it is kept).
clock_set() { [ "$(date +%Y)" -ge 2024 ]; }
if [ -e "$dir/cert.pem" ]; then
  [ -e "$dir/key.pem" ] || fail "$dir/cert.pem has no key.pem beside it: remove the certificate to make a new pair"
  if ! clock_set || valid; then
    fingerprint "kept the certificate in $dir"
    exit 0
  fi
fi
clock_set || fail "the clock reads $(date): set it (RTC or NTP) before this runs"

# Everything made from here on is the owner's alone (the key above all), from
# the moment it exists.
umask 077
mkdir -p "$dir"
# A run cut short leaves its work in a folder of its own beside the files.
rm -rf "$dir"/.new.*
new=$(mktemp -d "$dir/.new.XXXXXX")
trap 'rm -rf "$new"' EXIT

# Its own configuration: embedded images often ship openssl without one.
cat >"$new/req.conf" <<EOF
[req]
distinguished_name = subject
x509_extensions = device
prompt = no
[subject]
CN = $cn
[device]
subjectAltName = ${san#,}
basicConstraints = critical, CA:FALSE
keyUsage = critical, digitalSignature
extendedKeyUsage = serverAuth
EOF
if [ -e "$dir/cert.pem" ]; then
  # The same key; a new serial number, as browsers refuse two certificates
  # that share an issuer and a serial number.
  openssl req -x509 -config "$new/req.conf" -key "$dir/key.pem" -days 3650 -out "$new/cert.pem" \
    2>"$new/errors" || fail "openssl could not renew the certificate: $(cat "$new/errors")"
  made="renewed the certificate in $dir for its key"
else
  openssl req -x509 -config "$new/req.conf" -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes \
    -days 3650 -keyout "$new/key.pem" -out "$new/cert.pem" 2>"$new/errors" ||
    fail "openssl could not make the key and certificate: $(cat "$new/errors")"
  made="made a key and certificate in $dir"
fi

# On disk before their names are: a power cut must not leave a named but
# empty file. The certificate comes last: once it is there, so is its key.
sync "$new"/*.pem
[ ! -e "$new/key.pem" ] || mv "$new/key.pem" "$dir/key.pem"
mv "$new/cert.pem" "$dir/cert.pem"
sync "$dir"
fingerprint "$made"
