#!/bin/sh
# make-certs.sh FOLDER: a certificate authority, certificates that it signed for localhost, one of them with a chain, and
# their keys in every encoding that the library reads. The encrypted key's pass phrase is "hutil".
set -eu
[ $# = 1 ] || { echo "usage: make-certs.sh FOLDER" >&2; exit 2; }
mkdir -p "$1"
cd "$1"
[ ! -e complete ] || exit 0

quiet() {
  "$@" 2>errors || { cat errors >&2; exit 1; }
  rm -f errors
}

authority() { # NAME
  quiet openssl req -x509 -newkey rsa:2048 -nodes -sha256 -days 3650 -subj "/CN=hutil $1" \
    -keyout "$1-key.pem" -out "$1.pem"
}

sign() { # NAME, whose key exists; AUTHORITY; SUBJECT; EXTENSION
  quiet openssl req -new -key "$1-key.pem" -subj "/CN=$3" -out request
  echo "$4" >extensions
  quiet openssl x509 -req -sha256 -days 3650 -in request -extfile extensions -out "$1.pem" \
    -CA "$2.pem" -CAkey "$2-key.pem" -CAcreateserial
}

certificate() { # NAME [AUTHORITY]
  sign "$1" "${2-ca}" localhost "subjectAltName=DNS:localhost,IP:127.0.0.1,IP:::1"
  quiet openssl x509 -in "$1.pem" -outform DER -out "$1.der"
}

authority ca
authority other-ca
cat ca.pem other-ca.pem >ca-bundle.pem
quiet openssl x509 -in ca.pem -outform DER -out ca.der

quiet openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out server-key.pem
quiet openssl rsa -in server-key.pem -traditional -out server-key-pkcs1.pem
quiet openssl rsa -in server-key.pem -traditional -outform DER -out server-key.der
quiet openssl pkcs8 -topk8 -nocrypt -in server-key.pem -outform DER -out server-key-pkcs8.der
quiet openssl pkcs8 -topk8 -in server-key.pem -passout pass:hutil -out server-key-encrypted.pem
certificate server

quiet openssl ecparam -name prime256v1 -genkey -noout -out ec-key.pem
quiet openssl ec -in ec-key.pem -outform DER -out ec-key.der
quiet openssl pkcs8 -topk8 -nocrypt -in ec-key.pem -outform DER -out ec-key-pkcs8.der
certificate ec

# Signed by an authority between, which comes behind it in one file.
for name in between chained; do
  quiet openssl ecparam -name prime256v1 -genkey -noout -out $name-key.pem
done
sign between ca "hutil between" basicConstraints=critical,CA:TRUE
certificate chained between
cat chained.pem between.pem >chain.pem

quiet openssl genpkey -algorithm ED25519 -out ed25519-key.pem
quiet openssl pkey -in ed25519-key.pem -outform DER -out ed25519-key.der

rm -f request extensions ./*.srl
: >complete
