#!/bin/bash
# Makes a throw-away CA and certificates for tests in DIR (PEM, EC P-256, valid two days):
#   ca.pem/ca.key               the CA the server trusts for clients and clients trust for it
#   server.pem/server.key       CN=localhost, for localhost, 127.0.0.1 and any further IP given
#   monitor, operator, admin    client certificates, subjects "CN=<name>,O=Test" (RFC 2253)
#   rogue.pem/rogue.key         "CN=admin,O=Test" too, but signed by another CA
# Usage: make-test-certs.sh DIR [IP...]
set -euo pipefail
dir=$1
shift
mkdir -p "$dir"
cd "$dir"

san="DNS:localhost,IP:127.0.0.1"
for ip in "$@"; do san+=",IP:$ip"; done

new_ca() {
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 \
        -keyout "$1.key" -out "$1.pem" -subj "$2" 2>/dev/null
}

# name subject extensions ca
issue() {
    openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes \
        -keyout "$1.key" -out "$1.csr" -subj "$2" 2>/dev/null
    printf '%b\n' "$3" >"$1.ext"
    openssl x509 -req -in "$1.csr" -CA "$4.pem" -CAkey "$4.key" -CAcreateserial -days 2 \
        -extfile "$1.ext" -out "$1.pem" 2>/dev/null
    rm -f "$1.csr" "$1.ext"
}

new_ca ca "/CN=Test CA"
new_ca rogue-ca "/CN=Rogue CA"
issue server "/CN=localhost" "subjectAltName=$san\nextendedKeyUsage=serverAuth" ca
for role in monitor operator admin; do
    issue "$role" "/O=Test/CN=$role" "extendedKeyUsage=clientAuth" ca
done
issue rogue "/O=Test/CN=admin" "extendedKeyUsage=clientAuth" rogue-ca
