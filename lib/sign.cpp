#include "sign.h"

#include <openssl/bio.h>
#include <openssl/obj_mac.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>

#include <vector>

#include "diag.h"
#include "strutil.h"

std::string sign_rsa_sha256(std::string key_pem, std::string data) {
    // Length -1: the key is the text up to its terminating zero.
    BIO* key_bio = BIO_new_mem_buf(key_pem.c_str(), -1);
    HV_PRECONDITION(key_bio != NULL, "lib/sign", __LINE__);  // NOLINT(modernize-use-nullptr)
    RSA* key = PEM_read_bio_RSAPrivateKey(key_bio, nullptr, nullptr, nullptr);
    HV_PRECONDITION(key != NULL, "lib/sign", __LINE__);  // NOLINT(modernize-use-nullptr)

    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char*>(data.data()), data.size(), digest);

    std::vector<unsigned char> signature(static_cast<size_t>(RSA_size(key)), 0);
    unsigned int signature_len = 0;
    int ret = RSA_sign(NID_sha256, digest, sizeof digest, signature.data(), &signature_len, key);
    HV_PRECONDITION(ret == 1, "lib/sign", __LINE__);

    RSA_free(key);
    BIO_free(key_bio);
    return hvlib::hex_encode(
        std::string(reinterpret_cast<const char*>(signature.data()), signature_len));
}
