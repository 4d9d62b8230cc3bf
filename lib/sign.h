// RSA signatures for the login challenge.
#pragma once

#include <string>

// Signs data with the PEM RSA private key (RSASSA-PKCS1-v1_5, SHA-256) and
// returns the signature as lower-case hex text. A key that cannot be read is
// a broken assumption and aborts.
std::string sign_rsa_sha256(std::string key_pem, std::string data);
