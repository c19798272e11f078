#!/bin/sh
# Makes the certificates of the TLS tests in the directory given (created if
# need be), with the openssl command line only:
#   ca.pem             test CA (also ca-store.pem: a file store holding only it)
#   server.pem/.key    localhost and 127.0.0.1, signed by the CA
#   expired.pem/.key   the same names, valid only in 2020
#   wronghost.pem/.key for mail.invalid only
#   self.pem/.key      self-signed, for an untrusted chain
#   client.pem         client certificate and key in one PEM bundle
#   client.p12         the same as PKCS #12, password "pfx-secret", friendly name "Korvane Test Client"
set -eu
dir=${1:?usage: make-certs.sh DIR}
mkdir -p "$dir"
cd "$dir"

key() { openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$1" 2>/dev/null; }

key ca.key
openssl req -x509 -new -key ca.key -days 3650 -subj "/O=Korvane Tests/CN=Korvane Test CA" \
    -addext "basicConstraints=critical,CA:TRUE" -addext "keyUsage=critical,keyCertSign,cRLSign" \
    -out ca.pem 2>/dev/null
cp ca.pem ca-store.pem

# name, subject CN, subjectAltName
sign() {
    key "$1.key"
    openssl req -new -key "$1.key" -subj "/O=Korvane Tests/CN=$2" -out "$1.csr" 2>/dev/null
    printf 'basicConstraints=CA:FALSE\nsubjectAltName=%s\n' "$3" > "$1.ext"
    openssl x509 -req -in "$1.csr" -CA ca.pem -CAkey ca.key -CAcreateserial -days 825 \
        -extfile "$1.ext" -out "$1.pem" 2>/dev/null
}
sign server localhost "DNS:localhost,IP:127.0.0.1"
sign wronghost mail.invalid "DNS:mail.invalid"

# The expired one goes through "openssl ca", the one command that takes dates.
key expired.key
openssl req -new -key expired.key -subj "/O=Korvane Tests/CN=localhost" -out expired.csr 2>/dev/null
mkdir -p ca-db
: > ca-db/index.txt
echo 1000 > ca-db/serial
cat > ca-db/ca.cnf <<CNF
[ca]
default_ca = test
[test]
database = ca-db/index.txt
serial = ca-db/serial
new_certs_dir = ca-db
default_md = sha256
policy = any
copy_extensions = none
[any]
commonName = supplied
organizationName = optional
CNF
openssl ca -batch -config ca-db/ca.cnf -cert ca.pem -keyfile ca.key -in expired.csr \
    -startdate 20200101000000Z -enddate 20200102000000Z -out expired.pem -notext 2>/dev/null

key self.key
openssl req -x509 -new -key self.key -days 825 -subj "/CN=localhost" \
    -addext "subjectAltName=DNS:localhost,IP:127.0.0.1" -out self.pem 2>/dev/null

key client.key
openssl req -new -key client.key -subj "/O=Korvane Tests/CN=Korvane Test Client" -out client.csr 2>/dev/null
printf 'basicConstraints=CA:FALSE\nextendedKeyUsage=clientAuth\n' > client.ext
openssl x509 -req -in client.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 825 \
    -extfile client.ext -out client.crt 2>/dev/null
cat client.crt client.key > client.pem
openssl pkcs12 -export -in client.crt -inkey client.key -certfile ca.pem \
    -name "Korvane Test Client" -passout pass:pfx-secret -out client.p12 2>/dev/null
