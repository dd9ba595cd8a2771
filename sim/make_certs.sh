#!/usr/bin/env bash
# Makes a throw-away PKI for the test peers with the openssl CLI:
#   ca.pem/ca.key           certificate authority
#   server.pem/server.key   server certificate for 127.0.0.1 and localhost
#   client.pem/client.key   RSA client certificate (CN = the gateway EUI)
#   client_ec.pem/client_ec.key   EC (P-256) client certificate
#   server_other.pem/.key   server certificate from the same CA for another host (other.example)
#   server_self.pem/.key    self-signed server certificate for 127.0.0.1, outside ca.pem
# plus DER forms (*.der, keys as *.key.der) for building CUPS answers.
# Usage: make_certs.sh DIR [CLIENT_CN]
set -euo pipefail
dir=$1
cn=${2:-0016c001ff10a235}
mkdir -p "$dir"
cd "$dir"
q() { openssl "$@" >/dev/null 2>&1; }

q req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.pem -days 30 -subj "/CN=kes test CA"

cat > server.ext <<EXT
subjectAltName=IP:127.0.0.1,DNS:localhost
extendedKeyUsage=serverAuth
EXT
q req -newkey rsa:2048 -nodes -keyout server.key -out server.csr -subj "/CN=localhost"
q x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -out server.pem -days 30 -extfile server.ext

# Certificates an impostor could present: EC keys, quick to make.
cat > other.ext <<EXT
subjectAltName=DNS:other.example
extendedKeyUsage=serverAuth
EXT
q ecparam -name prime256v1 -genkey -noout -out server_other.key
q req -new -key server_other.key -out server_other.csr -subj "/CN=other.example"
q x509 -req -in server_other.csr -CA ca.pem -CAkey ca.key -CAcreateserial -out server_other.pem -days 30 -extfile other.ext
q ecparam -name prime256v1 -genkey -noout -out server_self.key
q req -x509 -new -key server_self.key -out server_self.pem -days 30 -subj "/CN=127.0.0.1" \
  -addext "subjectAltName=IP:127.0.0.1,DNS:localhost"

cat > client.ext <<EXT
extendedKeyUsage=clientAuth
EXT
q req -newkey rsa:2048 -nodes -keyout client.key -out client.csr -subj "/CN=$cn"
q x509 -req -in client.csr -CA ca.pem -CAkey ca.key -CAcreateserial -out client.pem -days 30 -extfile client.ext

q ecparam -name prime256v1 -genkey -noout -out client_ec.key
q req -new -key client_ec.key -out client_ec.csr -subj "/CN=$cn"
q x509 -req -in client_ec.csr -CA ca.pem -CAkey ca.key -CAcreateserial -out client_ec.pem -days 30 -extfile client.ext

for c in ca client client_ec server; do
  q x509 -in $c.pem -outform DER -out $c.der
done
q pkey -in client.key -outform DER -out client.key.der
q pkey -in client_ec.key -outform DER -out client_ec.key.der
chmod 600 *.key
rm -f *.csr *.ext *.srl

# A second CA and a server certificate for 127.0.0.1 from it: a stand-in for a public CA
# that the bridge must not trust unless its trust file names it.
q req -x509 -newkey rsa:2048 -nodes -keyout other_ca.key -out other_ca.pem -days 30 -subj "/CN=kes other CA"
printf 'subjectAltName=IP:127.0.0.1,DNS:localhost\nextendedKeyUsage=serverAuth\n' > other.ext
q req -newkey rsa:2048 -nodes -keyout other_server.key -out other_server.csr -subj "/CN=localhost"
q x509 -req -in other_server.csr -CA other_ca.pem -CAkey other_ca.key -CAcreateserial -out other_server.pem -days 30 \
  -extfile other.ext
chmod 600 other_ca.key other_server.key
rm -f other_server.csr other.ext other_ca.srl
