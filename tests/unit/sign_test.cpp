// Signatures are checked with OpenSSL's own verification, independently of
// the signing code.
#include <gtest/gtest.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include "sign.h"

namespace {

EVP_PKEY* test_key() {
    static EVP_PKEY* key = EVP_RSA_gen(2048);
    return key;
}

// The private key in the relay's PKCS#1 form ("BEGIN RSA PRIVATE KEY"), or
// the public key.
std::string pem(bool private_key) {
    BIO* bio = BIO_new(BIO_s_mem());
    if (private_key) {
        PEM_write_bio_PrivateKey_traditional(bio, test_key(), nullptr, nullptr, 0, nullptr,
                                             nullptr);
    } else {
        PEM_write_bio_PUBKEY(bio, test_key());
    }
    char* data = nullptr;
    const long len = BIO_get_mem_data(bio, &data);
    std::string text(data, static_cast<size_t>(len));
    BIO_free(bio);
    return text;
}

bool verifies(const std::string& data, const std::string& hex_signature) {
    long len = 0;
    unsigned char* sig = OPENSSL_hexstr2buf(hex_signature.c_str(), &len);
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    EVP_DigestVerifyInit(ctx, nullptr, EVP_sha256(), nullptr, test_key());
    const int ok =
        EVP_DigestVerify(ctx, sig, static_cast<size_t>(len),
                         reinterpret_cast<const unsigned char*>(data.data()), data.size());
    EVP_MD_CTX_free(ctx);
    OPENSSL_free(sig);
    return sig != nullptr && ok == 1;
}

}  // namespace

TEST(Sign, DeterministicLowerHexOverTheBytesAsGiven) {
    std::string sig = sign_rsa_sha256(pem(true), "abc%20def");
    ASSERT_EQ(sig.size(), 512u);
    EXPECT_EQ(sig.find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_EQ(sig, sign_rsa_sha256(pem(true), "abc%20def"));
    EXPECT_TRUE(verifies("abc%20def", sig));
    EXPECT_FALSE(verifies("abc def", sig));
    for (const std::string& data : {std::string(), std::string("a\0b\n", 4)}) {
        EXPECT_TRUE(verifies(data, sign_rsa_sha256(pem(true), data)));
    }
}

TEST(SignDeathTest, UnreadableKeysAbort) {
    const std::string key = pem(true);
    for (const std::string& bad : {std::string(), key.substr(0, key.size() / 2), pem(false)}) {
        EXPECT_EXIT(sign_rsa_sha256(bad, "x"), testing::KilledBySignal(SIGABRT),
                    "^lib/sign:[0-9]+: failed precondition 'key != NULL'\n$");
    }
}
